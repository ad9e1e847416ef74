// The transform's media event queue: the frame server pulls events through IMFMediaEventGenerator, the
// streams and handlers push them. Its shutdown flag is the transform's shutdown flag.
#pragma once

#include <atomic>

#include "mft_core/ks/DeviceEventsRecorder.h"
#include "platform/WindowsSdk.h"
#include "user_space_frameworks/Object.h"
#include "user_space_frameworks/Sync.h"

namespace mft_core {

// IUnknown is left to the most derived class (the transform implements it once for all its COM bases).
class MediaEventGenerator : public IMFMediaEventGenerator, public virtual user_space_frameworks::Object {
 public:
  using QueueFactory = HRESULT (*)(IMFMediaEventQueue **queue);

  MediaEventGenerator();
  ~MediaEventGenerator() override;
  MediaEventGenerator(const MediaEventGenerator &) = delete;
  MediaEventGenerator &operator=(const MediaEventGenerator &) = delete;

  // IMFMediaEventGenerator
  STDMETHODIMP GetEvent(DWORD dwFlags, IMFMediaEvent **ppEvent) override;
  STDMETHODIMP BeginGetEvent(IMFAsyncCallback *pCallback, IUnknown *punkState) override;
  STDMETHODIMP EndGetEvent(IMFAsyncResult *pResult, IMFMediaEvent **ppEvent) override;
  STDMETHODIMP QueueEvent(MediaEventType met, REFGUID guidExtendedType, HRESULT hrStatus,
                          const PROPVARIANT *pvValue) override;

  // Queues a ready-made event; no lock (the platform queue is thread-safe) and no guard.
  HRESULT QueueEvent(IMFMediaEvent *event);
  // The output streams' METransformHaveOutput, one per frame: traced, recorded and queued as QueueEvent
  // does, without the exception guard and the handler's virtual hop (nothing on this path throws).
  HRESULT QueueHaveOutput();
  // The first call shuts the queue down and returns its result; later calls return MF_E_SHUTDOWN.
  HRESULT Shutdown();
  bool IsShutdown() const { return isShutdown.load(std::memory_order_acquire); }
  // Records every event queued from now on; set before events flow. The owner keeps it alive.
  void SetQueuedEventsRecorder(IDeviceEventsRecorder *recorder) { queuedEventsRecorder = recorder; }

 protected:
  // Lets a test stand in for MFCreateEventQueue (for instance to make creation fail).
  explicit MediaEventGenerator(QueueFactory createQueue);

  virtual HRESULT OnBeginGetEvent(IMFAsyncCallback *pCallback, IUnknown *punkState);
  virtual HRESULT OnEndGetEvent(IMFAsyncResult *pResult, IMFMediaEvent **ppEvent);
  virtual HRESULT OnGetEvent(DWORD dwFlags, IMFMediaEvent **ppEvent);
  virtual HRESULT OnQueueEvent(MediaEventType met, REFGUID guidExtendedType, HRESULT hrStatus,
                               const PROPVARIANT *pvValue);

 private:
  // OnQueueEvent's work: trace, record, queue.
  HRESULT TraceRecordAndQueue(MediaEventType met, REFGUID guidExtendedType, HRESULT hrStatus,
                              const PROPVARIANT *pvValue);

  // Makes Shutdown's test-and-shut happen once. The queue needs no lock: it is set by the constructor and
  // released by the destructor only, and the platform queue is thread-safe.
  user_space_frameworks::CriticalSection lock;
  Microsoft::WRL::ComPtr<IMFMediaEventQueue> pQueue;
  std::atomic<bool> isShutdown{false};
  LONG isQueueCreated = 0;
  IDeviceEventsRecorder *queuedEventsRecorder = nullptr;
};

}  // namespace mft_core
