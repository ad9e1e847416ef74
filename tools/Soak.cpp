// Soak of the product DLL in one process: the depth transform's depth and both infrared streams, the
// color transform's stream, a second color camera's stream and the fisheye transform's stream, all at
// one rate (90 fps unless told otherwise), for a while. Passes (exit code 0) only when no frame was
// lost, the streams kept their rate, and handles and private memory stayed flat after the warm-up.
//   soak [--seconds 60] [--warmup S] [--fps 90] [--quiet] [--dll path\WQ400DeviceMft.dll]
#include <cstdio>
#include <iostream>
#include <iterator>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "platform/WindowsSdk.h"
#include "sim/FrameServerHost.h"
#include "tools/DllTransformFactory.h"
#include "tools/PlatformScope.h"
#include "tools/ProcessFootprint.h"

using Microsoft::WRL::ComPtr;

namespace {

struct Options {
  double seconds = 60;
  double warmup = -1;  // default: a sixth of the run, at most 10 s
  UINT32 fps = 90;
  bool quiet = false;
  std::wstring modulePath;
};

// One camera of the soak: its filter, the transform made by the DLL and the frame server driving it.
struct Camera {
  std::string label;
  std::string kind;
  UINT32 width = 0;
  UINT32 height = 0;
  ComPtr<sim::SimulatedCameraFilter> filter;
  ComPtr<IMFDeviceTransform> transform;
  std::unique_ptr<sim::FrameServerHost> host;
};

uint64_t Delivered(std::vector<Camera> &cameras) {
  uint64_t frames = 0;
  for (auto &camera : cameras) {
    for (const auto &stats : camera.host->Stats()) frames += stats.framesOut;
  }
  return frames;
}

bool Parse(int argc, char **argv, Options &options) {
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    auto value = [&]() -> std::string { return i + 1 < argc ? argv[++i] : std::string("x"); };
    try {
      if (arg == "--seconds") {
        options.seconds = std::stod(value());
      } else if (arg == "--warmup") {
        options.warmup = std::stod(value());
      } else if (arg == "--fps") {
        options.fps = static_cast<UINT32>(std::stoul(value()));
      } else if (arg == "--quiet") {
        options.quiet = true;
      } else if (arg == "--dll") {
        const std::string path = value();
        options.modulePath.assign(path.begin(), path.end());
      } else {
        return false;
      }
    } catch (const std::exception &) {
      return false;
    }
  }
  if (options.warmup < 0) options.warmup = std::min(10.0, options.seconds / 6);
  return options.seconds > 0 && options.fps > 0 && options.warmup < options.seconds;
}

// Starts every stream of `camera` at the soak's size and rate.
bool Start(Camera &camera, tools::DllTransformFactory &factory, UINT32 fps) {
  sim::CameraConfig config;
  if (!sim::CameraByName(camera.kind, config)) return false;
  camera.filter = sim::SimulatedCameraFilter::Create(config);
  HRESULT hr = factory.CreateTransform(config, camera.transform.GetAddressOf());
  if (FAILED(hr)) {
    std::fprintf(stderr, "%s: the DLL made no transform (0x%08lX)\n", camera.label.c_str(), static_cast<unsigned long>(hr));
    return false;
  }
  camera.host = std::make_unique<sim::FrameServerHost>(camera.transform, camera.filter);
  hr = camera.host->Initialize();
  for (const auto &stream : config.streams) {
    ComPtr<IMFMediaType> type;
    if (SUCCEEDED(hr)) hr = camera.host->FindOutputType(stream.id, camera.width, camera.height, fps, type.GetAddressOf());
    if (SUCCEEDED(hr)) hr = camera.host->StartStream(stream.id, type.Get());
    if (FAILED(hr)) {
      std::fprintf(stderr, "%s: %s did not start at %ux%u %u fps (0x%08lX)\n", camera.label.c_str(),
                   stream.name.c_str(), camera.width, camera.height, fps, static_cast<unsigned long>(hr));
      return false;
    }
  }
  return true;
}

// Stops the cameras first and lets the transforms hand out what they hold, so that every frame the
// cameras sent is accounted for; then the frame server stops the streams and shuts the transform down.
void Drain(Camera &camera) {
  for (const auto &stats : camera.host->Stats()) camera.host->Source().Stop(stats.inputStreamId);
  for (int waited = 0; waited < 5000; waited += 10) {
    bool empty = true;
    for (const auto &stats : camera.host->Stats()) empty = empty && stats.framesOut >= stats.framesIn;
    if (empty) break;
    Sleep(10);
  }
}

}  // namespace

