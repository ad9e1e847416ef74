#include "mft_core/ks/ExtensionUnitKsControl.h"

#include <array>
#include <cstddef>
#include <cstring>

#include "mft_core/ks/KsText.h"
#include "user_space_frameworks/Check.h"
#include "user_space_frameworks/GuidTranslator.h"
#include "user_space_frameworks/TraceScope.h"

using Microsoft::WRL::ComPtr;

namespace mft_core {

namespace {

constexpr ULONG kSetSupportOnNode = KSPROPERTY_TYPE_TOPOLOGY | KSPROPERTY_TYPE_SETSUPPORT;
// KSPROPERTY_DESCRIPTION, KSPROPERTY_MEMBERSHEADER, then stepping delta, minimum and maximum.
constexpr ULONG kRangeReplySize = 68;
constexpr ULONG kDefaultReplySize = 64;
constexpr size_t kValuesOffset = sizeof(KSPROPERTY_DESCRIPTION) + sizeof(KSPROPERTY_MEMBERSHEADER);

LONG ReadLong(const std::array<BYTE, kRangeReplySize> &buffer, size_t offset) {
  LONG value;
  std::memcpy(&value, buffer.data() + offset, sizeof(value));
  return value;
}

}  // namespace

ExtensionUnitKsControl::ExtensionUnitKsControl(const GUID &xuSetId, const std::string &namePrefix)
    : name(namePrefix + "Extension Unit KS control"), xuSetId(xuSetId) {}

HRESULT ExtensionUnitKsControl::Init(const ComPtr<IMFTransform> &sourceTransform,
                                     const ComPtr<IKsControl> &ksControl, ULONG knownSupportedId) {
  WQ_SCOPE_BEGIN(HRESULT);
  RETURN_IF_FAILED(FindDeviceSpecificNode(sourceTransform, ksControl, knownSupportedId));
  filterKsControl = ksControl;
  return S_OK;
  WQ_SCOPE_END;
}

HRESULT ExtensionUnitKsControl::FindDeviceSpecificNode(const ComPtr<IMFTransform> &sourceTransform,
                                                       const ComPtr<IKsControl> &ksControl,
                                                       ULONG knownSupportedId) {
  WQ_SCOPE_BEGIN(HRESULT);
  RETURN_IF_NULL(sourceTransform);
  RETURN_IF_NULL(ksControl);
  ComPtr<IKsTopologyInfo> topologyInfo;
  RETURN_IF_FAILED(sourceTransform.As(&topologyInfo));
  DWORD numNodes = 0;
  RETURN_IF_FAILED(topologyInfo->get_NumNodes(&numNodes));

  for (DWORD index = 0; index < numNodes; ++index) {
    GUID nodeType = GUID_NULL;
    if (FAILED(topologyInfo->get_NodeType(index, &nodeType))) continue;
    if (nodeType != KSNODETYPE_DEV_SPECIFIC) continue;

    KSP_NODE query = {};
    query.Property.Set = xuSetId;
    query.Property.Id = knownSupportedId;
    query.Property.Flags = kSetSupportOnNode;
    query.NodeId = index;
    query.Reserved = 0;
    ULONG bytesReturned = 0;
    if (ksControl->KsProperty(reinterpret_cast<PKSPROPERTY>(&query), sizeof(query), nullptr, 0,
                              &bytesReturned) == S_OK) {
      nodeId = index;
      WQ_TRACE(Info, name << ": set " << user_space_frameworks::GuidTranslator::Name(xuSetId) << " found at node " << nodeId);
      return S_OK;
    }
  }
  WQ_TRACE(Warning, name << ": no device-specific node answers set " << user_space_frameworks::GuidTranslator::Name(xuSetId) << " ("
                         << numNodes << " nodes)");
  return E_NOINTERFACE;
  WQ_SCOPE_END;
}

namespace {

// Re-addresses an application's request to the unit's node: KSP_NODE, KSM_NODE and KSE_NODE all open
// with the 24-byte identifier, followed by the node id.
template <typename NodeRequest, typename Send>
HRESULT SendToNode(const std::string &name, const char *kind, KsIdentifierKind ksKind, const KSIDENTIFIER &request, ULONG nodeId,
                   ULONG dataLength, const ULONG *bytesReturned, Send &&send) {
  static_assert(offsetof(NodeRequest, NodeId) == sizeof(KSIDENTIFIER), "the identifier comes first");
  NodeRequest nodeRequest = {};
  KSIDENTIFIER *identifier = reinterpret_cast<KSIDENTIFIER *>(&nodeRequest);
  *identifier = request;
  identifier->Flags |= KSPROPERTY_TYPE_TOPOLOGY;
  nodeRequest.NodeId = nodeId;
  const HRESULT hr = send(identifier, static_cast<ULONG>(sizeof(nodeRequest)));
  if (hr == HRESULT_FROM_WIN32(ERROR_MORE_DATA) && dataLength == 0) {
    // A size query: "more data" with the size is its normal answer.
    WQ_TRACE(Verbose, name << ": " << kind << " " << KsIdentifierText(ksKind, identifier) << " needs "
                           << (bytesReturned ? std::to_string(*bytesReturned) : std::string("?")) << " bytes");
  } else if (FAILED(hr)) {
    // The caller traces the failure with its own expression; here only the node's view of it.
    WQ_TRACE(Verbose, name << ": " << kind << " " << KsIdentifierText(ksKind, identifier) << " failed "
                         << user_space_frameworks::trace::HrText(hr) << ", data length " << dataLength
                         << ", bytes returned "
                         << (bytesReturned ? std::to_string(*bytesReturned) : std::string("null")));
  }
  return hr;
}

}  // namespace

STDMETHODIMP ExtensionUnitKsControl::KsProperty(PKSPROPERTY pProperty, ULONG /*ulPropertyLength*/,
                                                LPVOID pPropertyData, ULONG ulDataLength,
                                                ULONG *pBytesReturned) {
  WQ_SCOPE_BEGIN(HRESULT);
  RETURN_HR_IF_NULL(E_NOINTERFACE, filterKsControl);
  RETURN_IF_NULL(pProperty);
  return SendToNode<KSP_NODE>(name, "KsProperty", KsIdentifierKind::Property, *pProperty, nodeId, ulDataLength, pBytesReturned,
                              [&](KSIDENTIFIER *request, ULONG length) {
                                return filterKsControl->KsProperty(request, length, pPropertyData, ulDataLength,
                                                                   pBytesReturned);
                              });
  WQ_SCOPE_END;
}

STDMETHODIMP ExtensionUnitKsControl::KsMethod(PKSMETHOD pMethod, ULONG /*ulMethodLength*/, LPVOID pMethodData,
                                              ULONG ulDataLength, ULONG *pBytesReturned) {
  WQ_SCOPE_BEGIN(HRESULT);
  RETURN_HR_IF_NULL(E_NOINTERFACE, filterKsControl);
  RETURN_IF_NULL(pMethod);
  return SendToNode<KSM_NODE>(name, "KsMethod", KsIdentifierKind::Method, *pMethod, nodeId, ulDataLength, pBytesReturned,
                              [&](KSIDENTIFIER *request, ULONG length) {
                                return filterKsControl->KsMethod(request, length, pMethodData, ulDataLength,
                                                                 pBytesReturned);
                              });
  WQ_SCOPE_END;
}

STDMETHODIMP ExtensionUnitKsControl::KsEvent(PKSEVENT pEvent, ULONG ulEventLength, LPVOID pEventData,
                                             ULONG ulDataLength, ULONG *pBytesReturned) {
  WQ_SCOPE_BEGIN(HRESULT);
  RETURN_HR_IF_NULL(E_NOINTERFACE, filterKsControl);
  if (pEvent == nullptr) {
    // Disabling names the event by its data alone: nothing to address.
    return filterKsControl->KsEvent(nullptr, ulEventLength, pEventData, ulDataLength, pBytesReturned);
  }
  return SendToNode<KSE_NODE>(name, "KsEvent", KsIdentifierKind::Event, *pEvent, nodeId, ulDataLength, pBytesReturned,
                              [&](KSIDENTIFIER *request, ULONG length) {
                                return filterKsControl->KsEvent(request, length, pEventData, ulDataLength,
                                                                pBytesReturned);
                              });
  WQ_SCOPE_END;
}

HRESULT ExtensionUnitKsControl::SendKsProperty(ULONG id, void *data, ULONG dataSize, ULONG flags,
                                               ULONG &bytesReturned) {
  WQ_SCOPE_BEGIN(HRESULT);
  KSPROPERTY property = {};
  property.Set = xuSetId;
  property.Id = id;
  property.Flags = flags;
  return KsProperty(&property, sizeof(property), data, dataSize, &bytesReturned);
  WQ_SCOPE_END;
}

HRESULT ExtensionUnitKsControl::QueryKsPropertyInfo(ULONG id, LONG &minimum, LONG &maximum, LONG &step,
                                                    LONG &defaultValue) {
  WQ_SCOPE_BEGIN(HRESULT);
  KSPROPERTY property = {};
  property.Set = xuSetId;
  property.Id = id;
  property.Flags = KSPROPERTY_TYPE_BASICSUPPORT;
  std::array<BYTE, kRangeReplySize> propertyRange = {};
  ULONG requestedSize = kRangeReplySize;
  ULONG bytesReturned = 0;
  RETURN_IF_FAILED(KsProperty(&property, sizeof(KSPROPERTY), propertyRange.data(), requestedSize, &bytesReturned));
  step = ReadLong(propertyRange, kValuesOffset);
  minimum = ReadLong(propertyRange, kValuesOffset + 4);
  maximum = ReadLong(propertyRange, kValuesOffset + 8);

  std::memset(propertyRange.data(), 0, sizeof(KSPROPERTY));
  property.Flags = KSPROPERTY_TYPE_DEFAULTVALUES;
  requestedSize = kDefaultReplySize;
  RETURN_IF_FAILED(KsProperty(&property, sizeof(KSPROPERTY), propertyRange.data(), requestedSize, &bytesReturned));
  defaultValue = ReadLong(propertyRange, kValuesOffset);
  return S_OK;
  WQ_SCOPE_END;
}

}  // namespace mft_core
