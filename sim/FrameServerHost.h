// Drives a device transform the way the camera frame server does: initialises it with the filter's
// attributes, pumps its media events (answering input-stream state requests, pulling output on
// METransformHaveOutput), runs one capture thread per running input stream, and shuts it down.
#pragma once

#include <atomic>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <set>
#include <thread>
#include <vector>

#include "platform/WindowsSdk.h"
#include "sim/FrameSource.h"
#include "sim/LatencyHistogram.h"
#include "sim/SimulatedCameraFilter.h"

namespace sim {

struct HostStreamStats {
  DWORD outputStreamId = 0;
  DWORD inputStreamId = 0;
  uint64_t framesIn = 0;      // samples the transform accepted on the input stream
  uint64_t framesOut = 0;     // samples delivered by ProcessOutput
  uint64_t rejected = 0;      // samples the transform refused
  uint64_t skipped = 0;       // frames the camera left out
  uint64_t largestQueue = 0;  // most samples inside the transform at once
  double measuredFps = 0;     // delivered samples per second of wall-clock time
  uint64_t outOfOrder = 0;    // delivered samples whose time went backwards
};

class FrameServerHost {
 public:
  FrameServerHost(Microsoft::WRL::ComPtr<IMFDeviceTransform> transform,
                  Microsoft::WRL::ComPtr<SimulatedCameraFilter> camera);
  ~FrameServerHost();
  FrameServerHost(const FrameServerHost &) = delete;
  FrameServerHost &operator=(const FrameServerHost &) = delete;

  // InitializeTransform with the filter's attributes, then the event pump starts.
  HRESULT Initialize();
  // SetOutputStreamState running with `mediaType` / stopped.
  HRESULT StartStream(DWORD outputStreamId, IMFMediaType *mediaType);
  HRESULT StopStream(DWORD outputStreamId);
  // The first available output type of the stream with this size and rate.
  HRESULT FindOutputType(DWORD outputStreamId, UINT32 width, UINT32 height, UINT32 fps, IMFMediaType **mediaType);
  // Stops running streams, then IMFShutdown::Shutdown and the end of the event pump. Returns the
  // transform's Shutdown result.
  HRESULT Shutdown();
  // Lets go of the transform as a host that never shuts it down would: the camera stops and the event
  // pump ends, while the transform's streams are left running and IMFShutdown is never called.
  void Abandon();

  // The transform as applications reach it for KS requests.
  Microsoft::WRL::ComPtr<IKsControl> ApplicationKsControl();
  IMFDeviceTransform *Transform() { return transform.Get(); }
  FrameSource &Source() { return source; }

  std::vector<HostStreamStats> Stats();
  // Input-stream state requests answered, and failures met while answering or pulling.
  uint64_t StateChangeRequests() const { return stateChangeRequests; }
  HRESULT LastPumpError() const { return lastPumpError; }
  // Sees every delivered sample (on the event pump's thread) before the host lets it go.
  void SetOutputObserver(std::function<void(DWORD outputStreamId, IMFSample *sample)> observer);
  uint64_t EventCount(MediaEventType type);

  // What the transform adds to a frame, from ProcessInput's entry: to the frame server's receipt of
  // METransformHaveOutput (events carry no stream, so per transform: the k-th event stands for the k-th
  // frame in) and to the sample handed out by ProcessOutput (per output stream). Counted from the
  // call on; the figures since then.
  void MeasureLatency();
  LatencyHistogram LatencyToEvent();
  LatencyHistogram LatencyToOutput(DWORD outputStreamId);
  // How long the transform's own calls took (every stream's): what of the latency is its work, and
  // what is waiting for a thread to run.
  LatencyHistogram ProcessInputDuration();
  LatencyHistogram ProcessOutputDuration();
  // The performance counter in microseconds.
  static int64_t Microseconds();

 private:
  struct OutputState {
    DWORD inputStreamId = 0;
    bool running = false;
    uint64_t framesOut = 0;
    uint64_t largestQueue = 0;
    uint64_t outOfOrder = 0;
    LONGLONG lastSampleTime = 0;
    LONGLONG firstDelivery = 0;  // MFGetSystemTime of the first and latest delivery
    LONGLONG lastDelivery = 0;
  };

  HRESULT Deliver(DWORD streamId, IMFSample *sample);
  void Pump();
  // Ends the event pump (woken by a host event when `nudge`), then stops any source it started.
  void EndPump(bool nudge);
  void AnswerStateChange(DWORD inputStreamId);
  void PullOutput();
  void NoteError(HRESULT hr);
  HRESULT StreamIds(std::vector<DWORD> &inputIds, std::vector<DWORD> &outputIds);

  Microsoft::WRL::ComPtr<IMFDeviceTransform> transform;
  Microsoft::WRL::ComPtr<IMFMediaEventGenerator> events;
  Microsoft::WRL::ComPtr<SimulatedCameraFilter> camera;
  FrameSource source;
  std::thread pump;
  std::atomic<bool> stopping{false};
  bool shutDown = false;

  std::function<void(DWORD, IMFSample *)> outputObserver;
  std::mutex mutex;  // outputs, event counts
  std::map<DWORD, OutputState> outputs;
  std::map<MediaEventType, uint64_t> eventCounts;
  std::atomic<uint64_t> stateChangeRequests{0};
  std::atomic<HRESULT> lastPumpError{S_OK};

  // Latency, under `latencyMutex`: entry times of frames inside the transform.
  std::mutex latencyMutex;
  bool measuring = false;
  std::deque<int64_t> entriesForEvents;
  std::map<DWORD, std::deque<int64_t>> entriesByInput;
  LatencyHistogram toEvent;
  std::map<DWORD, LatencyHistogram> toOutput;
  LatencyHistogram inputCalls;
  LatencyHistogram outputCalls;
};

}  // namespace sim
