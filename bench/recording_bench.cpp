// The depth frame path of the DLL's depth transform (ProcessInput of a 848x480 frame with the camera's
// capture metadata, the have-output event, ProcessOutput) while the transform records its device
// events (samples without pixel data). Baseline: the same path through a second depth transform of the
// same module that does not record, in the same run. The same again for a flight recorder (the records
// kept in its ring in memory).
#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <cstdio>
#include <thread>

#include "bench/BenchTiming.h"
#include "bench/DepthProductTransform.h"
#include "bench/MediaFoundationSession.h"
#include "bench/RunningTransform.h"
#include "mft_core/recorder/DeviceEventsRecorder.h"
#include "platform/WindowsSdk.h"

using Microsoft::WRL::ComPtr;

int main(int argc, char **argv) {
  // More rounds for a profiler: recording_bench [rounds]
  const int rounds = argc > 1 ? std::max(1, std::atoi(argv[1])) : 31;
  bench::MediaFoundationSession session;
  if (!session.Started()) return 1;
  int status = 0;
  wchar_t folder[MAX_PATH] = {};
  GetTempPathW(MAX_PATH, folder);
  const std::wstring path = std::wstring(folder) + L"wq-recording-bench.bin";
  {
    tools::DllTransformFactory factory(tools::DllTransformFactory::DefaultModulePath());
    if (!bench::LoadDepthProduct(factory)) return 1;
    bench::RunningTransform plain, recorded, flight;
    HRESULT hr = bench::StartDepthProduct(factory, plain);
    // The transform reads the switch when it is created.
    mft_core::DeviceEventsRecorderSettings settings;
    settings.enabled = true;
    settings.path = path;
    if (SUCCEEDED(hr)) hr = settings.StoreInRegistry();
    if (SUCCEEDED(hr)) hr = bench::StartDepthProduct(factory, recorded);
    settings.flightRecorder = true;
    settings.writer.ringBytes = 32u << 20;
    if (SUCCEEDED(hr)) hr = settings.StoreInRegistry();
    if (SUCCEEDED(hr)) hr = bench::StartDepthProduct(factory, flight);
    mft_core::DeviceEventsRecorderSettings::RemoveFromRegistry();
    if (FAILED(hr)) {
      std::fprintf(stderr, "the depth transforms did not start (0x%08lX)\n", static_cast<unsigned long>(hr));
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
    bench::Print("recording_depth_frame", bench::Compare({rounds, 500, 1}, frame(&recorded), frame(&plain), pause));
    bench::Print("flight_recorder_depth_frame", bench::Compare({rounds, 500, 1}, frame(&flight), frame(&plain), pause));
    if (status != 0) std::fprintf(stderr, "a frame did not come out\n");
    plain.Stop();
    recorded.Stop();
    flight.Stop();
  }
  DeleteFileW(path.c_str());
  return status;
}
