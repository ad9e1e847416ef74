#include "product/topology/WQ400Topologies.h"

#include "product/topology/WQ400TimestampAdjustTopologyNode.h"
#include "user_space_frameworks/Check.h"
#include "user_space_frameworks/Trace.h"
#include "user_space_frameworks/TraceScope.h"

namespace mft_core {

WQ400Topology::WQ400Topology(std::string name, bool withTimestampNode)
    : Topology(std::move(name)), withTimestampNode(withTimestampNode) {}

HRESULT WQ400Topology::Init(std::shared_ptr<InputStream> inputStream, std::shared_ptr<OutputStream> outputStream,
                            IMFMediaType *nextMediaType) {
  WQ_SCOPE_BEGIN(HRESULT);
  RETURN_IF_NULL(inputStream);
  RETURN_IF_NULL(outputStream);
  // No type is not a type the input stream offers.
  if (!inputStream->IsSupported(nextMediaType, 0)) {
    UINT32 width = 0, height = 0, numerator = 0, denominator = 0;
    if (nextMediaType != nullptr) {
      MFGetAttributeSize(nextMediaType, MF_MT_FRAME_SIZE, &width, &height);
      MFGetAttributeRatio(nextMediaType, MF_MT_FRAME_RATE, &numerator, &denominator);
    }
    WQ_TRACE(Error, GetName() << ": input stream " << inputStream->GetID() << " does not offer " << width << "x"
                              << height << " @ " << numerator << "/" << denominator << " fps");
    return E_INVALIDARG;
  }
  std::shared_ptr<ITopologyNode> firstNode = outputStream;
  if (withTimestampNode) {
    firstNode = std::make_shared<WQ400TimestampAdjustTopologyNode>(
        std::vector<std::shared_ptr<ITopologyNode>>{std::move(outputStream)});
  }
  AddItem(std::move(inputStream), std::move(firstNode), nextMediaType);
  return S_OK;
  WQ_SCOPE_END;
}

std::shared_ptr<ITopologyNode> WQ400Topology::GetFirstNode() const {
  return items.empty() ? nullptr : items.front().firstNode;
}

}  // namespace mft_core
