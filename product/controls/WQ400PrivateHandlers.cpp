#include "product/controls/WQ400ApiVersion.h"
#include "product/controls/WQ400HwCommandKsPropertyHandler.h"
#include "product/controls/WQ400PrivateProperties.h"
#include "user_space_frameworks/Check.h"
#include "user_space_frameworks/Trace.h"
#include "user_space_frameworks/TraceScope.h"

namespace mft_core {

namespace {

// MORE_DATA when `length` is short of `needed`; the caller has already reported the size needed.
HRESULT CheckLength(ULONG length, size_t needed, ULONG /*bytesReported*/) {
  return length < needed ? HRESULT_FROM_WIN32(ERROR_MORE_DATA) : S_OK;
}

}  // namespace

// ---- API version ---------------------------------------------------------------------------------------------

WQ400ApiVersion::WQ400ApiVersion()
    : KsPropHandler(PROPSETID_WQ400_PRIVATE, KSPROPERTY_WQ400_API_VERSION_ID, "WQ400 API Version", nullptr) {}

HRESULT WQ400ApiVersion::Run(PKSIDENTIFIER pProperty, ULONG, LPVOID pPropertyData, ULONG ulDataLength,
                             ULONG *pBytesReturned) {
  WQ_SCOPE_BEGIN(HRESULT);
  RETURN_IF_NULL(pBytesReturned);
  *pBytesReturned = sizeof(KSPROPERTY_WQ400_API_VERSION);
  RETURN_IF_FAILED(CheckLength(ulDataLength, sizeof(KSPROPERTY_WQ400_API_VERSION), *pBytesReturned));
  RETURN_HR_IF_NULL(E_INVALIDARG, pProperty);
  if ((pProperty->Flags & KSPROPERTY_TYPE_SET) != 0) {
    WQ_TRACE(Warning, GetTraceName() << ": the version is read-only");
    return E_UNEXPECTED;
  }
  if ((pProperty->Flags & KSPROPERTY_TYPE_GET) != 0) {
    RETURN_IF_NULL(pPropertyData);
    auto *version = static_cast<KSPROPERTY_WQ400_API_VERSION *>(pPropertyData);
    version->major = kMajor;
    version->minor = kMinor;
    return S_OK;
  }
  return E_INVALIDARG;
  WQ_SCOPE_END;
}

// ---- Hardware command ------------------------------------------------------------------------------------------

WQ400HwCommandKsPropertyHandler::WQ400HwCommandKsPropertyHandler(std::shared_ptr<IFirmwareCommandPipe> fwCommandPipe)
    : KsPropHandler(PROPSETID_WQ400_PRIVATE, KSPROPERTY_WQ400_CONTROL_HW_COMMAND_ID,
                    "WQ400 Depth HW command KS Property Handler", nullptr),
      fwCommandPipe(std::move(fwCommandPipe)) {}

HRESULT WQ400HwCommandKsPropertyHandler::Run(PKSIDENTIFIER pProperty, ULONG ulPropertyLength, LPVOID pPropertyData,
                                             ULONG ulDataLength, ULONG *pBytesReturned) {
  WQ_SCOPE_BEGIN(HRESULT);
  RETURN_IF_NULL(pBytesReturned);
  // The identifier's size is reported, also after a GET that returned reply data.
  *pBytesReturned = sizeof(KSPROPERTY_WQ400_CONTROL_HW_COMMAND);
  RETURN_IF_FAILED(CheckLength(ulPropertyLength, sizeof(KSPROPERTY_WQ400_CONTROL_HW_COMMAND), *pBytesReturned));
  RETURN_HR_IF_NULL(E_INVALIDARG, pProperty);
  RETURN_HR_IF_NULL(E_UNEXPECTED, fwCommandPipe);
  const auto *hwCommand = reinterpret_cast<const KSPROPERTY_WQ400_CONTROL_HW_COMMAND *>(pProperty);
  // A data block without its buffer is refused here rather than handed to the pipe.
  RETURN_HR_IF(E_POINTER, pPropertyData == nullptr && ulDataLength != 0);

  if ((pProperty->Flags & KSPROPERTY_TYPE_SET) != 0) {
    RETURN_IF_FAILED(fwCommandPipe->Set(hwCommand->opCode, static_cast<const BYTE*>(pPropertyData), ulDataLength,
                                        hwCommand->param1, hwCommand->param2, hwCommand->param3, hwCommand->param4));
    return S_OK;
  }
  if ((pProperty->Flags & KSPROPERTY_TYPE_GET) != 0) {
    RETURN_IF_FAILED(fwCommandPipe->Get(static_cast<BYTE*>(pPropertyData), hwCommand->opCode, ulDataLength,
                                        hwCommand->param1, hwCommand->param2, hwCommand->param3, hwCommand->param4));
    return S_OK;
  }
  return E_INVALIDARG;
  WQ_SCOPE_END;
}

}  // namespace mft_core
