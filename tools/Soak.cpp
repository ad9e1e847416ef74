// Soak of the product DLL in one process: the depth transform's depth and both infrared streams, the
// color transform's stream, a second color camera's stream and the fisheye transform's stream, all at
// one rate (90 fps unless told otherwise), for a while, once per recording mode asked for (off, the
// flight recorder, full recording). Beside them the same six streams run through the bare platform
// path, for the latency the transform adds. Passes (exit code 0) only when no frame was lost, the
// streams kept their rate, handles and private memory stayed flat after the warm-up, and the flight
// recorder wrote one readable file for the firmware error raised halfway (in every mode, so that the
// modes differ by the recording alone). A mode may be named more than
// once: each run is reported, and the summary takes each mode's median.
//   soak [--seconds 60] [--warmup S] [--fps 90] [--modes off,flight,full] [--ring MB] [--quiet] [--dll path\WQ400DeviceMft.dll]
#include <algorithm>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <iostream>
#include <iterator>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "device_events/EventsReader.h"
#include "mft_core/recorder/DeviceEventsRecorder.h"
#include "platform/WindowsSdk.h"
#include "sim/FrameServerHost.h"
#include "sim/LatencyHistogram.h"
#include "sim/ThreadRoles.h"
#include "tools/DllTransformFactory.h"
#include "tools/PlatformScope.h"
#include "tools/ProcessFootprint.h"

using Microsoft::WRL::ComPtr;

namespace {

struct Options {
  double seconds = 60;
  double warmup = -1;  // default: a sixth of the run, at most 10 s
  UINT32 fps = 90;
  DWORD ringMegabytes = 32;  // the flight recorder's
  bool quiet = false;
  std::wstring modulePath;
  std::vector<std::string> modes = {"off"};
};

// The bare platform path of one camera, as the streaming benchmark's baseline: each stream's thread
// holds its frame in a deque and queues METransformHaveOutput on a real event queue at the soak's rate;
// the frame server's thread takes the event and hands the oldest frame out.
class BarePlatformPath {
 public:
  BarePlatformPath(size_t streams, UINT32 fps) : fps(fps), toOutput(streams) {
    MFCreateEventQueue(queue.GetAddressOf());
    MFCreateSample(sample.GetAddressOf());
    for (size_t stream = 0; stream < streams; ++stream) {
      threads.emplace_back([this, stream] { Capture(stream); });
    }
    threads.emplace_back([this] { Pump(); });
  }
  ~BarePlatformPath() {
    {
      std::lock_guard<std::mutex> lock(mutex);
      stopping = true;
    }
    wake.notify_all();
    for (size_t i = 0; i + 1 < threads.size(); ++i) threads[i].join();
    queue->Shutdown();
    threads.back().join();
  }
  void MeasureLatency() {
    std::lock_guard<std::mutex> lock(mutex);
    measuring = true;
    toEvent.Clear();
    for (auto &histogram : toOutput) histogram.Clear();
  }
  sim::LatencyHistogram ToEvent() {
    std::lock_guard<std::mutex> lock(mutex);
    return toEvent;
  }
  sim::LatencyHistogram ToOutput(size_t stream) {
    std::lock_guard<std::mutex> lock(mutex);
    return toOutput[stream];
  }

 private:
  struct Held {
    size_t stream;
    Microsoft::WRL::ComPtr<IMFSample> sample;
    int64_t entered;
  };
  // Paced as the simulated cameras pace their frames (a wait until each frame's time, no spinning:
  // a thread that spins for its next frame takes a core from the transform's threads).
  void Capture(size_t stream) {
    sim::NoteThreadRole(sim::ThreadRole::Baseline);
    using Clock = std::chrono::steady_clock;
    const auto period = std::chrono::nanoseconds(1000000000ll / fps);
    const auto start = Clock::now();
    for (uint64_t frame = 0;; ++frame) {
      {
        std::unique_lock<std::mutex> lock(mutex);
        if (wake.wait_until(lock, start + period * frame, [&] { return stopping; })) return;
        held.push_back({stream, sample, sim::FrameServerHost::Microseconds()});
      }
      queue->QueueEventParamVar(METransformHaveOutput, GUID_NULL, S_OK, nullptr);
    }
  }
  void Pump() {
    sim::NoteThreadRole(sim::ThreadRole::Baseline);
    for (;;) {
      ComPtr<IMFMediaEvent> event;
      if (FAILED(queue->GetEvent(0, event.GetAddressOf()))) return;
      const int64_t received = sim::FrameServerHost::Microseconds();
      Held frame;
      {
        std::lock_guard<std::mutex> lock(mutex);
        if (held.empty()) continue;
        frame = std::move(held.front());
        held.pop_front();
        if (measuring) toEvent.Add(received - frame.entered);
      }
      ComPtr<IMFSample> handedOut = std::move(frame.sample);
      const int64_t out = sim::FrameServerHost::Microseconds();
      std::lock_guard<std::mutex> lock(mutex);
      if (measuring) toOutput[frame.stream].Add(out - frame.entered, out);
    }
  }

