// First node of the depth and color chains: reports each sample's presentation time as a start/stop
// pair of structured events, then passes the sample on unchanged.
#pragma once

#include <memory>
#include <vector>

#include "mft_core/streams/ITopologyNode.h"

namespace mft_core {

class WQ400TimestampAdjustTopologyNode : public ITopologyNode {
 public:
  explicit WQ400TimestampAdjustTopologyNode(const std::vector<std::shared_ptr<ITopologyNode>> &nextNodes);

  // Throws std::out_of_range when the node has no next node: a chain built without its end.
  HRESULT ProcessSample(IMFSample *sample) override;

  const char *GetTraceName() const override { return "WQ400 timestamp adjustment topology node"; }
};

}  // namespace mft_core
