// The depth frame path (ProcessInput of a 848x480 frame with the camera's capture metadata, the
// have-output event, ProcessOutput) through a transform recording its device events (samples without
// pixel data), against the same path through a transform that does not record, in the same run.
#include <chrono>
#include <cstdio>
#include <thread>

#include "bench/BenchTiming.h"
#include "bench/MediaFoundationSession.h"
#include "bench/RunningTransform.h"
#include "mft_core/recorder/DeviceEventsRecorder.h"
#include "mft_core/transform/PassThroughDeviceMft.h"
#include "platform/WindowsSdk.h"
#include "user_space_frameworks/ComObject.h"

namespace {

using Microsoft::WRL::ComPtr;

// A pass-through transform over the simulated depth camera running 848x480 at 30 fps.
HRESULT StartPassThrough(bench::RunningTransform &running) {
  auto object = user_space_frameworks::MakeComObject<mft_core::PassThroughDeviceMft>(
      "Bench MFT", mft_core::DeviceExtensionUnits{sim::kDepthXuSet, 1, 7});
  ComPtr<IMFDeviceTransform> device;
  const HRESULT hr = object.As(&device);
  return FAILED(hr) ? hr : running.Start(sim::DepthCamera(), device, 848, 480, 30);
}

}  // namespace

int main() {
  bench::MediaFoundationSession session;
  if (!session.Started()) return 1;
  int status = 0;
  wchar_t folder[MAX_PATH] = {};
  GetTempPathW(MAX_PATH, folder);
  const std::wstring path = std::wstring(folder) + L"wq-recording-bench.bin";
  {
    bench::RunningTransform plain, recorded;
    HRESULT hr = StartPassThrough(plain);
    mft_core::DeviceEventsRecorderSettings settings;
    settings.enabled = true;
    settings.path = path;
    if (SUCCEEDED(hr)) hr = settings.StoreInRegistry();
    if (SUCCEEDED(hr)) hr = StartPassThrough(recorded);
    mft_core::DeviceEventsRecorderSettings::RemoveFromRegistry();
    if (FAILED(hr)) {
      std::fprintf(stderr, "the transforms did not start (0x%08lX)\n", static_cast<unsigned long>(hr));
      return 1;
    }

    ComPtr<IMFSample> sample = bench::MakeCapturedFrame(sim::CameraKind::Depth, 848 * 480 * 2);
    if (!sample) return 1;

    auto frame = [&](bench::RunningTransform *transform) {
      return [transform, &sample, &status] {
        if (!transform->Frame(sample.Get())) status = 2;
      };
    };
    // The writer catches up between rounds, as it does between frames at camera rates.
    const auto pause = [] { std::this_thread::sleep_for(std::chrono::milliseconds(20)); };
    bench::Print("recording_depth_frame", bench::Compare({31, 500, 1}, frame(&recorded), frame(&plain), pause));
    if (status != 0) std::fprintf(stderr, "a frame did not come out\n");
    plain.Stop();
    recorded.Stop();
  }
  DeleteFileW(path.c_str());
  return status;
}
