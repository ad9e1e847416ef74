#include "mft_core/ks/KsControlsProxy.h"

#include <algorithm>
#include <cstring>
#include <vector>

#include "user_space_frameworks/Check.h"
#include "user_space_frameworks/Trace.h"
#include "user_space_frameworks/TraceScope.h"

namespace mft_core {

namespace {

constexpr HRESULT kNotReady = HRESULT_FROM_WIN32(ERROR_NOT_READY);
constexpr ULONG kDescriptionSize = sizeof(KSPROPERTY_DESCRIPTION);
constexpr ULONG kMembersHeaderSize = sizeof(KSPROPERTY_MEMBERSHEADER);

}  // namespace

KsControlsProxy::KsControlsProxy(IKsControl *ksControl) : ksControl(ksControl) {}

template <typename Call>
HRESULT KsControlsProxy::CallWithRetry(KsControlType type, PKSIDENTIFIER identifier, ULONG identifierLength,
                                       LPVOID data, ULONG dataLength, ULONG *bytesReturned, Call &&call) {
  WQ_SCOPE_BEGIN(HRESULT);
  RETURN_HR_IF_NULL(E_UNEXPECTED, ksControl.Get());
  HRESULT hr = kNotReady;
  for (int attempt = 0; attempt < kNotReadyAttempts; ++attempt) {
    OnKsControlEntry(type, identifier, identifierLength, data, dataLength, bytesReturned);
    hr = call();
    OnKsControlExit(type, identifier, identifierLength, data, dataLength, bytesReturned, hr);
    if (hr != kNotReady) return hr;
    WQ_TRACE(Warning, "device not ready, attempt " << (attempt + 1) << " of " << kNotReadyAttempts);
    Sleep(kNotReadySleepMs);
  }
  return hr;
  WQ_SCOPE_END;
}

STDMETHODIMP KsControlsProxy::KsProperty(PKSPROPERTY Property, ULONG PropertyLength, LPVOID PropertyData,
                                         ULONG DataLength, ULONG *BytesReturned) {
  WQ_SCOPE_BEGIN(HRESULT);
  return CallWithRetry(KsControlType::Property, Property, PropertyLength, PropertyData, DataLength, BytesReturned,
                       [&] { return ksControl->KsProperty(Property, PropertyLength, PropertyData, DataLength,
                                                          BytesReturned); });
  WQ_SCOPE_END;
}

STDMETHODIMP KsControlsProxy::KsMethod(PKSMETHOD Method, ULONG MethodLength, LPVOID MethodData, ULONG DataLength,
                                       ULONG *BytesReturned) {
  WQ_SCOPE_BEGIN(HRESULT);
  return CallWithRetry(KsControlType::Method, Method, MethodLength, MethodData, DataLength, BytesReturned,
                       [&] { return ksControl->KsMethod(Method, MethodLength, MethodData, DataLength, BytesReturned); });
  WQ_SCOPE_END;
}

STDMETHODIMP KsControlsProxy::KsEvent(PKSEVENT Event, ULONG EventLength, LPVOID EventData, ULONG DataLength,
                                      ULONG *BytesReturned) {
  WQ_SCOPE_BEGIN(HRESULT);
  return CallWithRetry(KsControlType::Event, Event, EventLength, EventData, DataLength, BytesReturned,
                       [&] { return ksControl->KsEvent(Event, EventLength, EventData, DataLength, BytesReturned); });
  WQ_SCOPE_END;
}

HRESULT KsControlsProxy::QueryKsPropertyVideoProCampInfo(ULONG propertyId, LONG *minimum, LONG *maximum, LONG *step,
                                                         LONG *defaultValue) {
  WQ_SCOPE_BEGIN(HRESULT);
  RETURN_IF_NULL(minimum);
  RETURN_IF_NULL(maximum);
  RETURN_IF_NULL(step);
  RETURN_IF_NULL(defaultValue);

  KSPROPERTY_CAMERACONTROL_S KsProperty_s{};
  KsProperty_s.Property.Set = PROPSETID_VIDCAP_VIDEOPROCAMP;
  KsProperty_s.Property.Id = propertyId;
  KsProperty_s.Property.Flags = KSPROPERTY_TYPE_BASICSUPPORT;
  KsProperty_s.Value = 0;
  KsProperty_s.Flags = KSPROPERTY_VIDEOPROCAMP_FLAGS_MANUAL;

  KSPROPERTY_DESCRIPTION ksPropDesc{};
  ULONG bytesReturned = 0;
  RETURN_IF_FAILED(KsProperty((PKSPROPERTY)&KsProperty_s, sizeof(KSPROPERTY_CAMERACONTROL_S), &ksPropDesc, sizeof(KSPROPERTY_DESCRIPTION), &bytesReturned));
  if (bytesReturned != kDescriptionSize) {
    WQ_TRACE(Warning, "description of " << bytesReturned << " bytes, expected " << kDescriptionSize);
    return S_OK;
  }

  // Values follow the description and one members header per list: stepping delta, reserved, minimum,
  // maximum of a stepped range.
  const ULONG requestedSize = ksPropDesc.DescriptionSize;
  const ULONG elementSize = ksPropDesc.PropTypeSet.Id == VT_I4 ? 4 : 1;
  const ULONGLONG valueOffset = kDescriptionSize + static_cast<ULONGLONG>(kMembersHeaderSize) * ksPropDesc.MembersListCount;
  if (valueOffset + 4ull * elementSize > requestedSize) {
    WQ_TRACE(Error, "description size " << requestedSize << " cannot hold a stepped range at " << valueOffset);
    return E_UNEXPECTED;
  }
  auto copyElement = [&](const std::vector<BYTE> &from, ULONG index, LONG *to) {
    *to = 0;
    std::memcpy(to, from.data() + valueOffset + index * elementSize, elementSize);
  };

  std::vector<BYTE> propertyRange(requestedSize);
  RETURN_IF_FAILED(KsProperty((PKSPROPERTY)&KsProperty_s, sizeof(KSPROPERTY_CAMERACONTROL_S), propertyRange.data(), requestedSize, &bytesReturned));
  copyElement(propertyRange, 0, step);
  copyElement(propertyRange, 2, minimum);
  copyElement(propertyRange, 3, maximum);

  KsProperty_s.Property.Flags = KSPROPERTY_TYPE_DEFAULTVALUES;
  RETURN_IF_FAILED(KsProperty((PKSPROPERTY)&KsProperty_s, sizeof(KSPROPERTY_CAMERACONTROL_S), &ksPropDesc, sizeof(KSPROPERTY_DESCRIPTION), &bytesReturned));
  std::memset(propertyRange.data(), 0, 24);
  RETURN_IF_FAILED(KsProperty((PKSPROPERTY)&KsProperty_s, sizeof(KSPROPERTY_CAMERACONTROL_S), propertyRange.data(), requestedSize, &bytesReturned));
  KSPROPERTY_MEMBERSHEADER membersHeader{};
  if (requestedSize >= kDescriptionSize + kMembersHeaderSize) {
    std::memcpy(&membersHeader, propertyRange.data() + kDescriptionSize, kMembersHeaderSize);
  }
  // A default wider than the value (or than what is left of the buffer) is cut, never copied past it.
  ULONGLONG defaultSize = membersHeader.MembersSize;
  defaultSize = std::min<ULONGLONG>(defaultSize, sizeof(LONG));
  defaultSize = std::min<ULONGLONG>(defaultSize, requestedSize - valueOffset);
  *defaultValue = 0;
  std::memcpy(defaultValue, propertyRange.data() + valueOffset, static_cast<size_t>(defaultSize));
  return S_OK;
  WQ_SCOPE_END;
}

}  // namespace mft_core
