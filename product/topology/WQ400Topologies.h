// The products' node chains from an input stream to an output stream.
#pragma once

#include <memory>
#include <string>

#include "mft_core/streams/Topology.h"

namespace mft_core {

// A topology of exactly one chain. Exposure controls that look at every frame register with
// GetFirstNode() after Init.
class WQ400Topology : public Topology {
 public:
  // E_INVALIDARG, and no chain, unless the input stream lists `nextMediaType` exactly.
  HRESULT Init(std::shared_ptr<InputStream> inputStream, std::shared_ptr<OutputStream> outputStream,
               IMFMediaType *nextMediaType);
  // The node the input stream feeds; null before a successful Init.
  std::shared_ptr<ITopologyNode> GetFirstNode() const;

 protected:
  WQ400Topology(std::string name, bool withTimestampNode);

 private:
  const bool withTimestampNode;
};

// input stream -> timestamp adjustment -> output stream
class WQ400DepthTopology : public WQ400Topology {
 public:
  WQ400DepthTopology() : WQ400Topology("WQ400 Depth topology", true) {}
};

// input stream -> timestamp adjustment -> output stream
class WQ400ColorTopology : public WQ400Topology {
 public:
  WQ400ColorTopology() : WQ400Topology("WQ400 Color topology", true) {}
};

// input stream -> output stream
class WQ400FishEyeTopology : public WQ400Topology {
 public:
  WQ400FishEyeTopology() : WQ400Topology("WQ400 FishEye topology", false) {}
};

}  // namespace mft_core
