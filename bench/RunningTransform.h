// A device transform over a simulated camera with one output stream running, driven the way the frame
// server drives it: the input stream's state request is answered here, and frames go in through
// ProcessInput and come out through the have-output event and ProcessOutput.
#pragma once

#include <thread>

#include "platform/WindowsSdk.h"
#include "sim/CameraConfig.h"
#include "sim/CameraMetadataWriter.h"
#include "sim/SimulatedCameraFilter.h"

namespace bench {

struct RunningTransform {
  Microsoft::WRL::ComPtr<sim::SimulatedCameraFilter> filter;
  Microsoft::WRL::ComPtr<IMFDeviceTransform> device;
  Microsoft::WRL::ComPtr<IMFMediaEventGenerator> events;
  DWORD inputStream = 0;

  // Initialises `transform` over `camera` and runs its output stream 0 with the first type of the
  // given size and rate.
  HRESULT Start(const sim::CameraConfig &camera, Microsoft::WRL::ComPtr<IMFDeviceTransform> transform, UINT32 width,
                UINT32 height, UINT32 fps) {
    filter = sim::SimulatedCameraFilter::Create(camera);
    device = std::move(transform);
    if (!filter || !device) return E_POINTER;
    HRESULT hr = device.As(&events);
    Microsoft::WRL::ComPtr<IMFAttributes> attributes;
    if (SUCCEEDED(hr)) hr = filter->CreateFilterAttributes(attributes.GetAddressOf());
    if (SUCCEEDED(hr)) hr = device->InitializeTransform(attributes.Get());
    Microsoft::WRL::ComPtr<IMFMediaType> type;
    for (DWORD index = 0; SUCCEEDED(hr); ++index) {
      hr = device->GetOutputAvailableType(0, index, type.ReleaseAndGetAddressOf());
      UINT32 w = 0, h = 0, num = 0, den = 0;
      if (SUCCEEDED(hr) && SUCCEEDED(MFGetAttributeSize(type.Get(), MF_MT_FRAME_SIZE, &w, &h)) &&
          SUCCEEDED(MFGetAttributeRatio(type.Get(), MF_MT_FRAME_RATE, &num, &den)) && w == width && h == height &&
          num == fps * den) {
        break;
      }
    }
    if (FAILED(hr)) return hr;
    HRESULT started = E_FAIL;
    std::thread start([&] { started = device->SetOutputStreamState(0, type.Get(), DeviceStreamState_Run, 0); });
    for (;;) {
      Microsoft::WRL::ComPtr<IMFMediaEvent> event;
      if (FAILED(events->GetEvent(0, &event))) break;
      MediaEventType eventType = MEUnknown;
      event->GetType(&eventType);
      if (eventType != METransformInputStreamStateChanged) continue;
      UINT32 id = 0;
      event->GetUINT32(MF_EVENT_MFT_INPUT_STREAM_ID, &id);
      inputStream = id;
      DeviceStreamState state = DeviceStreamState_Stop;
      Microsoft::WRL::ComPtr<IMFMediaType> preferred;
      device->GetInputStreamPreferredState(inputStream, &state, &preferred);
      device->SetInputStreamState(inputStream, preferred.Get(), state, 0);
      break;
    }
    start.join();
    return started;
  }

  // One frame in and out; false when it did not come out.
  bool Frame(IMFSample *sample) {
    if (FAILED(device->ProcessInput(inputStream, sample, 0))) return false;
    Microsoft::WRL::ComPtr<IMFMediaEvent> event;
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
    Microsoft::WRL::ComPtr<IMFShutdown> shutdown;
    if (device && SUCCEEDED(device.As(&shutdown))) shutdown->Shutdown();
  }
};

// A captured frame as the driver delivers it: pixels and the camera's capture metadata for one frame.
inline Microsoft::WRL::ComPtr<IMFSample> MakeCapturedFrame(sim::CameraKind kind, DWORD bytes) {
  Microsoft::WRL::ComPtr<IMFSample> sample;
  Microsoft::WRL::ComPtr<IMFMediaBuffer> buffer;
  if (FAILED(MFCreateSample(&sample)) || FAILED(MFCreateMemoryBuffer(bytes, &buffer)) ||
      FAILED(buffer->SetCurrentLength(bytes)) || FAILED(sample->AddBuffer(buffer.Get()))) {
    return nullptr;
  }
  sample->SetSampleTime(0);
  sample->SetSampleDuration(333333);
  sim::CameraMetadataWriter metadata(kind);
  if (FAILED(metadata.WriteNextFrame(sample.Get()))) return nullptr;
  return sample;
}

}  // namespace bench
