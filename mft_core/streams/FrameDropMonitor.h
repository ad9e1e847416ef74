// Counts lost and reordered frames from the frame counter the camera stamps on each frame.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>

#include "platform/WindowsSdk.h"
#include "user_space_frameworks/Object.h"

namespace mft_core {

// UINT32 sample attribute: the camera's frame counter, written from the frame's capture timing.
extern const GUID WQ400_MF_FRAME_COUNTER;

class FrameDropMonitor : public virtual user_space_frameworks::Object {
 public:
  FrameDropMonitor() = default;

  // Zeroes the counters; `firstExpectedCounter` is the counter of the next normal frame.
  void Reset(int64_t firstExpectedCounter);
  void OnSample(IMFSample *sample);
  void OnFrameCounter(UINT32 counter);

  // "Lost frames =N, Max consecutive lost frames =N, Received frames =N, Frame reorder =N"
  std::string GetStatisics() const;

  uint64_t GetReceivedFrames() const { return receivedFrames.load(); }
  uint64_t GetLostFrames() const { return lostFrames.load(); }
  uint64_t GetMaxConsecutiveLostFrames() const { return maxConsecutiveLostFrames.load(); }
  uint64_t GetFrameReorder() const { return frameReorder.load(); }

  const char *GetTraceName() const override { return "Frame Drop Monitor"; }

 private:
  std::atomic<uint64_t> receivedFrames{0};
  std::atomic<uint64_t> lostFrames{0};
  std::atomic<uint64_t> maxConsecutiveLostFrames{0};
  std::atomic<uint64_t> frameReorder{0};
  std::atomic<int64_t> lastFrameCounter{0};
};

}  // namespace mft_core
