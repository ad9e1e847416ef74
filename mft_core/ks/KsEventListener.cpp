#include "mft_core/ks/KsEventListener.h"

#include <algorithm>

#include "mft_core/ks/KsControlHandlers.h"
#include "user_space_frameworks/Check.h"
#include "user_space_frameworks/ExceptionGuard.h"
#include "user_space_frameworks/NameMap.h"
#include "user_space_frameworks/Trace.h"
#include "user_space_frameworks/TraceScope.h"

namespace mft_core {

using user_space_frameworks::AutoLock;

// What the platform's work items hold instead of the listener itself. The platform may keep a finished
// or cancelled work item's result for as long as it likes (Wine keeps a cancelled waiting item's); were the
// listener the result's callback, that would keep the listener and, through it, the driver's control.
class KsEventListener::CallbackRelay : public user_space_frameworks::ComObject<IMFAsyncCallback> {
 public:
  explicit CallbackRelay(std::weak_ptr<KsEventListener> listener) : listener(std::move(listener)) {}
  STDMETHODIMP GetParameters(DWORD *pdwFlags, DWORD *pdwQueue) override {
    if (const auto owner = listener.lock()) return owner->GetParameters(pdwFlags, pdwQueue);
    RETURN_IF_NULL(pdwFlags);
    RETURN_IF_NULL(pdwQueue);
    *pdwFlags = MFASYNC_FAST_IO_PROCESSING_CALLBACK;
    *pdwQueue = MFASYNC_CALLBACK_QUEUE_STANDARD;
    return S_OK;
  }
  STDMETHODIMP Invoke(IMFAsyncResult *pAsyncResult) override {
    // A listener already let go has nothing left to do with a late completion.
    if (const auto owner = listener.lock()) return owner->Invoke(pAsyncResult);
    return S_OK;
  }

