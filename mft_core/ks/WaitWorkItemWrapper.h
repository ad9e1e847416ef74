// Waiting work items: the platform calls back on a work queue when a handle is signalled.
#pragma once

#include "platform/WindowsSdk.h"

namespace mft_utils {

class WaitWorkItemWrapper {
 public:
  virtual ~WaitWorkItemWrapper() = default;
  virtual HRESULT WaitAsync(HANDLE handle, IMFAsyncResult *asyncResult, IMFAsyncCallback *callback) = 0;
  virtual HRESULT Cancel() = 0;
};

class MFPutWaitingWorkItemWrapper : public WaitWorkItemWrapper {
 public:
  explicit MFPutWaitingWorkItemWrapper(LONG priority) : priority(priority) {}
  // The callback travels inside `asyncResult`.
  HRESULT WaitAsync(HANDLE handle, IMFAsyncResult *asyncResult, IMFAsyncCallback *) override {
    return MFPutWaitingWorkItem(handle, priority, asyncResult, &key);
  }
  HRESULT Cancel() override { return MFCancelWorkItem(key); }

 private:
  LONG priority;
  MFWORKITEM_KEY key = 0;
};

}  // namespace mft_utils
