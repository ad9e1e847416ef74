#include "mft_core/transform/MediaEventGenerator.h"

#include "user_space_frameworks/Check.h"
#include "user_space_frameworks/ExceptionGuard.h"
#include "user_space_frameworks/GuidTranslator.h"
#include "user_space_frameworks/MediaEventNames.h"
#include "user_space_frameworks/Trace.h"
#include "user_space_frameworks/TraceScope.h"

namespace mft_core {

namespace {

HRESULT CreatePlatformQueue(IMFMediaEventQueue **queue) { return MFCreateEventQueue(queue); }

}  // namespace

MediaEventGenerator::MediaEventGenerator() : MediaEventGenerator(&CreatePlatformQueue) {}

MediaEventGenerator::MediaEventGenerator(QueueFactory createQueue) {
  WQ_TRACE(Verbose, "==>");
  // A missing queue does not fail construction: every later call answers E_OUTOFMEMORY instead.
  const HRESULT hr = createQueue(pQueue.ReleaseAndGetAddressOf());
  if (FAILED(hr) || !pQueue) {
    ::user_space_frameworks::ReportFailure(WQ_HERE, "MFCreateEventQueue(&pQueue)", FAILED(hr) ? hr : E_POINTER);
    pQueue.Reset();
  } else {
    isQueueCreated = 1;
  }
  WQ_TRACE(Verbose, "<==");
}

MediaEventGenerator::~MediaEventGenerator() = default;

STDMETHODIMP MediaEventGenerator::GetEvent(DWORD dwFlags, IMFMediaEvent **ppEvent) {
  return WQ_GUARDED([&]() -> HRESULT {
    if (isQueueCreated != 1) return E_OUTOFMEMORY;
    // Only our Shutdown shuts the queue down, and that is how the frame server's pending wait ends.
    RETURN_IF_FAILED_EXPECTING(MF_E_SHUTDOWN, OnGetEvent(dwFlags, ppEvent));
    return S_OK;
  });
}

STDMETHODIMP MediaEventGenerator::BeginGetEvent(IMFAsyncCallback *pCallback, IUnknown *punkState) {
  return WQ_GUARDED([&]() -> HRESULT {
    if (isQueueCreated != 1) return E_OUTOFMEMORY;
    RETURN_IF_FAILED(OnBeginGetEvent(pCallback, punkState));
    return S_OK;
  });
}

STDMETHODIMP MediaEventGenerator::EndGetEvent(IMFAsyncResult *pResult, IMFMediaEvent **ppEvent) {
  return WQ_GUARDED([&]() -> HRESULT {
    if (isQueueCreated != 1) return E_OUTOFMEMORY;
    RETURN_IF_FAILED_EXPECTING(MF_E_SHUTDOWN, OnEndGetEvent(pResult, ppEvent));
    return S_OK;
  });
}

STDMETHODIMP MediaEventGenerator::QueueEvent(MediaEventType met, REFGUID guidExtendedType, HRESULT hrStatus,
                                             const PROPVARIANT *pvValue) {
  return WQ_GUARDED([&]() -> HRESULT {
    if (isQueueCreated != 1) return E_OUTOFMEMORY;
    RETURN_IF_FAILED(OnQueueEvent(met, guidExtendedType, hrStatus, pvValue));
    return S_OK;
  });
}

// The queue is created with the generator and released with it, never replaced: the frame path reads it
// without the lock, and the platform queue serialises its own callers.
HRESULT MediaEventGenerator::OnGetEvent(DWORD dwFlags, IMFMediaEvent **ppEvent) {
  WQ_SCOPE_BEGIN(HRESULT);
  IMFMediaEventQueue *const local_pQueue = pQueue.Get();
  if (local_pQueue == nullptr) {
    WQ_TRACE(Error, "no event queue");
    return MF_E_SHUTDOWN;
  }
  // May block until an event arrives: nothing is held, so QueueEvent and Shutdown go on.
  RETURN_IF_FAILED_EXPECTING(MF_E_SHUTDOWN, local_pQueue->GetEvent(dwFlags, ppEvent));
  return S_OK;
  WQ_SCOPE_END;
}

HRESULT MediaEventGenerator::OnBeginGetEvent(IMFAsyncCallback *pCallback, IUnknown *punkState) {
  WQ_SCOPE_BEGIN(HRESULT);
  RETURN_IF_FAILED(pQueue->BeginGetEvent(pCallback, punkState));
  return S_OK;
  WQ_SCOPE_END;
}

HRESULT MediaEventGenerator::OnEndGetEvent(IMFAsyncResult *pResult, IMFMediaEvent **ppEvent) {
  WQ_SCOPE_BEGIN(HRESULT);
  RETURN_IF_FAILED_EXPECTING(MF_E_SHUTDOWN, pQueue->EndGetEvent(pResult, ppEvent));
  return S_OK;
  WQ_SCOPE_END;
}

HRESULT MediaEventGenerator::OnQueueEvent(MediaEventType met, REFGUID guidExtendedType, HRESULT hrStatus,
                                          const PROPVARIANT *pvValue) {
  return TraceRecordAndQueue(met, guidExtendedType, hrStatus, pvValue);
}

HRESULT MediaEventGenerator::TraceRecordAndQueue(MediaEventType met, REFGUID guidExtendedType, HRESULT hrStatus,
                                                 const PROPVARIANT *pvValue) {
  WQ_SCOPE_BEGIN(HRESULT);
  // METransformHaveOutput comes with every frame: verbose only.
  if (met == METransformHaveOutput) {
    WQ_TRACE(Verbose, user_space_frameworks::MediaEventTypeName(met)
                          << " extended type " << user_space_frameworks::GuidTranslator::Name(guidExtendedType)
                          << " status " << user_space_frameworks::trace::HrText(hrStatus));
  } else {
    WQ_TRACE(Info, user_space_frameworks::MediaEventTypeName(met)
                       << " extended type " << user_space_frameworks::GuidTranslator::Name(guidExtendedType)
                       << " status " << user_space_frameworks::trace::HrText(hrStatus));
  }
  if (queuedEventsRecorder) queuedEventsRecorder->RecordMediaEvent(met, guidExtendedType, hrStatus, pvValue);
  RETURN_IF_FAILED(pQueue->QueueEventParamVar(met, guidExtendedType, hrStatus, pvValue));
  return S_OK;
  WQ_SCOPE_END;
}

HRESULT MediaEventGenerator::QueueHaveOutput() {
  WQ_SCOPE_BEGIN(HRESULT);
  if (isQueueCreated != 1) return E_OUTOFMEMORY;
  return TraceRecordAndQueue(METransformHaveOutput, GUID_NULL, S_OK, nullptr);
  WQ_SCOPE_END;
}

HRESULT MediaEventGenerator::QueueEvent(IMFMediaEvent *event) {
  WQ_SCOPE_BEGIN(HRESULT);
  if (isQueueCreated != 1) return E_OUTOFMEMORY;
  if (queuedEventsRecorder) queuedEventsRecorder->RecordMediaEvent(event);
  RETURN_IF_FAILED(pQueue->QueueEvent(event));
  return S_OK;
  WQ_SCOPE_END;
}

HRESULT MediaEventGenerator::Shutdown() {
  WQ_SCOPE_BEGIN(HRESULT);
  if (isQueueCreated != 1) return E_OUTOFMEMORY;
  HRESULT hr = MF_E_SHUTDOWN;
  {
    user_space_frameworks::AutoLock guard(lock);
    if (!isShutdown.load(std::memory_order_relaxed)) {
      hr = pQueue ? pQueue->Shutdown() : S_OK;
      isShutdown.store(true, std::memory_order_release);
    }
  }
  RETURN_IF_FAILED(hr);
  return hr;
  WQ_SCOPE_END;
}

}  // namespace mft_core