 private:
  std::weak_ptr<KsEventListener> listener;
};

std::shared_ptr<KsEventListener> KsEventListener::Own(KsEventListener *listener) {
  std::shared_ptr<KsEventListener> owned(listener, [](KsEventListener *unowned) {
    // No completion reaches a listener no owner holds (the relay finds it gone): its stop cannot wait for one.
    unowned->ownersGone = true;
    unowned->Uninit();
    unowned->Release();
  });
  listener->relay = user_space_frameworks::MakeComObject<CallbackRelay>(owned);
  return owned;
}

std::shared_ptr<KsEventListener> KsEventListener::Create(const std::string &name, REFGUID eventSet, ULONG eventId,
                                                         std::shared_ptr<IDeviceEventsRecorder> recorder) {
  WQ_SCOPE();
  return Own(new KsEventListener(name, eventSet, eventId, std::move(recorder),
                                 std::make_shared<mft_utils::MFPutWaitingWorkItemWrapper>(kWorkItemPriority)));
}

std::shared_ptr<KsEventListener> KsEventListener::Create(
    const std::string &name, REFGUID eventSet, ULONG eventId, std::shared_ptr<IDeviceEventsRecorder> recorder,
    std::shared_ptr<mft_utils::WaitWorkItemWrapper> workItemWrapper) {
  WQ_SCOPE();
  if (!workItemWrapper) return nullptr;
  return Own(new KsEventListener(name, eventSet, eventId, std::move(recorder), std::move(workItemWrapper)));
}

KsEventListener::KsEventListener(const std::string &name, REFGUID eventSet, ULONG eventId,
                                 std::shared_ptr<IDeviceEventsRecorder> recorder,
                                 std::shared_ptr<mft_utils::WaitWorkItemWrapper> workItemWrapper)
    : name(name), eventId(eventId), eventSet(eventSet), recorder(std::move(recorder)),
      workItemWrapper(std::move(workItemWrapper)) {}

KsEventListener::~KsEventListener() = default;

const char *KsEventListener::StateText(LONG state) {
  static const user_space_frameworks::NameMap<LONG> names = {
      {Stopped, "Stopped"}, {Starting, "Starting"}, {Active, "Active"}, {Stopping, "Stopping"}};
  return names[state];
}

HRESULT KsEventListener::Init(IKsControl *ksControl) {
  WQ_SCOPE_BEGIN(HRESULT);
  this->ksControl = ksControl;
  stopCompleted.Reset(CreateEventW(nullptr, FALSE, FALSE, nullptr));
  const HANDLE stopCompletedEvent = stopCompleted.Get();
  RETURN_HR_IF_NULL(E_OUTOFMEMORY, stopCompletedEvent);
  kseventdata.NotificationType = KSEVENTF_EVENT_HANDLE;
  notificationEvent.Reset(CreateEventW(nullptr, FALSE, FALSE, nullptr));
  kseventdata.EventHandle.Event = notificationEvent.Get();
  kseventdata.EventHandle.Reserved[0] = 0;
  kseventdata.EventHandle.Reserved[1] = 0;
  RETURN_HR_IF_NULL(E_OUTOFMEMORY, kseventdata.EventHandle.Event);
  asyncResult.Reset();
  RETURN_HR_IF_NULL(E_OUTOFMEMORY, relay);
  RETURN_IF_FAILED(MFCreateAsyncResult(nullptr, relay.Get(), nullptr, &asyncResult));
  return S_OK;
  WQ_SCOPE_END;
}

void KsEventListener::Uninit() {
  WQ_SCOPE();
  AutoLock transition(startStopLock);
  LONG remaining = 0;
  {
    AutoLock lock(critSec);
    if (state != Stopped) WQ_TRACE(Warning, name << ": uninitialised in state " << StateText(state));
    remaining = startCount;
  }
  for (; remaining > 0; --remaining) Stop();
  // A late Invoke reads the result and the handles under the lock: they go under it too.
  AutoLock lock(critSec);
  asyncResult.Reset();
  kseventdata.EventHandle.Event = nullptr;
  notificationEvent.Reset();
  stopCompleted.Reset();
}

HRESULT KsEventListener::Start() {
  WQ_SCOPE_BEGIN(HRESULT);
  AutoLock transition(startStopLock);
  AutoLock lock(critSec);
  const HANDLE stopCompletedEvent = stopCompleted.Get();
  RETURN_HR_IF_NULL(E_OUTOFMEMORY, stopCompletedEvent);
  RETURN_HR_IF_NULL(E_OUTOFMEMORY, kseventdata.EventHandle.Event);
  RETURN_HR_IF_NULL(E_OUTOFMEMORY, asyncResult);

  // Every start counts, even one that fails below: its caller's Stop gives it back.
  ++startCount;
  // No Start sees Starting or Stopping: both live only inside a Start or Stop, which are serialised.
  if (state == Active) {
    WQ_TRACE(Info, name << ": already started, state " << StateText(state) << ", count " << startCount);
    return S_OK;
  }
  if (startCount >= 2) {
    WQ_TRACE(Warning, name << ": arming again after a failed start, count " << startCount);
  }
  state = Starting;
  const HRESULT armed = WaitAsyncForNotification();
  if (FAILED(armed)) {
    // Nothing is armed: the next Start tries again rather than finding the listener stuck in Starting.
    state = Stopped;
    RETURN_IF_FAILED(armed);
  }
  state = Active;
  failedWaits = 0;
  KSEVENT event{};
  event.Set = eventSet;
  event.Id = eventId;
  event.Flags = KSEVENT_TYPE_ENABLE;
  ULONG bytesReturned = 0;
  RETURN_IF_FAILED(ksControl->KsEvent(&event, sizeof(KSEVENT), &kseventdata, sizeof(KSEVENTDATA), &bytesReturned));
  return S_OK;
  WQ_SCOPE_END;
}

HRESULT KsEventListener::WaitAsyncForNotification() {
  WQ_SCOPE_BEGIN(HRESULT);
  // Each wait gets its own result so that Invoke can tell the current wait from an earlier one that
  // the platform still delivers (a wait that fired while being cancelled may be invoked twice).
  Microsoft::WRL::ComPtr<IMFAsyncResult> nextResult;
  RETURN_IF_FAILED(MFCreateAsyncResult(nullptr, relay.Get(), nullptr, &nextResult));
  asyncResult = nextResult;
  RETURN_IF_FAILED(workItemWrapper->WaitAsync(kseventdata.EventHandle.Event, asyncResult.Get(), relay.Get()));
  return S_OK;
  WQ_SCOPE_END;
}

void KsEventListener::Stop() {
  WQ_SCOPE();
  AutoLock transition(startStopLock);
  {
    AutoLock lock(critSec);
    if (startCount <= 0) {
      WQ_TRACE(Warning, name << ": stop without start, state " << StateText(state));
      return;
    }
    --startCount;
    if (startCount >= 1) {
      WQ_TRACE(Info, name << ": still started, state " << StateText(state) << ", count " << startCount);
      return;
    }
    if (state != Active) {
      // The start that counted never armed a wait: there is nothing to stop.
      WQ_TRACE(Warning, name << ": last stop in state " << StateText(state));
      return;
    }
    state = Stopping;
    // Only one completion of this stop may end the wait below: a wait that fires while it is being
    // cancelled can be invoked once for the signal and once more for the cancellation.
    stopCompletionPending = true;
    ResetEvent(stopCompleted.Get());
    LOG_IF_FAILED(workItemWrapper->Cancel());
  }

  // Where cancelling invokes the callback, Invoke completes the stop at once; where it does not, the
  // wait runs out and the event is disabled here instead. Uninit, the only closer of this handle, is
  // excluded by startStopLock. A released listener is past every Invoke (the relay lets none in), so it
  // disables at once; its last owner may be a work-queue thread leaving Invoke.
  const DWORD waitResult = ownersGone ? WAIT_OBJECT_0 : WaitForSingleObject(stopCompleted.Get(), kStopTimeoutMs);
  if (waitResult == WAIT_TIMEOUT) {
    WQ_TRACE(Error, name << ": stop did not complete within " << kStopTimeoutMs << " ms");
  } else if (waitResult != WAIT_OBJECT_0) {
    WQ_TRACE(Error, name << ": waiting for the stop failed, " << waitResult << ", error " << GetLastError());
  }
  AutoLock lock(critSec);
  if (stopCompletionPending && ksControl) {
    ULONG bytesReturned = 0;
    LOG_IF_FAILED(ksControl->KsEvent(nullptr, 0, &kseventdata, sizeof(kseventdata), &bytesReturned));
  }
  stopCompletionPending = false;
  state = Stopped;
}

void KsEventListener::RegisterObserver(std::shared_ptr<KsEventsObserver> observer) {
  WQ_SCOPE();
  AutoLock lock(critSec);
  observers.push_back(std::move(observer));
}

void KsEventListener::UnregisterObserver(std::shared_ptr<KsEventsObserver> observer) {
  WQ_SCOPE();
  AutoLock lock(critSec);
  observers.erase(std::remove(observers.begin(), observers.end(), observer), observers.end());
}

void KsEventListener::SetWorkQueue(std::shared_ptr<const WorkQueueAssignment> assignment) {
  std::atomic_store(&workQueue, std::move(assignment));
}

KsEventListener::State KsEventListener::GetState() {
  WQ_SCOPE();
  AutoLock lock(critSec);
  return static_cast<State>(state);
}

LONG KsEventListener::GetStartCount() {
  WQ_SCOPE();
  AutoLock lock(critSec);
  return startCount;
}

STDMETHODIMP KsEventListener::GetParameters(DWORD *pdwFlags, DWORD *pdwQueue) {
  WQ_SCOPE_BEGIN(HRESULT);
  RETURN_IF_NULL(pdwFlags);
  RETURN_IF_NULL(pdwQueue);
  *pdwFlags = MFASYNC_FAST_IO_PROCESSING_CALLBACK;
  // Never the undefined queue 0: Wine's Media Foundation (8.x) does not dispatch a waiting work item
  // whose callback asks for it, neither on signal nor on cancel, while Windows does. A real queue (the
  // frame server's, else the standard one) is delivered by both.
  const auto assignment = std::atomic_load(&workQueue);
  *pdwQueue = assignment ? assignment->GetCallbackQueue() : MFASYNC_CALLBACK_QUEUE_STANDARD;
  return S_OK;
  WQ_SCOPE_END;
}

STDMETHODIMP KsEventListener::Invoke(IMFAsyncResult *pAsyncResult) {
  return WQ_GUARDED([&]() -> HRESULT {
    if (pAsyncResult == nullptr) return E_POINTER;
    // A cancelled wait is not a driver notification.
    const HRESULT status = pAsyncResult->GetStatus();
    const bool signalled = SUCCEEDED(status);
    DWORD rearmDelayMs = 0;
    bool notify = false;
    {
      AutoLock lock(critSec);
      if (pAsyncResult != asyncResult.Get()) {
        WQ_TRACE(Verbose, name << ": completion of an earlier wait ignored in state " << StateText(state));
        return S_OK;
      }
      if (state == Active) {
        if (signalled) {
          failedWaits = 0;
          notify = true;
        } else {
          // The wait failed, so whether the driver signalled is unknown: observers are told once (they
          // read the camera's state), and the wait is armed again after a pause that grows up to a bound.
          ++failedWaits;
          notify = failedWaits == 1;
          rearmDelayMs = kFirstRearmDelayMs << std::min<DWORD>(failedWaits - 1, 7);
          if (rearmDelayMs > kMaxRearmDelayMs) rearmDelayMs = kMaxRearmDelayMs;
          WQ_TRACE(Warning, name << ": wait completed with " << user_space_frameworks::trace::HrText(status)
                                 << ", armed again in " << rearmDelayMs << " ms");
        }
      }
    }
    // Recorded where it is delivered: a cancelled or stale wait is not a driver event.
    if (signalled && notify && recorder) recorder->RecordDriverEvent(eventSet, eventId);
    if (notify) NotifyObservers();
    if (rearmDelayMs != 0) Sleep(rearmDelayMs);

    AutoLock lock(critSec);
    // A Stop or Uninit may have run meanwhile: only the current wait may act.
    if (pAsyncResult != asyncResult.Get()) return S_OK;
    switch (state) {
      case Active:
        RETURN_IF_FAILED(WaitAsyncForNotification());
        return S_OK;
      case Stopping: {
        if (!stopCompletionPending) return S_OK;
        stopCompletionPending = false;
        ULONG bytesReturned = 0;
        LOG_IF_FAILED(ksControl->KsEvent(nullptr, 0, &kseventdata, sizeof(kseventdata), &bytesReturned));
        SetEvent(stopCompleted.Get());
        return S_OK;
      }
      default:
        WQ_TRACE(Error, name << ": notified in state " << StateText(state));
        return E_UNEXPECTED;
    }
  });
}

void KsEventListener::NotifyObservers() {
  WQ_SCOPE();
  std::vector<std::shared_ptr<KsEventsObserver>> snapshot;
  {
    AutoLock lock(critSec);
    if (state == Active) snapshot = observers;
  }
  // Outside the lock: an observer may call back into the listener.
  for (const auto &observer : snapshot) {
    user_space_frameworks::ExceptionGuard(WQ_HERE, [&]() -> HRESULT {
      observer->OnEvent(eventSet, eventId);
      return S_OK;
    });
  }
}

}  // namespace mft_core
