#include "product/topology/WQ400TimestampAdjustTopologyNode.h"

#include <atomic>

#include "user_space_frameworks/Check.h"
#include "user_space_frameworks/Trace.h"

namespace mft_core {

namespace {

constexpr const char *kEventName = "mft_core::WQ400TimestampAdjustTopologyNode::ProcessSample";

// Activity ids pair each start event with its stop event.
uint64_t NewActivityId() {
  static std::atomic<uint64_t> nextActivityId{1};
  return nextActivityId.fetch_add(1, std::memory_order_relaxed);
}

}  // namespace

WQ400TimestampAdjustTopologyNode::WQ400TimestampAdjustTopologyNode(
    const std::vector<std::shared_ptr<ITopologyNode>> &nextNodes) {
  for (const auto &node : nextNodes) AddNextNode(node);
}

HRESULT WQ400TimestampAdjustTopologyNode::ProcessSample(IMFSample *sample) {
  RETURN_IF_NULL(sample);
  if (user_space_frameworks::trace::EventsEnabled()) {
    LONGLONG sampleTime = 0;
    LOG_IF_FAILED(sample->GetSampleTime(&sampleTime));
    const uint64_t activityId = NewActivityId();
    WQ_TRACE_EVENT(kEventName, "Opcode=Start ActivityId=" << activityId << " SampleTime=" << sampleTime);
    WQ_TRACE_EVENT(kEventName, "Opcode=Stop ActivityId=" << activityId << " SampleTime=" << sampleTime);
  }
  return GetNextNodes().at(0)->Process(sample);
}

}  // namespace mft_core