  const UINT32 fps;
  ComPtr<IMFMediaEventQueue> queue;
  ComPtr<IMFSample> sample;
  std::mutex mutex;
  std::deque<Held> held;
  bool measuring = false;
  sim::LatencyHistogram toEvent;
  std::vector<sim::LatencyHistogram> toOutput;
  std::condition_variable wake;
  bool stopping = false;  // under `mutex`
  std::vector<std::thread> threads;
};

std::string Figures(const sim::LatencyHistogram &histogram) {
  char text[64];
  std::snprintf(text, sizeof(text), "%5llu %5llu %6llu %6llu",
                static_cast<unsigned long long>(histogram.Percentile(0.5)),
                static_cast<unsigned long long>(histogram.Percentile(0.99)),
                static_cast<unsigned long long>(histogram.Percentile(0.999)),
                static_cast<unsigned long long>(histogram.Max()));
  return text;
}

// One camera of the soak: its filter, the transform made by the DLL and the frame server driving it.
struct Camera {
  std::string label;
  std::string kind;
  UINT32 width = 0;
  UINT32 height = 0;
  ComPtr<sim::SimulatedCameraFilter> filter;
  ComPtr<IMFDeviceTransform> transform;
  std::unique_ptr<sim::FrameServerHost> host;
  std::unique_ptr<BarePlatformPath> bare;
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
      } else if (arg == "--modes") {
        options.modes.clear();
        std::stringstream list(value());
        std::string mode;
        while (std::getline(list, mode, ',')) {
          if (mode != "off" && mode != "flight" && mode != "full") return false;
          options.modes.push_back(mode);
        }
        if (options.modes.empty()) return false;
      } else if (arg == "--ring") {
        options.ringMegabytes = static_cast<DWORD>(std::stoul(value()));
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

// Where the soak's recordings go; the flight recorder's files are numbered beside it.
constexpr const wchar_t *kRecordingPath = L"c:\\VeldaraLogs\\soak-events.bin";

std::vector<std::wstring> DumpFiles() {
  std::vector<std::wstring> files;
  for (unsigned number = 1; number <= 16; ++number) {
    const std::wstring file = mft_core::EventsFileWriter::DumpPath(kRecordingPath, number);
    if (GetFileAttributesW(file.c_str()) != INVALID_FILE_ATTRIBUTES) files.push_back(file);
  }
  return files;
}

// The firmware error raised halfway wrote one file, which reads to its end.
bool CheckFlightDump() {
  const std::vector<std::wstring> files = DumpFiles();
  if (files.size() != 1) {
    std::printf("Flight recorder: %zu files for one firmware error (expected one)\n", files.size());
    return false;
  }
  std::vector<uint8_t> bytes;
  std::string error;
  const std::string path(files[0].begin(), files[0].end());
  if (!device_events::ReadFileBytes(path, bytes, error)) {
    std::printf("Flight recorder: %s\n", error.c_str());
    return false;
  }
  device_events::EventsReader reader(bytes.data(), bytes.size());
  device_events::FileHeader header;
  device_events::ReadError readError;
  device_events::Record record;
  uint64_t records = 0, overwritten = 0;
  bool ok = reader.ReadHeader(header, readError);
  device_events::EventsReader::Status status = device_events::EventsReader::Status::Error;
  while (ok && (status = reader.Next(record, readError)) == device_events::EventsReader::Status::Record) {
    if (records++ == 0 && record.Kind() == device_events::RecordKind::RingDump) overwritten = record.values[0].number;
  }
  ok = ok && status == device_events::EventsReader::Status::End;
  std::printf("Flight recorder: one file for the firmware error, %s, %llu records (%llu overwritten before), %s\n",
              path.c_str(), static_cast<unsigned long long>(records), static_cast<unsigned long long>(overwritten),
              ok ? "read to its end" : ("UNREADABLE: " + readError.Text()).c_str());
  return ok;
}

struct ModeResult {
  bool passed = false;
  double cpuPercent = 0;
  double kernelPercent = 0;
  // User time of the threads that carry the transform's work (the cameras' threads, which paint and
  // call ProcessInput, the frame server's, and the transform's and the platform's own), the bare path's
  // left out: the recording modes differ here, with less of the machine's noise.
  double transformUserPercent = 0;
  double worstP99Ratio = 0;
  uint64_t worstMax = 0;
  bool latencyOk = true;
  double seconds = 0;   // the whole run, warm-up included
  uint64_t frames = 0;  // handed out over the whole run
  double recorderPercent = -1;  // the recorders' own time on the recording threads, when traced
  double recorderShortPercent = -1;  // the same without calls longer than a millisecond
};

// Each recorder traces, as it closes, the time the threads that made its records spent in it ("...: N
// records, X us each on the recording threads, Y us in all"): the recording's own cost, measured where
// it is paid, which the whole-process or per-thread CPU cannot show below the machine's noise. The
// microseconds of the lines written since `offset`, or -1 when there are none.
double RecordersMicroseconds(const std::string &traceFile, long &offset, double &inLongCalls) {
  FILE *file = std::fopen(traceFile.c_str(), "r");
  if (file == nullptr) return -1;
  std::fseek(file, offset, SEEK_SET);
  double total = -1;
  char line[1024];
  static const char kMarker[] = " us each on the recording threads, ";
  while (std::fgets(line, sizeof(line), file) != nullptr) {
    const char *found = std::strstr(line, kMarker);
    if (found == nullptr) continue;
    total = std::max(0.0, total) + std::atof(found + sizeof(kMarker) - 1);
    // "..., Y us in all, Z us of it in calls longer than 1 ms": preempted or waiting, not working.
    const char *inAll = std::strstr(found, " us in all, ");
    if (inAll != nullptr) inLongCalls += std::atof(inAll + std::strlen(" us in all, "));
  }
  offset = std::ftell(file);
  std::fclose(file);
  return total;
}

// One soak of the six streams with the recording in `mode` (the registry values set for its transforms).
ModeResult RunMode(const Options &options, tools::DllTransformFactory &factory, const std::string &mode) {
  ModeResult result;
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
  // The same streams through the bare platform path, under the same load.
  for (auto &camera : cameras) {
    if (camera.host) camera.bare = std::make_unique<BarePlatformPath>(camera.host->Stats().size(), options.fps);
  }
  bool firmwareErrorRaised = false;
  tools::ProcessFootprint warm, end;
  std::map<DWORD, tools::ThreadTimes> threadsWarm;
  uint64_t framesAtWarmup = 0;
  uint64_t largestPrivate = 0;
  std::string handleSeries;  // every ten seconds after the warm-up
  double nextHandleCount = 0;
  const auto begin = GetTickCount64();
  const int64_t beginUs = sim::FrameServerHost::Microseconds();
  auto elapsed = [&] { return (GetTickCount64() - begin) / 1000.0; };
  bool warmedUp = false;
  while (started && elapsed() < options.seconds) {
    Sleep(250);
    if (!warmedUp && elapsed() >= options.warmup) {
      warmedUp = true;
      for (auto &camera : cameras) {
        if (camera.host) camera.host->MeasureLatency();
        if (camera.bare) camera.bare->MeasureLatency();
      }
      warm = tools::MeasureProcess();
      threadsWarm = tools::MeasureThreads();
      framesAtWarmup = Delivered(cameras);
      nextHandleCount = elapsed() + 10;
      handleSeries = std::to_string(warm.handles);
    }
    if (warmedUp && elapsed() >= nextHandleCount) {
      nextHandleCount += 10;
      handleSeries += " " + std::to_string(tools::MeasureProcess().handles);
    }
    if (warmedUp) largestPrivate = std::max(largestPrivate, tools::PrivateBytes());
    // Halfway, the depth camera reports a firmware error: the flight recorder writes its ring. Every
    // mode gets it, so that the modes differ by the recording alone.
    if (!firmwareErrorRaised && elapsed() >= options.seconds / 2 && cameras[0].filter) {
      firmwareErrorRaised = true;
      cameras[0].filter->SignalAutoUpdate();
    }
    if (!options.quiet) {
      std::printf("\r%5.1f s  %llu frames delivered   ", elapsed(), static_cast<unsigned long long>(Delivered(cameras)));
      std::fflush(stdout);
    }
  }
  const double seconds = elapsed();
  result.seconds = seconds;
  end = tools::MeasureProcess();
  const std::map<DWORD, tools::ThreadTimes> threadsEnd = tools::MeasureThreads();
  const uint64_t framesAtEnd = Delivered(cameras);
  result.frames = framesAtEnd;
  if (!options.quiet) std::printf("\n");
  for (auto &camera : cameras) {
    if (camera.host) Drain(camera);
  }

  std::printf("Soak, recording %s: %zu cameras through %s, %u fps, %.1f s (warm-up %.1f s)\n", mode.c_str(),
              cameras.size(), factory.Describe().c_str(), options.fps, seconds, options.warmup);
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
  // What the transform adds to a frame after the warm-up, in microseconds: from ProcessInput's entry to
  // the frame server's receipt of METransformHaveOutput (per camera: events name no stream) and to the
  // sample handed out by ProcessOutput; and the same for the bare platform path.
  std::printf("Latency (us) %-22s %-27s %-27s %-27s %s\n", "", "to event p50 p99 p99.9 max", "bare",
              "to output p50 p99 p99.9 max", "bare");
  const double period = 1e6 / options.fps;
  uint64_t bareWorst = 0;
  int64_t worstAt = 0, bareWorstAt = 0;
  for (auto &camera : cameras) {
    if (!camera.host || !camera.bare) continue;
    const sim::LatencyHistogram event = camera.host->LatencyToEvent(), bareEvent = camera.bare->ToEvent();
    size_t index = 0;
    for (const auto &s : camera.host->Stats()) {
      const sim::LatencyHistogram out = camera.host->LatencyToOutput(s.outputStreamId);
      const sim::LatencyHistogram bareOut = camera.bare->ToOutput(index++);
      const std::string name = camera.label + " " + std::to_string(s.outputStreamId) + " " +
                               camera.filter->Config().streams[s.inputStreamId].name;
      std::printf("             %-22s %-27s %-27s %-27s %s\n", name.c_str(), Figures(event).c_str(),
                  Figures(bareEvent).c_str(), Figures(out).c_str(), Figures(bareOut).c_str());
      result.worstP99Ratio = std::max(result.worstP99Ratio, static_cast<double>(out.Percentile(0.99)) /
                                                                std::max<uint64_t>(1, bareOut.Percentile(0.99)));
      if (out.Max() >= result.worstMax) {
        result.worstMax = out.Max();
        worstAt = out.MaxAt();
      }
      if (bareOut.Max() >= bareWorst) {
        bareWorst = bareOut.Max();
        bareWorstAt = bareOut.MaxAt();
      }
      if (static_cast<double>(out.Max()) > period) result.latencyOk = false;
    }
  }
  // When the largest came (seconds into the run): a stall of the machine shows on both paths at once.
  std::printf("Latency: worst p99 to output %.2fx the bare path's, largest %llu us at %.1f s (the bare path's %llu us "
              "at %.1f s; a frame period is %.0f us)\n",
              result.worstP99Ratio, static_cast<unsigned long long>(result.worstMax), (worstAt - beginUs) / 1e6,
              static_cast<unsigned long long>(bareWorst), (bareWorstAt - beginUs) / 1e6, period);
  // Of that, the transform's own calls (every stream of a camera): the rest is waiting to run.
  std::printf("Calls (us)   %-22s %-27s %s\n", "", "ProcessInput p50 p99 p99.9 max", "ProcessOutput p50 p99 p99.9 max");
  for (auto &camera : cameras) {
    if (!camera.host) continue;
    std::printf("             %-22s %-27s %s\n", camera.label.c_str(), Figures(camera.host->ProcessInputDuration()).c_str(),
                Figures(camera.host->ProcessOutputDuration()).c_str());
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
  result.cpuPercent = 100.0 * (end.cpuSeconds - warm.cpuSeconds) / std::max(0.001, seconds - options.warmup);
  result.kernelPercent = 100.0 * (end.kernelSeconds - warm.kernelSeconds) / std::max(0.001, seconds - options.warmup);
  std::printf("CPU: %.1f us per frame over %llu frames after warm-up (%.1f%% of one core, %.1f%% of it in the\n"
              "     kernel; the simulated cameras' painting, the frame server's pulling and the bare path included)\n",
              cpuPerFrameUs, static_cast<unsigned long long>(frames), result.cpuPercent, result.kernelPercent);
  // The same seconds split by what the threads do.
  const std::map<DWORD, sim::ThreadRole> roles = sim::ThreadRoles();
  tools::ThreadTimes frameThreads, bareThreads, otherThreads;
  for (const auto &thread : threadsEnd) {
    tools::ThreadTimes spent = thread.second;
    const auto before = threadsWarm.find(thread.first);
    if (before != threadsWarm.end()) {
      spent.user -= before->second.user;
      spent.kernel -= before->second.kernel;
    }
    const auto role = roles.find(thread.first);
    tools::ThreadTimes &group = role == roles.end() ? otherThreads
                                : role->second == sim::ThreadRole::Baseline ? bareThreads
                                                                            : frameThreads;
    group.user += spent.user;
    group.kernel += spent.kernel;
  }
  const double measured = std::max(0.001, seconds - options.warmup);
  auto percent = [&](double spent) { return 100.0 * spent / measured; };
  std::printf("     by thread, user + kernel: cameras and frame server %.1f%% + %.1f%%, the transform's own and the\n"
              "     platform's %.1f%% + %.1f%%, bare path %.1f%% + %.1f%%\n",
              percent(frameThreads.user), percent(frameThreads.kernel), percent(otherThreads.user),
              percent(otherThreads.kernel), percent(bareThreads.user), percent(bareThreads.kernel));
  result.transformUserPercent = percent(frameThreads.user + otherThreads.user);
  // Flat: a leak of one small allocation per frame (about 100 bytes x 540 frames a second) would pass
  // 4 MiB within a minute; heap growth that settles stays well inside it. The platform's work queues
  // add a thread (and its handle) now and then under load; a handle per second or per frame would
  // pass 16 within a minute.
  const bool memoryFlat = growth <= 4 * 1024 * 1024 && end.handles <= warm.handles + 16;
  std::printf("Result: %s%s\n", framesOk ? "no frame lost" : "FRAMES LOST OR LATE",
              memoryFlat ? ", memory and handles flat" : ", MEMORY OR HANDLES GREW");
  result.passed = framesOk && memoryFlat;
  return result;
}

}  // namespace

int main(int argc, char **argv) {
  Options options;
  if (!Parse(argc, argv, options)) {
    std::cerr << "usage: soak [--seconds 60] [--warmup S] [--fps 90] [--modes off,flight,full] [--ring MB] [--quiet] [--dll PATH]\n";
    return 2;
  }
  // The recorders' account of their own cost comes in the DLL's trace (read at its load), at info.
  std::string traceFile;
  if (std::getenv("WQ400_TRACE") == nullptr) {
    wchar_t folder[MAX_PATH] = {};
    GetTempPathW(MAX_PATH, folder);
    char narrow[MAX_PATH] = {};
    WideCharToMultiByte(CP_UTF8, 0, folder, -1, narrow, MAX_PATH, nullptr, nullptr);
    traceFile = std::string(narrow) + "wq-soak-trace.txt";
    std::remove(traceFile.c_str());
    // Info without the frame events, which would cost every frame a line written to the file.
    _putenv_s("WQ400_TRACE", "info");
    _putenv_s("WQ400_TRACE_EVENTS", "0");
    _putenv_s("WQ400_TRACE_FILE", traceFile.c_str());
  } else if (const char *file = std::getenv("WQ400_TRACE_FILE")) {
    traceFile = file;
  }
  long traceOffset = 0;
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
    std::vector<std::pair<std::string, ModeResult>> results;
    for (const std::string &mode : options.modes) {
      mft_core::DeviceEventsRecorderSettings recording;
      recording.enabled = mode != "off";
      recording.flightRecorder = mode == "flight";
      recording.path = kRecordingPath;
      if (recording.flightRecorder) recording.writer.ringBytes = size_t{std::max<DWORD>(1, options.ringMegabytes)} << 20;
      // A flight run starts with no dump, and its dump stays for the replay after the soak.
      if (recording.flightRecorder) {
        for (const auto &file : DumpFiles()) DeleteFileW(file.c_str());
      }
      if (recording.enabled && FAILED(recording.StoreInRegistry())) {
        std::cerr << "cannot switch the recording on in the registry\n";
        return 1;
      }
      ModeResult result = RunMode(options, factory, mode);
      mft_core::DeviceEventsRecorderSettings::RemoveFromRegistry();
      // The transforms are gone: their recorders have traced their accounts.
      double inLongCalls = 0;
      const double recorders = traceFile.empty() ? -1 : RecordersMicroseconds(traceFile, traceOffset, inLongCalls);
      if (recording.enabled && recorders >= 0) {
        result.recorderPercent = recorders / 1e4 / std::max(0.001, result.seconds);
        result.recorderShortPercent = (recorders - inLongCalls) / 1e4 / std::max(0.001, result.seconds);
        std::printf("Recording's own work on the recording threads: %.2f us per frame handed out, %.2f%% of one core\n"
                    "     (%.2f%% without the record calls longer than 1 ms, which were preempted or waited)\n",
                    recorders / std::max<uint64_t>(1, result.frames), result.recorderPercent,
                    result.recorderShortPercent);
      }
      if (mode == "flight") result.passed = CheckFlightDump() && result.passed;
      results.emplace_back(mode, result);
      std::printf("\n");
    }
    // A mode asked for more than once (--modes off,flight,full,off,flight,full) is summed up by its
    // median run: on a shared machine one run's CPU moves by more than the recorder costs.
    auto median = [&](const std::string &mode, double ModeResult::*figure) {
      std::vector<double> values;
      for (const auto &entry : results) {
        if (entry.first == mode) values.push_back(entry.second.*figure);
      }
      std::sort(values.begin(), values.end());
      return values.empty() ? -1.0 : values.size() % 2 != 0 ? values[values.size() / 2]
                                                             : (values[values.size() / 2 - 1] + values[values.size() / 2]) / 2;
    };
    std::vector<std::string> modes;
    for (const auto &entry : results) {
      if (std::find(modes.begin(), modes.end(), entry.first) == modes.end()) modes.push_back(entry.first);
      if (!entry.second.passed) exitCode = 1;
    }
    const double off = median("off", &ModeResult::cpuPercent), offUser = off - median("off", &ModeResult::kernelPercent);
    std::printf("CPU of one core per recording mode%s:", modes.size() < results.size() ? " (median of its runs)" : "");
    for (const std::string &mode : modes) {
      const double cpu = median(mode, &ModeResult::cpuPercent), user = cpu - median(mode, &ModeResult::kernelPercent);
      std::printf("  %s %.1f%% (user %.1f%%)", mode.c_str(), cpu, user);
      if (off >= 0 && mode != "off") std::printf(" %+.2f (user %+.2f)", cpu - off, user - offUser);
    }
    const double offTransform = median("off", &ModeResult::transformUserPercent);
    std::printf("\nUser CPU of the transform's threads (cameras, frame server, its own; bare path left out):");
    for (const std::string &mode : modes) {
      const double user = median(mode, &ModeResult::transformUserPercent);
      std::printf("  %s %.2f%%", mode.c_str(), user);
      if (offTransform >= 0 && mode != "off") std::printf(" %+.2f", user - offTransform);
    }
    std::printf("\nThe recording's own work on the recording threads:");
    for (const std::string &mode : modes) {
      if (mode != "off") {
        std::printf("  %s %.2f%% (%.2f%% without calls longer than 1 ms)", mode.c_str(),
                    median(mode, &ModeResult::recorderPercent), median(mode, &ModeResult::recorderShortPercent));
      }
    }
    std::printf("\nLatency to output, worst stream:");
    for (const auto &entry : results) {
      std::printf("  %s p99 %.2fx bare, max %llu us%s", entry.first.c_str(), entry.second.worstP99Ratio,
                  static_cast<unsigned long long>(entry.second.worstMax),
                  entry.second.latencyOk ? "" : " (ABOVE A FRAME PERIOD)");
    }
    std::printf("\n");
  }
  return exitCode;
}
