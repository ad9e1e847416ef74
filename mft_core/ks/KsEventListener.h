// Subscribes to one KS event of the driver filter and tells its observers each time the driver signals
// it. Waiting is done by the platform's waiting work items, not by a thread of our own.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "mft_core/ks/DeviceEventsRecorder.h"
#include "mft_core/ks/WaitWorkItemWrapper.h"
#include "mft_core/ks/WorkQueueAssignment.h"
#include "platform/WindowsSdk.h"
#include "user_space_frameworks/ComObject.h"
#include "user_space_frameworks/Object.h"
#include "user_space_frameworks/Sync.h"

namespace mft_core {

class KsEventsObserver {
 public:
  virtual void OnEvent(REFGUID eventSet, ULONG eventId) = 0;
  virtual ~KsEventsObserver() = default;
};

class KsEventListener : public user_space_frameworks::ComObject<IMFAsyncCallback>,
                        public virtual user_space_frameworks::Object {
 public:
  enum State : LONG { Stopped = 0, Starting = 1, Active = 2, Stopping = 3 };
  static constexpr LONG kWorkItemPriority = 5;
  static constexpr DWORD kStopTimeoutMs = 5000;
  // A wait that completes with a failure is armed again after a pause that doubles up to this bound.
  static constexpr DWORD kFirstRearmDelayMs = 10;
  static constexpr DWORD kMaxRearmDelayMs = 1000;

  // The listener is reference counted (pending work items hold it); the shared pointer owns one
  // reference and uninitialises the listener when the last owner lets go.
  static std::shared_ptr<KsEventListener> Create(const std::string &name, REFGUID eventSet, ULONG eventId,
                                                 std::shared_ptr<IDeviceEventsRecorder> recorder = nullptr);
  static std::shared_ptr<KsEventListener> Create(const std::string &name, REFGUID eventSet, ULONG eventId,
                                                 std::shared_ptr<IDeviceEventsRecorder> recorder,
                                                 std::shared_ptr<mft_utils::WaitWorkItemWrapper> workItemWrapper);

  const char *GetTraceName() const override { return name.c_str(); }

  HRESULT Init(IKsControl *ksControl);
  void Uninit();
  HRESULT Start();
  void Stop();
  void RegisterObserver(std::shared_ptr<KsEventsObserver> observer);
  void UnregisterObserver(std::shared_ptr<KsEventsObserver> observer);
  // Work items are queued on the transform's assigned work queue once the frame server has given one.
  void SetWorkQueue(std::shared_ptr<const WorkQueueAssignment> assignment);

  State GetState();
  LONG GetStartCount();

  // IMFAsyncCallback
  STDMETHODIMP GetParameters(DWORD *pdwFlags, DWORD *pdwQueue) override;
  STDMETHODIMP Invoke(IMFAsyncResult *pAsyncResult) override;

  HRESULT WaitAsyncForNotification();

 protected:
  KsEventListener(const std::string &name, REFGUID eventSet, ULONG eventId,
                  std::shared_ptr<IDeviceEventsRecorder> recorder,
                  std::shared_ptr<mft_utils::WaitWorkItemWrapper> workItemWrapper);
  ~KsEventListener() override;

  virtual void NotifyObservers();

 private:
  static const char *StateText(LONG state);
  static std::shared_ptr<KsEventListener> Own(KsEventListener *listener);
  class CallbackRelay;

  std::string name;
  LONG state = Stopped;
  std::vector<std::shared_ptr<KsEventsObserver>> observers;
  Microsoft::WRL::ComPtr<IKsControl> ksControl;
  KSEVENTDATA kseventdata{};
  user_space_frameworks::UniqueHandle notificationEvent;  // owns kseventdata.EventHandle.Event
  Microsoft::WRL::ComPtr<IMFAsyncResult> asyncResult;
  user_space_frameworks::CriticalSection critSec;
  // Serialises Start, Stop and Uninit, and is held across the stop's wait: a Start that arrives while the
  // last Stop waits for its completion starts afresh once that stop is over instead of being refused.
  // Invoke never takes it. Order: startStopLock before critSec.
  user_space_frameworks::CriticalSection startStopLock;
  ULONG eventId;
  GUID eventSet;
  user_space_frameworks::UniqueHandle stopCompleted;  // the stop-completed event
  std::shared_ptr<IDeviceEventsRecorder> recorder;
  std::shared_ptr<mft_utils::WaitWorkItemWrapper> workItemWrapper;
  LONG startCount = 0;
  bool stopCompletionPending = false;
  bool ownersGone = false;  // set by the last owner, before the final Uninit
  DWORD failedWaits = 0;  // consecutive waits that completed with a failure while Active
  std::shared_ptr<const WorkQueueAssignment> workQueue;
  // The callback of every work item: it reaches the listener only while an owner still holds it.
  Microsoft::WRL::ComPtr<IMFAsyncCallback> relay;
};

}  // namespace mft_core
