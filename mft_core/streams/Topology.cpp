#include "mft_core/streams/Topology.h"

#include <stdexcept>

#include "user_space_frameworks/Check.h"
#include "user_space_frameworks/Trace.h"
#include "user_space_frameworks/TraceScope.h"

namespace mft_core {

Topology::Topology(std::string name) : name(std::move(name)) {}

void Topology::AddItem(std::shared_ptr<InputStream> inputStream, std::shared_ptr<ITopologyNode> firstNode,
                       Microsoft::WRL::ComPtr<IMFMediaType> mediaType) {
  WQ_SCOPE();
  // The guard's standard-exception answer, with the list's own words, rather than an undefined list.
  if (items.size() >= items.max_size()) throw std::length_error("list<T> too long");
  items.push_back(TopologyItem{std::move(inputStream), std::move(firstNode), std::move(mediaType)});
}

HRESULT Topology::Activate() {
  WQ_SCOPE_BEGIN(HRESULT);
  if (isActive) {
    WQ_TRACE(Error, name << " is already active");
    return E_UNEXPECTED;
  }
  // Chains are connected before their input streams start, so no sample finds a stream unconnected.
  for (auto &i : items) {
    RETURN_IF_FAILED(i.inputStream->Connect(i.firstNode));
    RETURN_IF_FAILED(i.inputStream->SetPreferredState(DeviceStreamState::DeviceStreamState_Run, i.mediaType.Get()));
  }
  isActive = true;
  WQ_TRACE(Info, name << " activated");
  return S_OK;
  WQ_SCOPE_END;
}

HRESULT Topology::Deactivate() {
  WQ_SCOPE_BEGIN(HRESULT);
  if (!isActive) {
    WQ_TRACE(Error, name << " is not active");
    return E_UNEXPECTED;
  }
  // Input streams stop before the flush, so no sample arrives during it.
  for (auto &i : items) {
    RETURN_IF_FAILED(i.inputStream->SetPreferredState(DeviceStreamState::DeviceStreamState_Stop, i.mediaType.Get()));
    RETURN_IF_FAILED(i.inputStream->Flush());
    RETURN_IF_FAILED(i.inputStream->Disconnect());
  }
  isActive = false;
  WQ_TRACE(Info, name << " deactivated");
  return S_OK;
  WQ_SCOPE_END;
}

void TopologySettings::Add(std::shared_ptr<InputStream> inputStream, Microsoft::WRL::ComPtr<IMFMediaType> mediaType) {
  entries.emplace_back(std::move(inputStream), std::move(mediaType));
}

HRESULT TopologySettings::Validate() const {
  WQ_SCOPE_BEGIN(HRESULT);
  for (const auto &entry : entries) {
    if (!entry.first || !entry.first->IsSupported(entry.second.Get(), 0)) {
      WQ_TRACE(Error, "unsupported media type " << DescribeMediaType(entry.second.Get()));
      return E_FAIL;
    }
  }
  return S_OK;
  WQ_SCOPE_END;
}

HRESULT PassThroughTopology::Init(std::shared_ptr<InputStream> inputStream, std::shared_ptr<OutputStream> outputStream,
                                  IMFMediaType *mediaType) {
  WQ_SCOPE_BEGIN(HRESULT);
  RETURN_IF_NULL(inputStream);
  RETURN_IF_NULL(outputStream);
  if (!inputStream->IsSupported(mediaType, 0)) {
    WQ_TRACE(Error, inputStream->GetTraceName() << " does not offer " << DescribeMediaType(mediaType));
    return E_INVALIDARG;
  }
  AddItem(std::move(inputStream), std::move(outputStream), mediaType);
  return S_OK;
  WQ_SCOPE_END;
}

}  // namespace mft_core
