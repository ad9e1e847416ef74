#include "mft_core/ks/ExtensionUnitKsControl.h"

#include <array>
#include <cstring>

#include "mft_core/ks/KsText.h"
#include "user_space_frameworks/GuidText.h"
#include "user_space_frameworks/Check.h"

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
  RETURN_IF_FAILED(FindDeviceSpecificNode(sourceTransform, ksControl, knownSupportedId));
  filterKsControl = ksControl;
  return S_OK;
}

HRESULT ExtensionUnitKsControl::FindDeviceSpecificNode(const ComPtr<IMFTransform> &sourceTransform,
                                                       const ComPtr<IKsControl> &ksControl,
                                                       ULONG knownSupportedId) {
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
      WQ_TRACE(Info, name << ": set " << user_space_frameworks::GuidText(xuSetId) << " found at node " << nodeId);
      return S_OK;
    }
  }
  WQ_TRACE(Warning, name << ": no device-specific node answers set " << user_space_frameworks::GuidText(xuSetId) << " ("
                         << numNodes << " nodes)");
  return E_NOINTERFACE;
}

STDMETHODIMP ExtensionUnitKsControl::KsProperty(PKSPROPERTY pProperty, ULONG /*ulPropertyLength*/,
                                                LPVOID pPropertyData, ULONG ulDataLength,
                                                ULONG *pBytesReturned) {
  RETURN_HR_IF_NULL(E_NOINTERFACE, filterKsControl);
  RETURN_IF_NULL(pProperty);
  KSP_NODE nodeProperty = {};
  std::memcpy(&nodeProperty.Property, pProperty, sizeof(KSPROPERTY));
  nodeProperty.Property.Flags |= KSPROPERTY_TYPE_TOPOLOGY;
  nodeProperty.NodeId = nodeId;
  const HRESULT hr = filterKsControl->KsProperty(reinterpret_cast<PKSPROPERTY>(&nodeProperty),
                                                 sizeof(nodeProperty), pPropertyData, ulDataLength,
                                                 pBytesReturned);
  if (FAILED(hr)) {
    WQ_TRACE(Error, name << ": KsProperty " << KsIdentifierText(nodeProperty.Property) << " failed "
                         << user_space_frameworks::trace::HrText(hr) << ", data length " << ulDataLength
                         << ", bytes returned "
                         << (pBytesReturned ? std::to_string(*pBytesReturned) : std::string("null")));
  }
  return hr;
}

STDMETHODIMP ExtensionUnitKsControl::KsMethod(PKSMETHOD pMethod, ULONG /*ulMethodLength*/, LPVOID pMethodData,
                                              ULONG ulDataLength, ULONG *pBytesReturned) {
  RETURN_HR_IF_NULL(E_NOINTERFACE, filterKsControl);
  RETURN_IF_NULL(pMethod);
  KSM_NODE nodeMethod = {};
  std::memcpy(&nodeMethod.Method, pMethod, sizeof(KSMETHOD));
  nodeMethod.Method.Flags |= KSPROPERTY_TYPE_TOPOLOGY;
  nodeMethod.NodeId = nodeId;
  const HRESULT hr = filterKsControl->KsMethod(reinterpret_cast<PKSMETHOD>(&nodeMethod), sizeof(nodeMethod),
                                               pMethodData, ulDataLength, pBytesReturned);
  if (FAILED(hr)) {
    WQ_TRACE(Error, name << ": KsMethod " << KsIdentifierText(nodeMethod.Method) << " failed "
                         << user_space_frameworks::trace::HrText(hr) << ", data length " << ulDataLength);
  }
  return hr;
}

STDMETHODIMP ExtensionUnitKsControl::KsEvent(PKSEVENT pEvent, ULONG ulEventLength, LPVOID pEventData,
                                             ULONG ulDataLength, ULONG *pBytesReturned) {
  RETURN_HR_IF_NULL(E_NOINTERFACE, filterKsControl);
  if (pEvent == nullptr) {
    // Disabling names the event by its data alone: nothing to address.
    return filterKsControl->KsEvent(nullptr, ulEventLength, pEventData, ulDataLength, pBytesReturned);
  }
  KSE_NODE nodeEvent = {};
  std::memcpy(&nodeEvent.Event, pEvent, sizeof(KSEVENT));
  nodeEvent.Event.Flags |= KSPROPERTY_TYPE_TOPOLOGY;
  nodeEvent.NodeId = nodeId;
  const HRESULT hr = filterKsControl->KsEvent(reinterpret_cast<PKSEVENT>(&nodeEvent), sizeof(nodeEvent),
                                              pEventData, ulDataLength, pBytesReturned);
  if (FAILED(hr)) {
    WQ_TRACE(Error, name << ": KsEvent " << KsIdentifierText(nodeEvent.Event) << " failed "
                         << user_space_frameworks::trace::HrText(hr) << ", data length " << ulDataLength);
  }
  return hr;
}

HRESULT ExtensionUnitKsControl::SendKsProperty(ULONG id, void *data, ULONG dataSize, ULONG flags,
                                               ULONG &bytesReturned) {
  KSPROPERTY property = {};
  property.Set = xuSetId;
  property.Id = id;
  property.Flags = flags;
  return KsProperty(&property, sizeof(property), data, dataSize, &bytesReturned);
}

HRESULT ExtensionUnitKsControl::QueryKsPropertyInfo(ULONG id, LONG &minimum, LONG &maximum, LONG &step,
                                                    LONG &defaultValue) {
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
}

}  // namespace mft_core
