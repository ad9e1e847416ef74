#include "mft_core/controls/ExtendedCameraControl.h"

#include "user_space_frameworks/TraceScope.h"

namespace mft_core {

namespace {
constexpr HRESULT kMoreData = HRESULT_FROM_WIN32(ERROR_MORE_DATA);
constexpr HRESULT kNotSupported = HRESULT_FROM_WIN32(ERROR_NOT_SUPPORTED);
}  // namespace

ExtendedCameraControl::ExtendedCameraControl(ULONG propertyId, const std::string &displayName, IKsControl *ksControl)
    : KsPropHandler(KSPROPERTYSETID_ExtendedCameraControl, propertyId, displayName, ksControl) {}

HRESULT ExtendedCameraControl::Run(PKSIDENTIFIER pProperty, ULONG, LPVOID pPropertyData, ULONG ulDataLength,
                                   ULONG *pBytesReturned) {
  WQ_SCOPE_BEGIN(HRESULT);
  RETURN_IF_NULL(pBytesReturned);
  *pBytesReturned = kRequestSize;
  // The usual size query (no buffer, or too small a one) ends here with the size the control needs.
  if (ulDataLength < kRequestSize) return kMoreData;
  RETURN_HR_IF_NULL(E_INVALIDARG, pProperty);
  RETURN_IF_NULL(pPropertyData);

  auto *header = static_cast<KSCAMERA_EXTENDEDPROP_HEADER *>(pPropertyData);
  auto *payload = reinterpret_cast<KSCAMERA_EXTENDEDPROP_VIDEOPROCSETTING *>(static_cast<BYTE *>(pPropertyData) +
                                                                            kHeaderSize);
  const ULONG flags = pProperty->Flags;
  if ((flags & KSPROPERTY_TYPE_SET) != 0) return Set(pProperty, header, payload);
  if ((flags & KSPROPERTY_TYPE_GET) != 0) return Get(pProperty, header, payload);
  return kNotSupported;
  WQ_SCOPE_END;
}

}  // namespace mft_core
