#include "mft_core/streams/FrameDropMonitor.h"

#include <sstream>

#include "user_space_frameworks/Trace.h"
#include "user_space_frameworks/TraceScope.h"

namespace mft_core {

// {7CCF1517-DB56-4C60-853B-1D410539B47F}
const GUID WQ400_MF_FRAME_COUNTER = {0x7ccf1517, 0xdb56, 0x4c60, {0x85, 0x3b, 0x1d, 0x41, 0x05, 0x39, 0xb4, 0x7f}};

void FrameDropMonitor::Reset(int64_t firstExpectedCounter) {
  WQ_SCOPE();
  receivedFrames = 0;
  lostFrames = 0;
  maxConsecutiveLostFrames = 0;
  frameReorder = 0;
  lastFrameCounter = firstExpectedCounter - 1;
}

void FrameDropMonitor::OnSample(IMFSample *sample) {
  WQ_SCOPE();
  UINT32 counter = 0;
  if (sample == nullptr || FAILED(sample->GetUINT32(WQ400_MF_FRAME_COUNTER, &counter))) {
    receivedFrames.fetch_add(1, std::memory_order_relaxed);
    return;
  }
  OnFrameCounter(counter);
}

void FrameDropMonitor::OnFrameCounter(UINT32 counter) {
  WQ_SCOPE();
  receivedFrames.fetch_add(1, std::memory_order_relaxed);
  const int64_t delta = static_cast<int64_t>(counter) - lastFrameCounter.load(std::memory_order_relaxed);
  if (delta > 1) {
    const uint64_t lost = static_cast<uint64_t>(delta - 1);
    lostFrames.fetch_add(lost, std::memory_order_relaxed);
    uint64_t previousMax = maxConsecutiveLostFrames.load(std::memory_order_relaxed);
    while (lost > previousMax && !maxConsecutiveLostFrames.compare_exchange_weak(previousMax, lost)) {
    }
    WQ_TRACE(Warning, "Lost " << lost << " frames before frame counter " << counter);
  } else if (delta < 1) {
    frameReorder.fetch_add(1, std::memory_order_relaxed);
    WQ_TRACE(Warning, "Frame counter " << counter << " repeats or steps back from "
                                       << lastFrameCounter.load(std::memory_order_relaxed));
  }
  lastFrameCounter.store(counter, std::memory_order_relaxed);
}

std::string FrameDropMonitor::GetStatisics() const {
  WQ_SCOPE();
  std::ostringstream text;
  text << "Lost frames =" << lostFrames.load() << ", Max consecutive lost frames =" << maxConsecutiveLostFrames.load()
       << ", Received frames =" << receivedFrames.load() << ", Frame reorder =" << frameReorder.load();
  return text.str();
}

}  // namespace mft_core
