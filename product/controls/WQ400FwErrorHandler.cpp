#include "product/controls/WQ400FwErrorHandler.h"

#include "user_space_frameworks/Check.h"
#include "user_space_frameworks/NameMap.h"
#include "user_space_frameworks/Trace.h"
#include "user_space_frameworks/TraceScope.h"

namespace mft_core {

const char *WQ400FwErrorHandler::ErrorName(uint8_t code) {
  static const user_space_frameworks::NameMap<uint8_t> names = {
      {etXuErrSuccess, "etXuErrSuccess"},
      {etXuErrHotLaserPwrReduce, "etXuErrHotLaserPwrReduce"},
      {etXuErrHotLaserDisable, "etXuErrHotLaserDisable"},
      {etXuErrFlagBLaserDisable, "etXuErrFlagBLaserDisable"},
  };
  return names.Contains(code) ? names[code] : "Unknown Error";
}

WQ400FwErrorHandler::WQ400FwErrorHandler(const std::string &namePrefix,
                                         Microsoft::WRL::ComPtr<ExtensionUnitKsControl> xuKsControl,
                                         ULONG errorPropertyId, MediaEventGenerator *eventQueue)
    : name(namePrefix + " FW Error Handler"),
      xuKsControl(std::move(xuKsControl)),
      errorPropertyId(errorPropertyId),
      eventQueue(eventQueue) {}

void WQ400FwErrorHandler::OnEvent(REFGUID, ULONG) {
  WQ_SCOPE();
  if (!xuKsControl) return;
  KSPROPERTY property{};
  property.Set = xuKsControl->GetSetId();
  property.Id = errorPropertyId;
  property.Flags = KSPROPERTY_TYPE_GET;
  BYTE code = 0;
  ULONG bytesReturned = 0;
  const HRESULT hr = xuKsControl->KsProperty(&property, sizeof(property), &code, sizeof(code), &bytesReturned);
  if (FAILED(hr)) {
    WQ_TRACE(Error, name << ": reading the firmware error code failed " << user_space_frameworks::trace::HrText(hr));
    return;
  }
  ProcessError(code);
}

void WQ400FwErrorHandler::ProcessError(uint8_t code) {
  WQ_SCOPE();
  if (static_cast<uint8_t>(code - 1) < 2) {
    NotifyHighTemperature(code);
    return;
  }
  WQ_TRACE(Info, name << ": " << ErrorName(code) << " (" << static_cast<unsigned>(code) << ")");
}

void WQ400FwErrorHandler::NotifyHighTemperature(uint8_t code) {
  WQ_SCOPE();
  WQ_TRACE(Warning, name << ": " << ErrorName(code) << " (" << static_cast<unsigned>(code) << ")");
  if (eventQueue == nullptr) return;
  PROPVARIANT value;
  PropVariantInit(&value);
  value.vt = VT_UI4;
  value.ulVal = 1;
  Microsoft::WRL::ComPtr<IMFMediaEvent> event;
  // Creation and queueing failures are traced and go no further: the device keeps running.
  if (SUCCEEDED(LOG_IF_FAILED(MFCreateMediaEvent(MEDeviceThermalStateChanged, GUID_NULL, S_OK, &value, &event)))) {
    LOG_IF_FAILED(eventQueue->QueueEvent(event.Get()));
  }
  PropVariantClear(&value);
}

}  // namespace mft_core
