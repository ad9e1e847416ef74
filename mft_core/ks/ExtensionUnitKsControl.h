// An IKsControl addressed to one extension unit of the driver filter: every request of the unit's
// property set is re-sent as a node request to the topology node that the unit occupies.
#pragma once

#include <string>

#include "platform/WindowsSdk.h"
#include "user_space_frameworks/Check.h"
#include "user_space_frameworks/ComObject.h"
#include "user_space_frameworks/Object.h"

namespace mft_core {

class ExtensionUnitKsControl : public user_space_frameworks::ComObject<IKsControl>,
                               public user_space_frameworks::Object {
 public:
  ExtensionUnitKsControl(const GUID &xuSetId, const std::string &namePrefix);

  // Finds the unit's node; requests fail with E_NOINTERFACE until this succeeds.
  HRESULT Init(const Microsoft::WRL::ComPtr<IMFTransform> &sourceTransform,
               const Microsoft::WRL::ComPtr<IKsControl> &ksControl, ULONG knownSupportedId);
  // The first device-specific node that answers the set-support query for `knownSupportedId`.
  HRESULT FindDeviceSpecificNode(const Microsoft::WRL::ComPtr<IMFTransform> &sourceTransform,
                                 const Microsoft::WRL::ComPtr<IKsControl> &ksControl, ULONG knownSupportedId);

  STDMETHODIMP KsProperty(PKSPROPERTY pProperty, ULONG ulPropertyLength, LPVOID pPropertyData,
                          ULONG ulDataLength, ULONG *pBytesReturned) override;
  STDMETHODIMP KsMethod(PKSMETHOD pMethod, ULONG ulMethodLength, LPVOID pMethodData, ULONG ulDataLength,
                        ULONG *pBytesReturned) override;
  STDMETHODIMP KsEvent(PKSEVENT pEvent, ULONG ulEventLength, LPVOID pEventData, ULONG ulDataLength,
                       ULONG *pBytesReturned) override;

  // A property of the unit's own set, e.g. flags KSPROPERTY_TYPE_GET to read control `id`.
  HRESULT SendKsProperty(ULONG id, void *data, ULONG dataSize, ULONG flags, ULONG &bytesReturned);
  // A control of exactly sizeof(T) bytes of the unit's own set. A GET that returns fewer bytes fails
  // with ERROR_INVALID_DATA and leaves `value` as it was.
  template <typename T>
  HRESULT GetKsProperty(ULONG id, T &value) {
    T read = value;
    ULONG bytesReturned = 0;
    RETURN_IF_FAILED(SendKsProperty(id, &read, static_cast<ULONG>(sizeof(T)), KSPROPERTY_TYPE_GET, bytesReturned));
    RETURN_HR_IF(HRESULT_FROM_WIN32(ERROR_INVALID_DATA), bytesReturned < sizeof(T));
    value = read;
    return S_OK;
  }
  template <typename T>
  HRESULT SetKsProperty(ULONG id, T value) {
    ULONG bytesReturned = 0;
    RETURN_IF_FAILED(SendKsProperty(id, &value, static_cast<ULONG>(sizeof(T)), KSPROPERTY_TYPE_SET, bytesReturned));
    return S_OK;
  }
  // Range and default of one 32-bit control of the unit. Each output is written only once the query
  // that yields it has succeeded.
  HRESULT QueryKsPropertyInfo(ULONG id, LONG &minimum, LONG &maximum, LONG &step, LONG &defaultValue);

  const GUID &GetSetId() const { return xuSetId; }
  ULONG GetNodeId() const { return nodeId; }
  const char *GetTraceName() const override { return name.c_str(); }

 private:
  std::string name;
  Microsoft::WRL::ComPtr<IKsControl> filterKsControl;
  GUID xuSetId;
  ULONG nodeId = 0;
};

}  // namespace mft_core
