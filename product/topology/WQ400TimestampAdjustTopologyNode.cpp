#include "product/topology/WQ400TimestampAdjustTopologyNode.h"

#include "user_space_frameworks/Check.h"
#include "user_space_frameworks/Trace.h"
#include "user_space_frameworks/TraceScope.h"

namespace mft_core {

namespace {

constexpr const char *kEventName = "mft_core::WQ400TimestampAdjustTopologyNode::ProcessSample";

}  // namespace

WQ400TimestampAdjustTopologyNode::WQ400TimestampAdjustTopologyNode(
    const std::vector<std::shared_ptr<ITopologyNode>> &nextNodes) {
  for (const auto &node : nextNodes) AddNextNode(node);
}

HRESULT WQ400TimestampAdjustTopologyNode::ProcessSample(IMFSample *sample) {
  WQ_SCOPE_BEGIN(HRESULT);
  RETURN_IF_NULL(sample);
  if (user_space_frameworks::trace::EventsEnabled()) {
    LONGLONG sampleTime = 0;
    LOG_IF_FAILED(sample->GetSampleTime(&sampleTime));
    namespace trace = user_space_frameworks::trace;
    const int64_t time = sampleTime;
    // A new activity pairs the start event with its stop event.
    const GUID activityId = trace::NewActivityId();
    trace::WriteEvent(kEventName, trace::EventOpcode::Start, &activityId, {trace::Int64Field("SampleTime", time)});
    trace::WriteEvent(kEventName, trace::EventOpcode::Stop, &activityId, {trace::Int64Field("SampleTime", time)});
  }
  return GetNextNodes().at(0)->Process(sample);
  WQ_SCOPE_END;
}

}  // namespace mft_core
