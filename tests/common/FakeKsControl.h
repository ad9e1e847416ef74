// A driver's IKsControl for tests: records every request and answers with a scripted result or a
// responder. Thread-safe (driver events arrive on work-queue threads).
#pragma once

#include <deque>
#include <functional>
#include <mutex>
#include <vector>

#include "mft_core/ks/KsControlsObserver.h"
#include "platform/WindowsSdk.h"
#include "user_space_frameworks/ComObject.h"

namespace test_support {

class FakeKsControl : public user_space_frameworks::ComObject<IKsControl> {
 public:
  struct Request {
    mft_core::KsControlType type;
    bool hasIdentifier;
    GUID set;
    ULONG id;
    ULONG flags;
    PKSIDENTIFIER identifier;
    ULONG identifierLength;
    LPVOID data;
    ULONG dataLength;
    ULONG *bytesReturned;
    HANDLE eventHandle;  // KSEVENTDATA's handle for event requests with event data, else null
  };
  using Responder = std::function<HRESULT(const Request &request)>;

  // Results used one per request, in order, before the responder (or S_OK) answers.
  void Script(std::vector<HRESULT> results);
  void SetResponder(Responder responder);

  std::vector<Request> Requests() const;
  size_t CountIf(const std::function<bool(const Request &)> &predicate) const;
  size_t Count(mft_core::KsControlType type) const {
    return CountIf([type](const Request &r) { return r.type == type; });
  }
  // Event requests without an identifier: the disable form.
  size_t DisableCount() const {
    return CountIf([](const Request &r) { return r.type == mft_core::KsControlType::Event && !r.hasIdentifier; });
  }
  size_t EnableCount() const {
    return CountIf([](const Request &r) {
      return r.type == mft_core::KsControlType::Event && r.hasIdentifier && (r.flags & KSEVENT_TYPE_ENABLE);
    });
  }

  STDMETHODIMP KsProperty(PKSPROPERTY Property, ULONG PropertyLength, LPVOID PropertyData, ULONG DataLength,
                          ULONG *BytesReturned) override;
  STDMETHODIMP KsMethod(PKSMETHOD Method, ULONG MethodLength, LPVOID MethodData, ULONG DataLength,
                        ULONG *BytesReturned) override;
  STDMETHODIMP KsEvent(PKSEVENT Event, ULONG EventLength, LPVOID EventData, ULONG DataLength,
                       ULONG *BytesReturned) override;

 private:
  HRESULT Answer(mft_core::KsControlType type, PKSIDENTIFIER identifier, ULONG identifierLength, LPVOID data,
                 ULONG dataLength, ULONG *bytesReturned);

  mutable std::mutex mutex;
  std::deque<HRESULT> script;
  Responder responder;
  std::vector<Request> requests;
};

}  // namespace test_support
