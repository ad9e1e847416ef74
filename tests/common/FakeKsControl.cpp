#include "FakeKsControl.h"

#include <algorithm>

namespace test_support {

using mft_core::KsControlType;

void FakeKsControl::Script(std::vector<HRESULT> results) {
  std::lock_guard<std::mutex> lock(mutex);
  script.assign(results.begin(), results.end());
}

void FakeKsControl::SetResponder(Responder next) {
  std::lock_guard<std::mutex> lock(mutex);
  responder = std::move(next);
}

std::vector<FakeKsControl::Request> FakeKsControl::Requests() const {
  std::lock_guard<std::mutex> lock(mutex);
  return requests;
}

size_t FakeKsControl::CountIf(const std::function<bool(const Request &)> &predicate) const {
  std::lock_guard<std::mutex> lock(mutex);
  return static_cast<size_t>(std::count_if(requests.begin(), requests.end(), predicate));
}

HRESULT FakeKsControl::Answer(KsControlType type, PKSIDENTIFIER identifier, ULONG identifierLength, LPVOID data,
                              ULONG dataLength, ULONG *bytesReturned) {
  Request request{};
  request.type = type;
  request.hasIdentifier = identifier != nullptr;
  if (identifier != nullptr) {
    request.set = identifier->Set;
    request.id = identifier->Id;
    request.flags = identifier->Flags;
  }
  request.identifier = identifier;
  request.identifierLength = identifierLength;
  request.data = data;
  request.dataLength = dataLength;
  request.bytesReturned = bytesReturned;
  if (type == KsControlType::Event && data != nullptr && dataLength >= sizeof(KSEVENTDATA)) {
    request.eventHandle = static_cast<KSEVENTDATA *>(data)->EventHandle.Event;
  }
  Responder current;
  HRESULT scripted = S_OK;
  bool hasScripted = false;
  {
    std::lock_guard<std::mutex> lock(mutex);
    requests.push_back(request);
    if (!script.empty()) {
      scripted = script.front();
      script.pop_front();
      hasScripted = true;
    }
    current = responder;
  }
  if (hasScripted) return scripted;
  return current ? current(request) : S_OK;
}

STDMETHODIMP FakeKsControl::KsProperty(PKSPROPERTY Property, ULONG PropertyLength, LPVOID PropertyData,
                                       ULONG DataLength, ULONG *BytesReturned) {
  return Answer(KsControlType::Property, Property, PropertyLength, PropertyData, DataLength, BytesReturned);
}

STDMETHODIMP FakeKsControl::KsMethod(PKSMETHOD Method, ULONG MethodLength, LPVOID MethodData, ULONG DataLength,
                                     ULONG *BytesReturned) {
  return Answer(KsControlType::Method, Method, MethodLength, MethodData, DataLength, BytesReturned);
}

STDMETHODIMP FakeKsControl::KsEvent(PKSEVENT Event, ULONG EventLength, LPVOID EventData, ULONG DataLength,
                                    ULONG *BytesReturned) {
  return Answer(KsControlType::Event, Event, EventLength, EventData, DataLength, BytesReturned);
}

}  // namespace test_support
