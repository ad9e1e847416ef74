// The camera's capture side: one streaming thread per running stream, each producing samples at the
// stream's frame rate and handing them to the transform's input (ProcessInput). Image content is a
// flat field whose brightness follows the exposure and gain the camera currently runs with.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <thread>

#include "platform/WindowsSdk.h"
#include "sim/SimulatedCameraFilter.h"

namespace sim {

struct FrameInfo {
  DWORD streamId;
  UINT32 frameSourceType;  // MFFrameSourceTypes
  GUID subtype;
  UINT32 width;
  UINT32 height;
  UINT32 fps;
  uint64_t frameCounter;   // the camera's counter, from 1
  LONGLONG sampleTime;     // 100 ns, system clock
  uint64_t hardwareTimestampUs;
  LONG exposureUs;
  LONG reportedExposureUs;  // what the frame's metadata says the sensor ran with
  LONG gain;
  BYTE brightness;
};

// Attaches the camera's per-frame metadata to a sample before it reaches the transform.
using MetadataHook = std::function<HRESULT(IMFSample *, const FrameInfo &)>;
// Where samples go: the transform's ProcessInput for the stream.
using SampleSink = std::function<HRESULT(DWORD streamId, IMFSample *sample)>;

struct SourceCounters {
  uint64_t produced = 0;  // samples made
  uint64_t accepted = 0;  // taken by the sink
  uint64_t rejected = 0;  // refused by the sink or the metadata hook
  uint64_t skipped = 0;   // frame counters the camera left out (injected gaps)
  HRESULT lastError = S_OK;
};

class FrameSource {
 public:
  FrameSource(Microsoft::WRL::ComPtr<SimulatedCameraFilter> camera, SampleSink sink);
  ~FrameSource();
  FrameSource(const FrameSource &) = delete;
  FrameSource &operator=(const FrameSource &) = delete;

  // Set before streams start.
  void SetMetadataHook(MetadataHook hook);
  // Leaves out every `period`-th frame counter (0: none), as a camera dropping frames would.
  void SetFrameGap(uint64_t period);

  // Starts (or restarts with `mediaType`) the stream's thread.
  HRESULT Start(DWORD streamId, IMFMediaType *mediaType);
  // Stops the stream's thread and waits for it; no sample of the stream is delivered afterwards.
  void Stop(DWORD streamId);
  void StopAll();
  bool IsRunning(DWORD streamId);

  SourceCounters Counters(DWORD streamId);
  // 0..255: what a frame shows at the camera's exposure and gain.
  static BYTE Brightness(LONG exposureUs, LONG gain);

 private:
  struct Stream;
  void Run(Stream &stream);
  HRESULT MakeSample(Stream &stream, uint64_t frameIndex, IMFSample **sample);

  Microsoft::WRL::ComPtr<SimulatedCameraFilter> camera;
  SampleSink sink;
  MetadataHook metadataHook;
  std::atomic<uint64_t> gapPeriod{0};
  std::mutex mutex;  // the stream map
  std::map<DWORD, std::unique_ptr<Stream>> streams;
  std::map<DWORD, SourceCounters> finishedCounters;  // of streams stopped since
};

}  // namespace sim
