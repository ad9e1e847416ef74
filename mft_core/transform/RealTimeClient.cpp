#include "mft_core/transform/RealTimeClient.h"

#include "user_space_frameworks/ExceptionGuard.h"

namespace mft_core {

STDMETHODIMP RealTimeClient::RegisterThreadsEx(DWORD *, LPCWSTR, LONG) {
  return WQ_GUARDED([&]() -> HRESULT { return S_OK; });
}

STDMETHODIMP RealTimeClient::UnregisterThreads() {
  return WQ_GUARDED([&]() -> HRESULT { return S_OK; });
}

STDMETHODIMP RealTimeClient::SetWorkQueueEx(DWORD dwMultithreadedWorkQueueId, LONG lWorkItemBasePriority) {
  return WQ_GUARDED([&]() -> HRESULT {
    workQueue->Assign(dwMultithreadedWorkQueueId, lWorkItemBasePriority);
    return S_OK;
  });
}

}  // namespace mft_core
