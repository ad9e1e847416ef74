// The depth frame path (ProcessInput of a 848x480 frame with the camera's capture metadata, the
// have-output event, ProcessOutput) through a transform recording its device events (samples without
// pixel data), against the same path through a transform that does not record, in the same run.
#include <algorithm>
#include <cstdio>
#include <thread>
#include <vector>

#include "mft_core/recorder/DeviceEventsRecorder.h"
#include "mft_core/transform/PassThroughDeviceMft.h"
#include "platform/WindowsSdk.h"
#include "sim/CameraConfig.h"
#include "sim/CameraMetadataWriter.h"
#include "sim/SimulatedCameraFilter.h"
#include "user_space_frameworks/ComObject.h"

namespace {

using Microsoft::WRL::ComPtr;

constexpr int kBatch = 500;
constexpr int kRounds = 31;

double NowNs() {
  static LARGE_INTEGER frequency = [] {
    LARGE_INTEGER f;
    QueryPerformanceFrequency(&f);
    return f;
  }();
  LARGE_INTEGER counter;
  QueryPerformanceCounter(&counter);
  return static_cast<double>(counter.QuadPart) * 1e9 / static_cast<double>(frequency.QuadPart);
}

double Median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  return values[values.size() / 2];
}

// A pass-through transform over the simulated depth camera with output stream 0 running at
// 848x480, 30 fps: the state request is answered here as the frame server would.
struct RunningTransform {
  ComPtr<sim::SimulatedCameraFilter> filter;
  ComPtr<IMFDeviceTransform> device;
  ComPtr<IMFMediaEventGenerator> events;

  HRESULT Start() {
    filter = sim::SimulatedCameraFilter::Create(sim::DepthCamera());
    auto object = user_space_frameworks::MakeComObject<mft_core::PassThroughDeviceMft>(
        "Bench MFT", mft_core::DeviceExtensionUnits{sim::kDepthXuSet, 1, 7});
    HRESULT hr = object.As(&device);
    if (SUCCEEDED(hr)) hr = device.As(&events);
    ComPtr<IMFAttributes> attributes;
    if (SUCCEEDED(hr)) hr = filter->CreateFilterAttributes(attributes.GetAddressOf());
    if (SUCCEEDED(hr)) hr = device->InitializeTransform(attributes.Get());
    ComPtr<IMFMediaType> type;
    for (DWORD index = 0; SUCCEEDED(hr); ++index) {
      hr = device->GetOutputAvailableType(0, index, type.ReleaseAndGetAddressOf());
      UINT32 width = 0, height = 0, num = 0, den = 0;
      if (SUCCEEDED(hr) && SUCCEEDED(MFGetAttributeSize(type.Get(), MF_MT_FRAME_SIZE, &width, &height)) &&
          SUCCEEDED(MFGetAttributeRatio(type.Get(), MF_MT_FRAME_RATE, &num, &den)) && width == 848 && height == 480 &&
          num == 30 * den) {
        break;
      }
    }
    if (FAILED(hr)) return hr;
    HRESULT started = E_FAIL;
    std::thread start([&] { started = device->SetOutputStreamState(0, type.Get(), DeviceStreamState_Run, 0); });
    for (;;) {
      ComPtr<IMFMediaEvent> event;
      if (FAILED(events->GetEvent(0, &event))) break;
      MediaEventType eventType = MEUnknown;
      event->GetType(&eventType);
      if (eventType != METransformInputStreamStateChanged) continue;
      DeviceStreamState state = DeviceStreamState_Stop;
      ComPtr<IMFMediaType> preferred;
      device->GetInputStreamPreferredState(0, &state, &preferred);
      device->SetInputStreamState(0, preferred.Get(), state, 0);
      break;
    }
    start.join();
    return started;
  }

  // One frame in and out; false when it did not come out.
  bool Frame(IMFSample *sample) {
    if (FAILED(device->ProcessInput(0, sample, 0))) return false;
    ComPtr<IMFMediaEvent> event;
    events->GetEvent(MF_EVENT_FLAG_NO_WAIT, &event);
    MFT_OUTPUT_DATA_BUFFER out{};
    out.dwStreamID = 0;
    DWORD status = 0;
    const HRESULT hr = device->ProcessOutput(0, 1, &out, &status);
    if (out.pSample) out.pSample->Release();
    if (out.pEvents) out.pEvents->Release();
    return hr == S_OK;
  }

  void Stop() {
    ComPtr<IMFShutdown> shutdown;
    if (SUCCEEDED(device.As(&shutdown))) shutdown->Shutdown();
  }
};

}  // namespace

int main() {
  if (FAILED(CoInitializeEx(nullptr, COINIT_MULTITHREADED)) || FAILED(MFStartup(MF_VERSION, MFSTARTUP_FULL))) {
    std::fprintf(stderr, "Media Foundation did not start\n");
    return 1;
  }
  int status = 0;
  wchar_t folder[MAX_PATH] = {};
  GetTempPathW(MAX_PATH, folder);
  const std::wstring path = std::wstring(folder) + L"wq-recording-bench.bin";
  {
    RunningTransform plain, recorded;
    HRESULT hr = plain.Start();
    mft_core::DeviceEventsRecorderSettings settings;
    settings.enabled = true;
    settings.path = path;
    if (SUCCEEDED(hr)) hr = settings.StoreInRegistry();
    if (SUCCEEDED(hr)) hr = recorded.Start();
    mft_core::DeviceEventsRecorderSettings::RemoveFromRegistry();
    if (FAILED(hr)) {
      std::fprintf(stderr, "the transforms did not start (0x%08lX)\n", static_cast<unsigned long>(hr));
      return 1;
    }

    // A depth frame with the camera's metadata, as the driver delivers it.
    ComPtr<IMFSample> sample;
    ComPtr<IMFMediaBuffer> buffer;
    MFCreateSample(&sample);
    MFCreateMemoryBuffer(848 * 480 * 2, &buffer);
    buffer->SetCurrentLength(848 * 480 * 2);
    sample->AddBuffer(buffer.Get());
    sample->SetSampleTime(0);
    sample->SetSampleDuration(333333);
    sim::CameraMetadataWriter metadata(sim::CameraKind::Depth);
    metadata.WriteNextFrame(sample.Get());

    auto measure = [&](RunningTransform &transform) {
      const double start = NowNs();
      for (int i = 0; i < kBatch; ++i) {
        if (!transform.Frame(sample.Get())) status = 2;
      }
      return (NowNs() - start) / kBatch;
    };
    measure(plain);
    measure(recorded);
    std::vector<double> on, off;
    for (int round = 0; round < kRounds; ++round) {
      off.push_back(measure(plain));
      on.push_back(measure(recorded));
      // The writer catches up between rounds, as it does between frames at camera rates.
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    const double onMedian = Median(on), offMedian = Median(off);
    std::printf("BENCH recording_depth_frame: median %.0f ns, baseline %.0f ns, ratio %.2f\n", onMedian, offMedian,
                onMedian / offMedian);
    if (status != 0) std::fprintf(stderr, "a frame did not come out\n");
    plain.Stop();
    recorded.Stop();
  }
  DeleteFileW(path.c_str());
  MFShutdown();
  CoUninitialize();
  return status;
}
