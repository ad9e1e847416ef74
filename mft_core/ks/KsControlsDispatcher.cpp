#include "mft_core/ks/KsControlsDispatcher.h"

#include <algorithm>
#include <cstdio>
#include <sstream>

#include "user_space_frameworks/Check.h"
#include "user_space_frameworks/ExceptionGuard.h"
#include "user_space_frameworks/Trace.h"
#include "user_space_frameworks/TraceScope.h"

namespace mft_core {

namespace {

constexpr ULONG kIdentifierDumpBytes = sizeof(KSIDENTIFIER);

std::string HexDump(const void *bytes, ULONG length) {
  if (bytes == nullptr) return "null";
  std::string text = "0x";
  const auto *p = static_cast<const unsigned char *>(bytes);
  char pair[3];
  for (ULONG i = 0; i < length; ++i) {
    std::snprintf(pair, sizeof(pair), "%02X", p[i]);
    text += pair;
  }
  return text;
}

KsIdentifierKind KindOf(KsControlType type) {
  switch (type) {
    case KsControlType::Event: return KsIdentifierKind::Event;
    case KsControlType::Method: return KsIdentifierKind::Method;
    case KsControlType::Property: break;
  }
  return KsIdentifierKind::Property;
}

}  // namespace

STDMETHODIMP KsControlsDispatcher::KsProperty(PKSPROPERTY pProperty, ULONG ulPropertyLength, LPVOID pPropertyData,
                                              ULONG ulDataLength, ULONG *pBytesReturned) {
  return WQ_GUARDED([&]() -> HRESULT {
    return OnKsProperty(pProperty, ulPropertyLength, pPropertyData, ulDataLength, pBytesReturned);
  });
}

STDMETHODIMP KsControlsDispatcher::KsMethod(PKSMETHOD pMethod, ULONG ulMethodLength, LPVOID pMethodData,
                                            ULONG ulDataLength, ULONG *pBytesReturned) {
  return WQ_GUARDED([&]() -> HRESULT {
    return OnKsMethod(pMethod, ulMethodLength, pMethodData, ulDataLength, pBytesReturned);
  });
}

STDMETHODIMP KsControlsDispatcher::KsEvent(PKSEVENT pEvent, ULONG ulEventLength, LPVOID pEventData,
                                           ULONG ulDataLength, ULONG *pBytesReturned) {
  return WQ_GUARDED([&]() -> HRESULT {
    return OnKsEvent(pEvent, ulEventLength, pEventData, ulDataLength, pBytesReturned);
  });
}

HRESULT KsControlsDispatcher::OnKsProperty(PKSPROPERTY pProperty, ULONG ulPropertyLength, LPVOID pPropertyData,
                                           ULONG ulDataLength, ULONG *pBytesReturned) {
  WQ_SCOPE_BEGIN(HRESULT);
  return Dispatch(propertiesDispathcer, KsControlType::Property, pProperty, ulPropertyLength, pPropertyData,
                  ulDataLength, pBytesReturned);
  WQ_SCOPE_END;
}

HRESULT KsControlsDispatcher::OnKsMethod(PKSMETHOD pMethod, ULONG ulMethodLength, LPVOID pMethodData,
                                         ULONG ulDataLength, ULONG *pBytesReturned) {
  WQ_SCOPE_BEGIN(HRESULT);
  return Dispatch(methodsDispathcer, KsControlType::Method, pMethod, ulMethodLength, pMethodData, ulDataLength,
                  pBytesReturned);
  WQ_SCOPE_END;
}

HRESULT KsControlsDispatcher::OnKsEvent(PKSEVENT pEvent, ULONG ulEventLength, LPVOID pEventData, ULONG ulDataLength,
                                        ULONG *pBytesReturned) {
  WQ_SCOPE_BEGIN(HRESULT);
  if (pEvent == nullptr) {
    // Disable form: the event data names the event to disable.
    return eventsDispathcer.ResetRegularEvent(pEventData);
  }
  return Dispatch(eventsDispathcer, KsControlType::Event, pEvent, ulEventLength, pEventData, ulDataLength,
                  pBytesReturned);
  WQ_SCOPE_END;
}

template <typename T>
HRESULT KsControlsDispatcher::Dispatch(const KsControlDispatcher<T> &dispatcher, KsControlType type,
                                       PKSIDENTIFIER identifier, ULONG identifierLength, LPVOID data,
                                       ULONG dataLength, ULONG *bytesReturned) {
  WQ_SCOPE_BEGIN(HRESULT);
  // An identifier too short to hold (set, id) cannot be routed; the default handler decides.
  const KSIDENTIFIER *routable =
      (identifier != nullptr && identifierLength >= sizeof(KSIDENTIFIER)) ? identifier : nullptr;
  if (user_space_frameworks::trace::IsEnabled(user_space_frameworks::TraceLevel::Verbose)) {
    WQ_TRACE(Verbose, "identifier " << HexDump(identifier, std::min(identifierLength, kIdentifierDumpBytes))
                                    << " data " << HexDump(data, dataLength));
  }

  OnKsControlEntry(type, identifier, identifierLength, data, dataLength, bytesReturned);
  T *handler = dispatcher.Find(routable);
  const HRESULT hr = handler != nullptr ? handler->Run(identifier, identifierLength, data, dataLength, bytesReturned)
                                        : HRESULT_FROM_WIN32(ERROR_SET_NOT_FOUND);
  OnKsControlExit(type, identifier, identifierLength, data, dataLength, bytesReturned, hr);

  if (hr != S_OK && user_space_frameworks::trace::IsEnabled(user_space_frameworks::FailureLevel(hr))) {
    std::ostringstream text;
    text << KsIdentifierText(KindOf(type), routable) << " failed: " << user_space_frameworks::trace::HrText(hr)
         << ", bytes returned " << (bytesReturned != nullptr ? std::to_string(*bytesReturned) : std::string("null"));
    user_space_frameworks::trace::Write(user_space_frameworks::FailureLevel(hr), WQ_HERE, text.str());
  }
  return hr;
  WQ_SCOPE_END;
}

}  // namespace mft_core