int main(int argc, char **argv) {
  Options options;
  if (!Parse(argc, argv, options)) {
    std::cerr << "usage: soak [--seconds 60] [--warmup S] [--fps 90] [--quiet] [--dll PATH]\n";
    return 2;
  }
  const tools::PlatformScope platform;
  if (!platform.Started()) return 1;
  int exitCode = 0;
  {
    tools::DllTransformFactory factory(options.modulePath.empty() ? tools::DllTransformFactory::DefaultModulePath()
                                                                  : options.modulePath);
    if (!factory.Load()) {
      std::cerr << factory.Error() << "\n";
      return 1;
    }
    // Six streams: the depth camera's three, two color cameras' and the fisheye camera's.
    static const struct {
      const char *label;
      const char *kind;
      UINT32 width;
      UINT32 height;
    } kPlan[] = {{"depth", "depth", 848, 480}, {"color", "color", 848, 480}, {"color 2", "color", 848, 480},
                 {"fisheye", "fisheye", 640, 480}};
    std::vector<Camera> cameras(std::size(kPlan));
    for (size_t i = 0; i < cameras.size(); ++i) {
      cameras[i].label = kPlan[i].label;
      cameras[i].kind = kPlan[i].kind;
      cameras[i].width = kPlan[i].width;
      cameras[i].height = kPlan[i].height;
    }
    bool started = true;
    for (auto &camera : cameras) started = started && Start(camera, factory, options.fps);
    tools::ProcessFootprint warm, end;
    uint64_t framesAtWarmup = 0;
    uint64_t largestPrivate = 0;
    std::string handleSeries;  // every ten seconds after the warm-up
    double nextHandleCount = 0;
    const auto begin = GetTickCount64();
    auto elapsed = [&] { return (GetTickCount64() - begin) / 1000.0; };
    bool warmedUp = false;
    while (started && elapsed() < options.seconds) {
      Sleep(250);
      if (!warmedUp && elapsed() >= options.warmup) {
        warmedUp = true;
        warm = tools::MeasureProcess();
        framesAtWarmup = Delivered(cameras);
        nextHandleCount = elapsed() + 10;
        handleSeries = std::to_string(warm.handles);
      }
      if (warmedUp && elapsed() >= nextHandleCount) {
        nextHandleCount += 10;
        handleSeries += " " + std::to_string(tools::MeasureProcess().handles);
      }
      if (warmedUp) largestPrivate = std::max(largestPrivate, tools::PrivateBytes());
      if (!options.quiet) {
        std::printf("\r%5.1f s  %llu frames delivered   ", elapsed(), static_cast<unsigned long long>(Delivered(cameras)));
        std::fflush(stdout);
      }
    }
    const double seconds = elapsed();
    end = tools::MeasureProcess();
    const uint64_t framesAtEnd = Delivered(cameras);
    if (!options.quiet) std::printf("\n");
    for (auto &camera : cameras) {
      if (camera.host) Drain(camera);
    }

    std::printf("Soak: %zu cameras through %s, %u fps, %.1f s (warm-up %.1f s)\n", cameras.size(),
                factory.Describe().c_str(), options.fps, seconds, options.warmup);
    std::printf("%-22s %9s %9s %9s %6s %8s %8s %9s\n", "stream", "sent", "in", "out", "lost", "refused", "order",
                "fps");
    bool framesOk = started;
    for (auto &camera : cameras) {
      if (!camera.host) continue;
      for (const auto &s : camera.host->Stats()) {
        const sim::SourceCounters counters = camera.host->Source().Counters(s.inputStreamId);
        const uint64_t lost = counters.produced > s.framesOut ? counters.produced - s.framesOut : 0;
        const std::string name = camera.label + " " + std::to_string(s.outputStreamId) + " " +
                                 camera.filter->Config().streams[s.inputStreamId].name;
        std::printf("%-22s %9llu %9llu %9llu %6llu %8llu %8llu %9.2f\n", name.c_str(),
                    static_cast<unsigned long long>(counters.produced), static_cast<unsigned long long>(s.framesIn),
                    static_cast<unsigned long long>(s.framesOut), static_cast<unsigned long long>(lost),
                    static_cast<unsigned long long>(s.rejected), static_cast<unsigned long long>(s.outOfOrder),
                    s.measuredFps);
        // The camera keeps its schedule (a late frame is sent late, never skipped), so a run of the whole
        // length sends the rate times the length, less the last frame period.
        const double expected = options.fps * seconds;
        if (lost != 0 || s.rejected != 0 || s.skipped != 0 || s.outOfOrder != 0 ||
            static_cast<double>(counters.produced) < expected - options.fps) {
          framesOk = false;
        }
      }
    }
    for (auto &camera : cameras) {
      if (!camera.host) continue;
      for (const auto &s : camera.host->Stats()) camera.host->StopStream(s.outputStreamId);
      if (FAILED(camera.host->Shutdown())) framesOk = false;
    }

    const uint64_t frames = framesAtEnd - framesAtWarmup;
    const double cpuPerFrameUs = frames != 0 ? (end.cpuSeconds - warm.cpuSeconds) * 1e6 / frames : 0;
    const int64_t growth = static_cast<int64_t>(end.privateBytes) - static_cast<int64_t>(warm.privateBytes);
    std::printf("Private memory: %.1f MiB after warm-up, %.1f MiB at the end (%+.1f KiB), largest %.1f MiB\n",
                warm.privateBytes / 1048576.0, end.privateBytes / 1048576.0, growth / 1024.0,
                largestPrivate / 1048576.0);
    std::printf("Handles: %lu after warm-up, %lu at the end (every 10 s: %s)\n", warm.handles, end.handles,
                handleSeries.c_str());
    std::printf("CPU: %.1f us per frame over %llu frames after warm-up (%.0f%% of one core; the simulated cameras'\n"
                "     painting and the frame server's pulling included)\n",
                cpuPerFrameUs, static_cast<unsigned long long>(frames),
                100.0 * (end.cpuSeconds - warm.cpuSeconds) / std::max(0.001, seconds - options.warmup));
    // Flat: a leak of one small allocation per frame (about 100 bytes x 540 frames a second) would pass
    // 4 MiB within a minute; heap growth that settles stays well inside it. The platform's work queues
    // add a thread (and its handle) now and then under load; a handle per second or per frame would
    // pass 16 within a minute.
    const bool memoryFlat = growth <= 4 * 1024 * 1024 && end.handles <= warm.handles + 16;
    std::printf("Result: %s%s\n", framesOk ? "no frame lost" : "FRAMES LOST OR LATE",
                memoryFlat ? ", memory and handles flat" : ", MEMORY OR HANDLES GREW");
    exitCode = framesOk && memoryFlat ? 0 : 1;
  }
  return exitCode;
}
