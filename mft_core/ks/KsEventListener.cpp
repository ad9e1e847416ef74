#include "mft_core/ks/KsEventListener.h"

#include <algorithm>

#include "mft_core/ks/KsControlHandlers.h"
#include "user_space_frameworks/Check.h"
#include "user_space_frameworks/ExceptionGuard.h"
#include "user_space_frameworks/Trace.h"

namespace mft_core {

using user_space_frameworks::AutoLock;

std::shared_ptr<KsEventListener> KsEventListener::Own(KsEventListener *listener) {
  return std::shared_ptr<KsEventListener>(listener, [](KsEventListener *owned) {
    owned->Uninit();
    owned->Release();
  });
}

std::shared_ptr<KsEventListener> KsEventListener::Create(const std::string &name, REFGUID eventSet, ULONG eventId,
                                                         std::shared_ptr<IDeviceEventsRecorder> recorder) {
  return Own(new KsEventListener(name, eventSet, eventId, std::move(recorder),
                                 std::make_shared<mft_utils::MFPutWaitingWorkItemWrapper>(kWorkItemPriority)));
}

std::shared_ptr<KsEventListener> KsEventListener::Create(
    const std::string &name, REFGUID eventSet, ULONG eventId, std::shared_ptr<IDeviceEventsRecorder> recorder,
    std::shared_ptr<mft_utils::WaitWorkItemWrapper> workItemWrapper) {
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
  switch (state) {
    case Stopped: return "Stopped";
    case Starting: return "Starting";
    case Active: return "Active";
    case Stopping: return "Stopping";
  }
  return "Unknown";
}

HRESULT KsEventListener::Init(IKsControl *ksControl) {
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
  RETURN_IF_FAILED(MFCreateAsyncResult(nullptr, this, nullptr, &asyncResult));
  return S_OK;
}

void KsEventListener::Uninit() {
  LONG remaining = 0;
  {
    AutoLock lock(critSec);
    if (state != Stopped) WQ_TRACE(Warning, name << ": uninitialised in state " << StateText(state));
    remaining = startCount;
  }
  for (; remaining > 0; --remaining) Stop();
  // The result holds a reference to this listener; letting it go breaks the cycle.
  asyncResult.Reset();
  kseventdata.EventHandle.Event = nullptr;
  notificationEvent.Reset();
  stopCompleted.Reset();
}

HRESULT KsEventListener::Start() {
  const HANDLE stopCompletedEvent = stopCompleted.Get();
  RETURN_HR_IF_NULL(E_OUTOFMEMORY, stopCompletedEvent);
  RETURN_HR_IF_NULL(E_OUTOFMEMORY, kseventdata.EventHandle.Event);
  RETURN_HR_IF_NULL(E_OUTOFMEMORY, asyncResult);

  AutoLock lock(critSec);
  ++startCount;
  if (startCount >= 2) {
    WQ_TRACE(Info, name << ": already started, state " << StateText(state) << ", count " << startCount);
    return S_OK;
  }
  if (state != Stopped) {
    WQ_TRACE(Error, name << ": cannot start in state " << StateText(state));
    // Refused: this start does not count, so the caller's later Stop stays balanced.
    --startCount;
    return E_UNEXPECTED;
  }
  state = Starting;
  RETURN_IF_FAILED(WaitAsyncForNotification());
  state = Active;
  KSEVENT event{};
  event.Set = eventSet;
  event.Id = eventId;
  event.Flags = KSEVENT_TYPE_ENABLE;
  ULONG bytesReturned = 0;
  RETURN_IF_FAILED(ksControl->KsEvent(&event, sizeof(KSEVENT), &kseventdata, sizeof(KSEVENTDATA), &bytesReturned));
  return S_OK;
}

HRESULT KsEventListener::WaitAsyncForNotification() {
  // Each wait gets its own result so that Invoke can tell the current wait from an earlier one that
  // the platform still delivers (a wait that fired while being cancelled may be invoked twice).
  Microsoft::WRL::ComPtr<IMFAsyncResult> nextResult;
  RETURN_IF_FAILED(MFCreateAsyncResult(nullptr, this, nullptr, &nextResult));
  asyncResult = nextResult;
  RETURN_IF_FAILED(workItemWrapper->WaitAsync(kseventdata.EventHandle.Event, asyncResult.Get(), this));
  return S_OK;
}

void KsEventListener::Stop() {
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
      WQ_TRACE(Error, name << ": unexpected stop in state " << StateText(state));
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
  // wait runs out and the event is disabled here instead.
  const DWORD waitResult = WaitForSingleObject(stopCompleted.Get(), kStopTimeoutMs);
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
  AutoLock lock(critSec);
  observers.push_back(std::move(observer));
}

void KsEventListener::UnregisterObserver(std::shared_ptr<KsEventsObserver> observer) {
  AutoLock lock(critSec);
  observers.erase(std::remove(observers.begin(), observers.end(), observer), observers.end());
}

void KsEventListener::SetWorkQueue(std::shared_ptr<const WorkQueueAssignment> assignment) {
  std::atomic_store(&workQueue, std::move(assignment));
}

KsEventListener::State KsEventListener::GetState() {
  AutoLock lock(critSec);
  return static_cast<State>(state);
}

LONG KsEventListener::GetStartCount() {
  AutoLock lock(critSec);
  return startCount;
}

STDMETHODIMP KsEventListener::GetParameters(DWORD *pdwFlags, DWORD *pdwQueue) {
  RETURN_IF_NULL(pdwFlags);
  RETURN_IF_NULL(pdwQueue);
  *pdwFlags = MFASYNC_FAST_IO_PROCESSING_CALLBACK;
  // Never the undefined queue 0: Wine's Media Foundation (8.x) does not dispatch a waiting work item
  // whose callback asks for it, neither on signal nor on cancel, while Windows does. A real queue (the
  // frame server's, else the standard one) is delivered by both.
  const auto assignment = std::atomic_load(&workQueue);
  *pdwQueue = assignment ? assignment->GetCallbackQueue() : MFASYNC_CALLBACK_QUEUE_STANDARD;
  return S_OK;
}

STDMETHODIMP KsEventListener::Invoke(IMFAsyncResult *pAsyncResult) {
  return WQ_GUARDED([&]() -> HRESULT {
    {
      AutoLock lock(critSec);
      if (pAsyncResult == nullptr || pAsyncResult != asyncResult.Get()) {
        WQ_TRACE(Warning, name << ": completion of an earlier wait ignored in state " << StateText(state));
        return S_OK;
      }
    }
    // A cancelled wait is not a driver notification.
    const HRESULT status = pAsyncResult->GetStatus();
    const bool signalled = SUCCEEDED(status);
    if (signalled) {
      // Recorded where it is delivered: a cancelled or stale wait is not a driver event.
      if (recorder) recorder->RecordDriverEvent(eventSet, eventId);
      NotifyObservers();
    }

    AutoLock lock(critSec);
    switch (state) {
      case Active:
        if (!signalled) {
          WQ_TRACE(Warning, name << ": wait completed with " << user_space_frameworks::trace::HrText(status));
          return S_OK;
        }
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
  std::vector<std::shared_ptr<KsEventsObserver>> snapshot;
  {
    AutoLock lock(critSec);
    if (state == Active) snapshot = observers;
  }
  // Outside the lock: an observer may call back into the listener.
  for (const auto &observer : snapshot) {
    user_space_frameworks::ExceptionGuard(WQ_FUNCTION, [&]() -> HRESULT {
      observer->OnEvent(eventSet, eventId);
      return S_OK;
    });
  }
}

}  // namespace mft_core
