#include "mft_core/ks/KsControlHandlers.h"

#include <cstdio>
#include <cstring>

#include "user_space_frameworks/Check.h"
#include "user_space_frameworks/Trace.h"
#include "user_space_frameworks/TraceScope.h"

namespace mft_core {

namespace {

constexpr HRESULT kSetNotFound = HRESULT_FROM_WIN32(ERROR_SET_NOT_FOUND);
constexpr HRESULT kNotFound = HRESULT_FROM_WIN32(ERROR_NOT_FOUND);
constexpr HRESULT kInvalidState = HRESULT_FROM_WIN32(ERROR_INVALID_STATE);
constexpr HRESULT kMoreData = HRESULT_FROM_WIN32(ERROR_MORE_DATA);

// The application's KSEVENTDATA, or null when the buffer cannot hold one.
const KSEVENTDATA *EventDataOf(LPVOID eventData, ULONG dataLength) {
  if (eventData == nullptr || dataLength < sizeof(KSEVENTDATA)) return nullptr;
  return static_cast<const KSEVENTDATA *>(eventData);
}

}  // namespace

// ---- KsControlHandler ---------------------------------------------------------------------------------

KsControlHandler::KsControlHandler(REFGUID set, ULONG id, const std::string &description, KsIdentifierKind kind,
                                   IKsControl *ksControl)
    : set(set), id(id), ksControl(ksControl) {
  KSIDENTIFIER identifier{};
  identifier.Set = set;
  identifier.Id = id;
  name = description + " " + KsIdentifierText(kind, &identifier);
}

bool KsControlHandler::IsSameControl(const KsControlHandler &other) const {
  return IsEqualGUID(set, other.set) && id == other.id;
}

bool KsControlHandler::IsMatch(const KSIDENTIFIER *identifier) const {
  WQ_SCOPE();
  return identifier != nullptr && IsEqualGUID(identifier->Set, set) && identifier->Id == id;
}

KsPropHandler::KsPropHandler(REFGUID set, ULONG id, const std::string &description, IKsControl *ksControl)
    : KsControlHandler(set, id, description, KsIdentifierKind::Property, ksControl) {}

HRESULT KsPropHandler::Run(PKSIDENTIFIER, ULONG, LPVOID, ULONG, ULONG *) { return kSetNotFound; }

KsMethodHandler::KsMethodHandler(REFGUID set, ULONG id, const std::string &description, IKsControl *ksControl)
    : KsControlHandler(set, id, description, KsIdentifierKind::Method, ksControl) {}

HRESULT KsMethodHandler::Run(PKSIDENTIFIER, ULONG, LPVOID, ULONG, ULONG *) { return kSetNotFound; }

// ---- Event handlers -----------------------------------------------------------------------------------

KsEventHandler::KsEventHandler(REFGUID set, ULONG id, const std::string &description, IKsControl *ksControl)
    : KsControlHandler(set, id, description, KsIdentifierKind::Event, ksControl) {}

HRESULT KsEventHandler::Run(PKSIDENTIFIER, ULONG, LPVOID, ULONG, ULONG *) { return kSetNotFound; }

HRESULT KsEventHandler::AttemptToResetRegularEvent(LPVOID) { return kNotFound; }

bool KsEventHandler::IsArmed() {
  WQ_SCOPE();
  user_space_frameworks::AutoLock guard(eventLock);
  return eventHandle.IsValid();
}

HRESULT KsEventHandler::DuplicateEventHandle(HANDLE handle) {
  WQ_SCOPE_BEGIN(HRESULT);
  user_space_frameworks::AutoLock guard(eventLock);
  if (eventHandle.IsValid()) {
    WQ_TRACE(Error, GetTraceName() << ": an event is already armed");
    return kInvalidState;
  }
  HANDLE duplicate = nullptr;
  if (!DuplicateHandle(GetCurrentProcess(), handle, GetCurrentProcess(), &duplicate, 0, FALSE,
                       DUPLICATE_SAME_ACCESS)) {
    const HRESULT hr = HRESULT_FROM_WIN32(GetLastError());
    WQ_TRACE(Error, GetTraceName() << ": DuplicateHandle failed " << user_space_frameworks::trace::HrText(hr));
    return FAILED(hr) ? hr : E_FAIL;
  }
  eventHandle.Reset(duplicate);
  return S_OK;
  WQ_SCOPE_END;
}

OneShotKsEventHandler::OneShotKsEventHandler(REFGUID set, ULONG id, const std::string &description,
                                             IKsControl *ksControl)
    : KsEventHandler(set, id, description, ksControl) {}

HRESULT OneShotKsEventHandler::Run(PKSIDENTIFIER pEvent, ULONG, LPVOID pEventData, ULONG ulDataLength, ULONG *) {
  WQ_SCOPE_BEGIN(HRESULT);
  RETURN_HR_IF_NULL(E_INVALIDARG, pEvent);
  RETURN_HR_IF_NULL(E_INVALIDARG, pEventData);
  const KSEVENTDATA *ksEventData = EventDataOf(pEventData, ulDataLength);
  RETURN_HR_IF(E_INVALIDARG, ksEventData == nullptr);
  if ((pEvent->Flags & KSEVENT_TYPE_ONESHOT) == 0) return E_NOTIMPL;
  RETURN_IF_FAILED(DuplicateEventHandle(ksEventData->EventHandle.Event));
  return S_OK;
  WQ_SCOPE_END;
}

HRESULT OneShotKsEventHandler::Set() {
  WQ_SCOPE_BEGIN(HRESULT);
  user_space_frameworks::AutoLock guard(eventLock);
  RETURN_HR_IF_NULL(kInvalidState, eventHandle.Get());
  if (!SetEvent(eventHandle.Get())) {
    const HRESULT hr = HRESULT_FROM_WIN32(GetLastError());
    WQ_TRACE(Error, GetTraceName() << ": SetEvent failed " << user_space_frameworks::trace::HrText(hr));
    return FAILED(hr) ? hr : E_FAIL;
  }
  // A one-shot event is used once: the next notification needs a new request.
  eventHandle.Reset();
  WQ_TRACE(Info, GetTraceName() << ": event signalled");
  return S_OK;
  WQ_SCOPE_END;
}

RegularKsEventHandler::RegularKsEventHandler(REFGUID set, ULONG id, const std::string &description,
                                             IKsControl *ksControl)
    : KsEventHandler(set, id, description, ksControl) {}

HRESULT RegularKsEventHandler::Run(PKSIDENTIFIER pEvent, ULONG, LPVOID pEventData, ULONG ulDataLength, ULONG *) {
  WQ_SCOPE_BEGIN(HRESULT);
  const KSEVENTDATA *ksEventData = EventDataOf(pEventData, ulDataLength);
  if (pEvent == nullptr || ksEventData == nullptr) return E_INVALIDARG;
  if ((pEvent->Flags & KSEVENT_TYPE_ENABLE) == 0) return E_NOTIMPL;
  // The enabling data is not remembered here: only a disable request with no data releases the
  // handle through AttemptToResetRegularEvent.
  RETURN_IF_FAILED(DuplicateEventHandle(ksEventData->EventHandle.Event));
  return S_OK;
  WQ_SCOPE_END;
}

HRESULT RegularKsEventHandler::AttemptToResetRegularEvent(LPVOID eventData) { return Reset(eventData); }

HRESULT RegularKsEventHandler::Reset(LPVOID eventData) {
  WQ_SCOPE_BEGIN(HRESULT);
  user_space_frameworks::AutoLock guard(eventLock);
  if (eventData != enabledEventData) return kNotFound;
  eventHandle.Reset();
  enabledEventData = nullptr;
  return S_OK;
  WQ_SCOPE_END;
}

HRESULT RegularKsEventHandler::Set() {
  WQ_SCOPE_BEGIN(HRESULT);
  user_space_frameworks::AutoLock guard(eventLock);
  RETURN_HR_IF_NULL(kInvalidState, eventHandle.Get());
  if (!SetEvent(eventHandle.Get())) {
    // Reported, not returned: the notifier carries on whether or not the application still listens.
    WQ_TRACE(Error, GetTraceName() << ": SetEvent failed "
                                   << user_space_frameworks::trace::HrText(HRESULT_FROM_WIN32(GetLastError())));
    return S_OK;
  }
  // The duplicate is forgotten without being closed, as the regular-event contract of this
  // transform has always done; the handler is free to be armed again.
  eventHandle.Release();
  enabledEventData = nullptr;
  return S_OK;
  WQ_SCOPE_END;
}

// ---- Warm start -------------------------------------------------------------------------------------------

WarmStartKsPropsHandler::WarmStartKsPropsHandler()
    : KsPropHandler(KSPROPERTYSETID_ExtendedCameraControl, KSPROPERTY_CAMERACONTROL_EXTENDED_WARMSTART,
                    "Warm Start handler", nullptr) {}

HRESULT WarmStartKsPropsHandler::Run(PKSIDENTIFIER pProperty, ULONG, LPVOID pPropertyData, ULONG ulDataLength,
                                     ULONG *pBytesReturned) {
  WQ_SCOPE_BEGIN(HRESULT);
  RETURN_HR_IF_NULL(E_INVALIDARG, pProperty);
  RETURN_IF_NULL(pBytesReturned);
  *pBytesReturned = 0;
  const ULONG flags = pProperty->Flags;
  if ((flags & KSPROPERTY_TYPE_SET) != 0) {
    if (ulDataLength == 0) {
      *pBytesReturned = kPayloadSize;
      return kMoreData;
    }
    if (ulDataLength < kPayloadSize) return kMoreData;
    if (pPropertyData == nullptr) return S_OK;
    const auto *header = static_cast<const KSCAMERA_EXTENDEDPROP_HEADER *>(pPropertyData);
    if ((header->Flags & KSCAMERA_EXTENDEDPROP_WARMSTART_MODE_ENABLED) != 0) {
      WQ_TRACE(Error, GetTraceName() << ": warm start cannot be enabled");
      return E_INVALIDARG;
    }
    // Acknowledges the header only.
    *pBytesReturned = 16;
    return S_OK;
  }
  if ((flags & KSPROPERTY_TYPE_GET) != 0) {
    if (ulDataLength == 0) {
      *pBytesReturned = kPayloadSize;
      return kMoreData;
    }
    if (ulDataLength < kPayloadSize) return kMoreData;
    if (pPropertyData == nullptr) return S_OK;
    auto *header = static_cast<KSCAMERA_EXTENDEDPROP_HEADER *>(pPropertyData);
    header->Version = 1;
    // Size and Result are one 64-bit store: Size = 40, Result = 0.
    const ULONGLONG sizeAndResult = kPayloadSize;
    std::memcpy(&header->Size, &sizeAndResult, sizeof(sizeAndResult));
    header->Flags = 0;
    header->Capability = KSCAMERA_EXTENDEDPROP_CAPS_ASYNCCONTROL;
    *pBytesReturned = kPayloadSize;
    return S_OK;
  }
  return S_OK;
  WQ_SCOPE_END;
}

// ---- Pass-through defaults ----------------------------------------------------------------------------------

HRESULT PassthroughKsPropsHandler::Run(PKSIDENTIFIER pProperty, ULONG ulPropertyLength, LPVOID pvPropertyData,
                                       ULONG ulDataLength, ULONG *pulBytesReturned) {
  WQ_SCOPE_BEGIN(HRESULT);
  IKsControl *myKsControl = ksControl.Get();
  RETURN_HR_IF_NULL(E_UNEXPECTED, myKsControl);
  return LOG_IF_FAILED(myKsControl->KsProperty(pProperty, ulPropertyLength, pvPropertyData, ulDataLength, pulBytesReturned));
  WQ_SCOPE_END;
}

HRESULT PassthroughKsEventsHandler::Run(PKSIDENTIFIER pEvent, ULONG ulEventLength, LPVOID pEventData,
                                        ULONG ulDataLength, ULONG *pBytesReturned) {
  WQ_SCOPE_BEGIN(HRESULT);
  IKsControl *myKsControl = ksControl.Get();
  RETURN_HR_IF_NULL(E_UNEXPECTED, myKsControl);
  return LOG_IF_FAILED(myKsControl->KsEvent(pEvent, ulEventLength, pEventData, ulDataLength, pBytesReturned));
  WQ_SCOPE_END;
}

HRESULT PassthroughKsMethodsHandler::Run(PKSIDENTIFIER pMethod, ULONG ulPropertyLength, LPVOID pvPropertyData,
                                         ULONG ulDataLength, ULONG *pulBytesReturned) {
  WQ_SCOPE_BEGIN(HRESULT);
  IKsControl *myKsControl = ksControl.Get();
  RETURN_HR_IF_NULL(E_UNEXPECTED, myKsControl);
  return LOG_IF_FAILED(myKsControl->KsMethod(pMethod, ulPropertyLength, pvPropertyData, ulDataLength, pulBytesReturned));
  WQ_SCOPE_END;
}

// ---- Complete set -------------------------------------------------------------------------------------------

CompleteSetPropsHandler::CompleteSetPropsHandler(IKsControl *ksControl, REFGUID set, const std::string &description)
    : KsPropHandler(set, 0, description, ksControl) {}

bool CompleteSetPropsHandler::IsMatch(const KSIDENTIFIER *identifier) const {
  return identifier != nullptr && IsEqualGUID(identifier->Set, set);
}

bool CompleteSetPropsHandler::IsSameSet(const KsControlHandler &other) const {
  return IsEqualGUID(set, other.GetSet());
}

HRESULT CompleteSetPropsHandler::Run(PKSIDENTIFIER pProperty, ULONG ulPropertyLength, LPVOID pPropertyData,
                                     ULONG ulDataLength, ULONG *pBytesReturned) {
  WQ_SCOPE_BEGIN(HRESULT);
  IKsControl *myKsControl = ksControl.Get();
  RETURN_HR_IF_NULL(E_UNEXPECTED, myKsControl);
  return LOG_IF_FAILED(myKsControl->KsProperty(pProperty, ulPropertyLength, pPropertyData, ulDataLength, pBytesReturned));
  WQ_SCOPE_END;
}

}  // namespace mft_core
