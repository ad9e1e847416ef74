// Observers of KS requests: told of each request before it is handled and after, with the result.
#pragma once

#include <algorithm>
#include <memory>
#include <vector>

#include "platform/WindowsSdk.h"
#include "user_space_frameworks/Object.h"

namespace mft_core {

// The kind of a KS request as told to observers.
enum class KsControlType : int { Event = 0, Property = 1, Method = 2 };

class IKsControlsObserver {
 public:
  virtual ~IKsControlsObserver() = default;
  virtual void OnKsControlEntry(KsControlType type, PKSIDENTIFIER identifier, ULONG identifierLength, LPVOID data,
                                ULONG dataLength, ULONG *bytesReturned) = 0;
  virtual void OnKsControlExit(KsControlType type, PKSIDENTIFIER identifier, ULONG identifierLength, LPVOID data,
                               ULONG dataLength, ULONG *bytesReturned, HRESULT result) = 0;
};

// Tells every observer, in registration order. The list is set up before requests flow (recording is
// switched on at initialisation), so it is read without a lock.
class KsControlsSubject : public virtual user_space_frameworks::Object {
 public:
  void AddKsControlsObserver(std::shared_ptr<IKsControlsObserver> observer) {
    if (observer) ksControlsObservers.push_back(std::move(observer));
  }
  void RemoveKsControlsObserver(const std::shared_ptr<IKsControlsObserver> &observer) {
    ksControlsObservers.erase(std::remove(ksControlsObservers.begin(), ksControlsObservers.end(), observer),
                              ksControlsObservers.end());
  }

  void OnKsControlEntry(KsControlType type, PKSIDENTIFIER identifier, ULONG identifierLength, LPVOID data,
                        ULONG dataLength, ULONG *bytesReturned) {
    for (const auto &observer : ksControlsObservers) {
      observer->OnKsControlEntry(type, identifier, identifierLength, data, dataLength, bytesReturned);
    }
  }
  void OnKsControlExit(KsControlType type, PKSIDENTIFIER identifier, ULONG identifierLength, LPVOID data,
                       ULONG dataLength, ULONG *bytesReturned, HRESULT result) {
    for (const auto &observer : ksControlsObservers) {
      observer->OnKsControlExit(type, identifier, identifierLength, data, dataLength, bytesReturned, result);
    }
  }

 private:
  std::vector<std::shared_ptr<IKsControlsObserver>> ksControlsObservers;
};

}  // namespace mft_core
