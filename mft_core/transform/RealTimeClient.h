// IMFRealTimeClientEx of the device transform: the frame server tells it which multithreaded work queue
// and base priority its work items should use. Threads are not registered with the scheduler here.
#pragma once

#include <memory>

#include "mft_core/ks/WorkQueueAssignment.h"
#include "platform/WindowsSdk.h"
#include "user_space_frameworks/Object.h"

namespace mft_core {

// IUnknown is the most-derived class's (the transform's).
class RealTimeClient : public IMFRealTimeClientEx, public virtual user_space_frameworks::Object {
 public:
  STDMETHODIMP RegisterThreadsEx(DWORD *pdwTaskIndex, LPCWSTR wszClassName, LONG lBasePriority) override;
  STDMETHODIMP UnregisterThreads() override;
  STDMETHODIMP SetWorkQueueEx(DWORD dwMultithreadedWorkQueueId, LONG lWorkItemBasePriority) override;

  // The assignment, shared with the callbacks whose work items run on it (the driver-event listener).
  std::shared_ptr<const WorkQueueAssignment> GetWorkQueueAssignment() const { return workQueue; }

 private:
  // Work queue identifier, base priority and whether one was assigned; written without a lock.
  std::shared_ptr<WorkQueueAssignment> workQueue = std::make_shared<WorkQueueAssignment>();
};

}  // namespace mft_core
