// The transform's IKsControl: routes each KS request by (set, id) to the first registered handler that
// claims it, else to the kind's default handler.
#pragma once

#include <memory>
#include <vector>

#include "mft_core/ks/KsControlHandlers.h"
#include "mft_core/ks/KsControlsObserver.h"
#include "platform/WindowsSdk.h"
#include "user_space_frameworks/Check.h"
#include "user_space_frameworks/TraceScope.h"

namespace mft_core {

// Handlers of one kind, in registration order, plus an optional default. Filled during initialisation
// and only read afterwards, so requests read it without a lock.
// The transform's registration operations trace a refusal; the list itself only answers.
template <typename T>
class KsControlDispatcher {
 public:
  HRESULT RegisterHandler(const std::shared_ptr<T> &handler) {
    if (!handler) return E_INVALIDARG;
    for (const auto &registered : handlers) {
      if (registered->IsSameControl(*handler)) return E_FAIL;
    }
    handlers.push_back(handler);
    return S_OK;
  }

  HRESULT RegisterDefaultHandler(const std::shared_ptr<T> &handler) {
    if (!handler) return E_INVALIDARG;
    defaultHandler = handler;
    return S_OK;
  }

  // First match in registration order, else the default (may be empty).
  T *Find(const KSIDENTIFIER *identifier) const {
    for (const auto &handler : handlers) {
      if (handler->IsMatch(identifier)) return handler.get();
    }
    return defaultHandler.get();
  }

  const std::vector<std::shared_ptr<T>> &GetHandlers() const { return handlers; }

 protected:
  std::vector<std::shared_ptr<T>> handlers;
  std::shared_ptr<T> defaultHandler;
};

class KsEventsDispatcher : public KsControlDispatcher<KsEventHandler> {
 public:
  // Disable-event form: the first handler that armed `eventData` releases it.
  HRESULT ResetRegularEvent(LPVOID eventData) {
    for (const auto &handler : handlers) {
      if (handler->AttemptToResetRegularEvent(eventData) == S_OK) return S_OK;
    }
    return HRESULT_FROM_WIN32(ERROR_NOT_FOUND);
  }
};

// IUnknown is the most-derived class's (the transform's).
class KsControlsDispatcher : public IKsControl, public KsControlsSubject {
 public:
  STDMETHODIMP KsProperty(PKSPROPERTY pProperty, ULONG ulPropertyLength, LPVOID pPropertyData, ULONG ulDataLength,
                          ULONG *pBytesReturned) override;
  STDMETHODIMP KsMethod(PKSMETHOD pMethod, ULONG ulMethodLength, LPVOID pMethodData, ULONG ulDataLength,
                        ULONG *pBytesReturned) override;
  STDMETHODIMP KsEvent(PKSEVENT pEvent, ULONG ulEventLength, LPVOID pEventData, ULONG ulDataLength,
                       ULONG *pBytesReturned) override;

  // A second handler of the same (set, id) is refused; a default replaces the kind's previous one.
  HRESULT RegisterKsPropertyHandler(const std::shared_ptr<KsPropHandler> &handler) {
    WQ_SCOPE_BEGIN(HRESULT);
    RETURN_IF_FAILED(propertiesDispathcer.RegisterHandler(handler));
    return S_OK;
    WQ_SCOPE_END;
  }
  HRESULT RegisterKsEventHandler(const std::shared_ptr<KsEventHandler> &handler) {
    WQ_SCOPE_BEGIN(HRESULT);
    RETURN_IF_FAILED(eventsDispathcer.RegisterHandler(handler));
    return S_OK;
    WQ_SCOPE_END;
  }
  HRESULT RegisterKsMethodHandler(const std::shared_ptr<KsMethodHandler> &handler) {
    WQ_SCOPE_BEGIN(HRESULT);
    RETURN_IF_FAILED(methodsDispathcer.RegisterHandler(handler));
    return S_OK;
    WQ_SCOPE_END;
  }
  HRESULT RegisterKsPropertyDefaultHandler(const std::shared_ptr<KsPropHandler> &handler) {
    WQ_SCOPE_BEGIN(HRESULT);
    RETURN_IF_FAILED(propertiesDispathcer.RegisterDefaultHandler(handler));
    return S_OK;
    WQ_SCOPE_END;
  }
  HRESULT RegisterKsEventDefaultHandler(const std::shared_ptr<KsEventHandler> &handler) {
    WQ_SCOPE_BEGIN(HRESULT);
    RETURN_IF_FAILED(eventsDispathcer.RegisterDefaultHandler(handler));
    return S_OK;
    WQ_SCOPE_END;
  }
  HRESULT RegisterKsMethodDefaultHandler(const std::shared_ptr<KsMethodHandler> &handler) {
    WQ_SCOPE_BEGIN(HRESULT);
    RETURN_IF_FAILED(methodsDispathcer.RegisterDefaultHandler(handler));
    return S_OK;
    WQ_SCOPE_END;
  }

 protected:
  virtual HRESULT OnKsEvent(PKSEVENT pEvent, ULONG ulEventLength, LPVOID pEventData, ULONG ulDataLength,
                            ULONG *pBytesReturned);
  virtual HRESULT OnKsProperty(PKSPROPERTY pProperty, ULONG ulPropertyLength, LPVOID pPropertyData,
                               ULONG ulDataLength, ULONG *pBytesReturned);
  virtual HRESULT OnKsMethod(PKSMETHOD pMethod, ULONG ulMethodLength, LPVOID pMethodData, ULONG ulDataLength,
                             ULONG *pBytesReturned);

  KsControlDispatcher<KsPropHandler> propertiesDispathcer;
  KsEventsDispatcher eventsDispathcer;
  KsControlDispatcher<KsMethodHandler> methodsDispathcer;

 private:
  template <typename T>
  HRESULT Dispatch(const KsControlDispatcher<T> &dispatcher, KsControlType type, PKSIDENTIFIER identifier,
                   ULONG identifierLength, LPVOID data, ULONG dataLength, ULONG *bytesReturned);
};

}  // namespace mft_core
