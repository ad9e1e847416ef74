// The multithreaded work queue and base priority that the frame server assigns to the transform, shared
// with the transform's own callbacks so that their work items run on it.
#pragma once

#include <atomic>

#include "platform/WindowsSdk.h"

namespace mft_core {

class WorkQueueAssignment {
 public:
  void Assign(DWORD queueId, LONG basePriority) {
    workQueueId.store(queueId, std::memory_order_relaxed);
    workItemBasePriority.store(basePriority, std::memory_order_relaxed);
    assigned.store(true, std::memory_order_release);
  }
  bool IsAssigned() const { return assigned.load(std::memory_order_acquire); }
  DWORD GetWorkQueueId() const { return workQueueId.load(std::memory_order_relaxed); }
  LONG GetWorkItemBasePriority() const { return workItemBasePriority.load(std::memory_order_relaxed); }

  // The queue a callback reports in GetParameters: the assigned one, else the standard queue. Never the
  // undefined queue 0: some Media Foundation implementations never dispatch a waiting work item whose
  // callback asks for queue 0, neither when its handle is signalled nor when it is cancelled.
  DWORD GetCallbackQueue() const { return IsAssigned() ? GetWorkQueueId() : MFASYNC_CALLBACK_QUEUE_STANDARD; }

 private:
  std::atomic<DWORD> workQueueId{0};
  std::atomic<LONG> workItemBasePriority{0};
  std::atomic<bool> assigned{false};
};

}  // namespace mft_core
