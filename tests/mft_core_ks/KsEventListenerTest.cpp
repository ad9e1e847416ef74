#include <gtest/gtest.h>

#include <atomic>
#include <mutex>
#include <vector>
#include <thread>

#include "common/FakeKsControl.h"
#include "common/Waiting.h"
#include "mft_core/ks/KsEventListener.h"
#include "user_space_frameworks/Trace.h"

namespace mft_core {
namespace {

using Microsoft::WRL::ComPtr;
using test_support::FakeKsControl;
using user_space_frameworks::Event;

constexpr DWORD kGenerousMs = 10000;

class CountingObserver : public KsEventsObserver {
 public:
  void OnEvent(REFGUID eventSet, ULONG eventId) override {
    lastSetMatches = IsEqualGUID(eventSet, KSEVENTSETID_VIDCAPTOSTI) && eventId == KSEVENT_VIDCAP_AUTO_UPDATE;
    ++count;
    notified.Set();
  }
  std::atomic<int> count{0};
  std::atomic<bool> lastSetMatches{false};
  Event notified;
};

class ThrowingObserver : public KsEventsObserver {
 public:
  void OnEvent(REFGUID, ULONG) override { throw std::runtime_error("observer failed"); }
};

// Unregisters itself the first time it is told.
class OneTimeObserver : public KsEventsObserver, public std::enable_shared_from_this<OneTimeObserver> {
 public:
  explicit OneTimeObserver(KsEventListener *listener) : listener(listener) {}
  void OnEvent(REFGUID, ULONG) override {
    ++count;
    listener->UnregisterObserver(shared_from_this());
  }
  KsEventListener *listener;
  std::atomic<int> count{0};
};

// Queues nothing and never calls back, as a platform that does not invoke cancelled work items.
class SilentWorkItems : public mft_utils::WaitWorkItemWrapper {
 public:
  HRESULT WaitAsync(HANDLE, IMFAsyncResult *, IMFAsyncCallback *) override {
    ++waits;
    return S_OK;
  }
  HRESULT Cancel() override {
    ++cancels;
    return S_OK;
  }
  std::atomic<int> waits{0}, cancels{0};
};

class KsEventListenerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    driver = user_space_frameworks::MakeComObject<FakeKsControl>();
    listener = KsEventListener::Create("auto update", KSEVENTSETID_VIDCAPTOSTI, KSEVENT_VIDCAP_AUTO_UPDATE);
    ASSERT_TRUE(listener);
    ASSERT_EQ(S_OK, listener->Init(driver.Get()));
  }

  // The driver's side: the event handle it was given when the event was enabled.
  HANDLE DriverEvent() {
    for (const auto &request : driver->Requests()) {
      if (request.hasIdentifier && request.type == KsControlType::Event) return request.eventHandle;
    }
    return nullptr;
  }
  // Signals from another thread, as the driver does.
  void SignalFromDriver() {
    HANDLE handle = DriverEvent();
    std::thread([handle] { SetEvent(handle); }).join();
  }

  ComPtr<FakeKsControl> driver;
  std::shared_ptr<KsEventListener> listener;
};

// Notifications come on the standard queue (every other test here) until the frame server assigns its own.
TEST_F(KsEventListenerTest, EnablesTheEventAndNotifiesOnEverySignalOnTheAssignedQueue) {
  DWORD flags = 0, queue = 0;
  ASSERT_EQ(S_OK, listener->GetParameters(&flags, &queue));
  EXPECT_EQ(DWORD(MFASYNC_FAST_IO_PROCESSING_CALLBACK), flags);
  EXPECT_EQ(DWORD(MFASYNC_CALLBACK_QUEUE_STANDARD), queue);
  EXPECT_EQ(E_POINTER, listener->GetParameters(nullptr, &queue));
  DWORD workQueue = 0;
  ASSERT_EQ(S_OK, MFAllocateWorkQueue(&workQueue));
  auto assignment = std::make_shared<WorkQueueAssignment>();
  listener->SetWorkQueue(assignment);
  ASSERT_EQ(S_OK, listener->GetParameters(&flags, &queue));
  EXPECT_EQ(DWORD(MFASYNC_CALLBACK_QUEUE_STANDARD), queue);
  assignment->Assign(workQueue, 2);
  ASSERT_EQ(S_OK, listener->GetParameters(&flags, &queue));
  EXPECT_EQ(workQueue, queue);

  auto observer = std::make_shared<CountingObserver>();
  listener->RegisterObserver(observer);
  ASSERT_EQ(S_OK, listener->Start());
  EXPECT_EQ(KsEventListener::Active, listener->GetState());

  const auto requests = driver->Requests();
  ASSERT_EQ(1u, requests.size());
  EXPECT_TRUE(IsEqualGUID(KSEVENTSETID_VIDCAPTOSTI, requests[0].set));
  EXPECT_EQ(ULONG(KSEVENT_VIDCAP_AUTO_UPDATE), requests[0].id);
  EXPECT_EQ(ULONG(KSEVENT_TYPE_ENABLE), requests[0].flags);
  EXPECT_EQ(sizeof(KSEVENT), requests[0].identifierLength);
  EXPECT_EQ(sizeof(KSEVENTDATA), requests[0].dataLength);
  EXPECT_EQ(ULONG(KSEVENTF_EVENT_HANDLE), static_cast<KSEVENTDATA *>(requests[0].data)->NotificationType);

  for (int i = 1; i <= 3; ++i) {
    SignalFromDriver();
    ASSERT_EQ(WAIT_OBJECT_0, observer->notified.Wait(kGenerousMs)) << "signal " << i;
    EXPECT_EQ(i, observer->count.load());
  }
  EXPECT_TRUE(observer->lastSetMatches);

  listener->Stop();
  EXPECT_EQ(KsEventListener::Stopped, listener->GetState());
  EXPECT_EQ(1u, driver->DisableCount());
  listener->Uninit();
  EXPECT_EQ(S_OK, MFUnlockWorkQueue(workQueue));
}

TEST_F(KsEventListenerTest, StartsAndStopsAreCountedAndAFailingEnableStillStops) {
  ASSERT_EQ(S_OK, listener->Start());
  ASSERT_EQ(S_OK, listener->Start());
  EXPECT_EQ(1u, driver->EnableCount());
  listener->Stop();
  EXPECT_EQ(KsEventListener::Active, listener->GetState());
  EXPECT_EQ(0u, driver->DisableCount());
  listener->Stop();
  EXPECT_EQ(KsEventListener::Stopped, listener->GetState());
  EXPECT_EQ(1u, driver->DisableCount());
  // A stop too many changes nothing, and the next start subscribes again.
  listener->Stop();
  EXPECT_EQ(0, listener->GetStartCount());
  ASSERT_EQ(S_OK, listener->Start());
  EXPECT_EQ(2u, driver->EnableCount());
  listener->Stop();
  EXPECT_EQ(2u, driver->DisableCount());

  // A failing enable is returned, and its stop still completes.
  driver->Script({E_ACCESSDENIED});
  EXPECT_EQ(E_ACCESSDENIED, listener->Start());
  EXPECT_EQ(KsEventListener::Active, listener->GetState());
  listener->Stop();
  EXPECT_EQ(KsEventListener::Stopped, listener->GetState());
}

TEST_F(KsEventListenerTest, ObserversAreCalledOutsideTheLockAndIsolated) {
  auto throwing = std::make_shared<ThrowingObserver>();
  auto oneTime = std::make_shared<OneTimeObserver>(listener.get());
  auto counting = std::make_shared<CountingObserver>();
  listener->RegisterObserver(throwing);
  listener->RegisterObserver(oneTime);
  listener->RegisterObserver(counting);
  ASSERT_EQ(S_OK, listener->Start());

  SignalFromDriver();
  ASSERT_EQ(WAIT_OBJECT_0, counting->notified.Wait(kGenerousMs));
  SignalFromDriver();
  ASSERT_EQ(WAIT_OBJECT_0, counting->notified.Wait(kGenerousMs));
  EXPECT_EQ(1, oneTime->count.load());
  EXPECT_EQ(2, counting->count.load());
  listener->Stop();
}

TEST(KsEventListenerSilentCancelTest, StopEndsAfterTheTimeoutWhenCancelDoesNotCallBack) {
  auto driver = user_space_frameworks::MakeComObject<FakeKsControl>();
  auto workItems = std::make_shared<SilentWorkItems>();
  auto listener = KsEventListener::Create("auto update", KSEVENTSETID_VIDCAPTOSTI, KSEVENT_VIDCAP_AUTO_UPDATE,
                                          nullptr, workItems);
  ASSERT_EQ(S_OK, listener->Init(driver.Get()));
  ASSERT_EQ(S_OK, listener->Start());
  listener->Stop();
  EXPECT_EQ(1, workItems->cancels.load());
  EXPECT_EQ(KsEventListener::Stopped, listener->GetState());
  // The driver lets go of the event even though no callback completed the stop.
  EXPECT_EQ(1u, driver->DisableCount());
  ASSERT_EQ(S_OK, listener->Start());
  EXPECT_EQ(2, workItems->waits.load());
}

TEST_F(KsEventListenerTest, StartAndStopRacingNotificationsStayBalanced) {
  auto observer = std::make_shared<CountingObserver>();
  listener->RegisterObserver(observer);
  std::atomic<bool> done{false};
  ASSERT_EQ(S_OK, listener->Start());
  HANDLE handle = DriverEvent();
  std::thread signaller([&] {
    while (!done) {
      SetEvent(handle);
      Sleep(0);
    }
  });
  for (int i = 0; i < 40; ++i) {
    listener->Stop();
    ASSERT_EQ(S_OK, listener->Start());
  }
  done = true;
  signaller.join();
  // Still exactly one wait armed: one signal, one notification.
  observer->notified.Reset();
  const int before = observer->count.load();
  SignalFromDriver();
  ASSERT_EQ(WAIT_OBJECT_0, observer->notified.Wait(kGenerousMs));
  listener->Stop();
  EXPECT_EQ(KsEventListener::Stopped, listener->GetState());
  EXPECT_EQ(driver->EnableCount(), driver->DisableCount());
  EXPECT_EQ(41u, driver->EnableCount());
  EXPECT_GE(observer->count.load(), before + 1);
}

// Waiting work items the test completes by hand: a wait can fail to arm, complete with any status, and
// a cancel completes the wait late from another thread, as a busy platform queue does.
class ScriptedWorkItems : public mft_utils::WaitWorkItemWrapper {
 public:
  ~ScriptedWorkItems() override { JoinAll(); }
  // The late cancellations must have run before the listener goes, or the last owner could be one of them.
  void JoinAll() {
    for (auto &thread : threads) {
      if (thread.joinable()) thread.join();
    }
  }
  HRESULT WaitAsync(HANDLE, IMFAsyncResult *asyncResult, IMFAsyncCallback *callback) override {
    std::lock_guard<std::mutex> lock(mutex);
    ++waits;
    if (failingWaits > 0) {
      --failingWaits;
      return E_OUTOFMEMORY;
    }
    pending = asyncResult;
    pendingCallback = callback;
    return S_OK;
  }
  HRESULT Cancel() override {
    ++cancels;
    threads.emplace_back([this] {
      Sleep(cancelDelayMs);
      Complete(MF_E_OPERATION_CANCELLED);
    });
    return S_OK;
  }
  // Completes the armed wait with `status` on this thread; false when none is armed.
  bool Complete(HRESULT status) {
    ComPtr<IMFAsyncResult> result;
    ComPtr<IMFAsyncCallback> callback;
    {
      std::lock_guard<std::mutex> lock(mutex);
      result.Swap(pending);
      callback.Swap(pendingCallback);
    }
    if (!result) return false;
    result->SetStatus(status);
    callback->Invoke(result.Get());
    return true;
  }
  std::mutex mutex;
  ComPtr<IMFAsyncResult> pending;
  ComPtr<IMFAsyncCallback> pendingCallback;
  std::vector<std::thread> threads;
  std::atomic<int> waits{0}, cancels{0};
  int failingWaits = 0;
  DWORD cancelDelayMs = 200;
};

class ScriptedListenerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    driver = user_space_frameworks::MakeComObject<FakeKsControl>();
    workItems = std::make_shared<ScriptedWorkItems>();
    listener = KsEventListener::Create("auto update", KSEVENTSETID_VIDCAPTOSTI, KSEVENT_VIDCAP_AUTO_UPDATE, nullptr,
                                       workItems);
    ASSERT_EQ(S_OK, listener->Init(driver.Get()));
  }
  void TearDown() override {
    workItems->JoinAll();
    listener.reset();
    workItems.reset();
  }
  bool WaitForState(KsEventListener::State state) {
    return test_waiting::WaitFor([&] { return listener->GetState() == state; });
  }
  ComPtr<FakeKsControl> driver;
  std::shared_ptr<ScriptedWorkItems> workItems;
  std::shared_ptr<KsEventListener> listener;
};

// A stream that starts while the last stream's stop still waits for its completion is not refused: the
// listener runs again for it once the stop is over.
TEST_F(ScriptedListenerTest, AStartDuringTheLastStopsWaitStartsAgain) {
  ASSERT_EQ(S_OK, listener->Start());
  std::thread stopping([&] { listener->Stop(); });
  ASSERT_TRUE(WaitForState(KsEventListener::Stopping));
  EXPECT_EQ(S_OK, listener->Start());
  stopping.join();
  EXPECT_EQ(KsEventListener::Active, listener->GetState());
  EXPECT_EQ(1, listener->GetStartCount());
  EXPECT_EQ(2u, driver->EnableCount());
  EXPECT_EQ(1u, driver->DisableCount());
  listener->Stop();
  EXPECT_EQ(KsEventListener::Stopped, listener->GetState());
  EXPECT_EQ(0, listener->GetStartCount());
}

// A start that could not arm its wait still counts (its caller's stop gives it back) and leaves the
// listener able to start again; it is not stuck half-started.
TEST_F(ScriptedListenerTest, AStartThatCannotArmCountsAndTheNextStartArms) {
  workItems->failingWaits = 1;
  EXPECT_EQ(E_OUTOFMEMORY, listener->Start());
  EXPECT_EQ(1, listener->GetStartCount());
  EXPECT_NE(KsEventListener::Active, listener->GetState());
  listener->Stop();
  EXPECT_EQ(0, listener->GetStartCount());
  EXPECT_EQ(KsEventListener::Stopped, listener->GetState());
  ASSERT_EQ(S_OK, listener->Start());
  EXPECT_EQ(KsEventListener::Active, listener->GetState());
  EXPECT_EQ(1u, driver->EnableCount());
  listener->Stop();
}

// A wait that completes with a failure while the listener is active does not leave it deaf: observers
// are told (the driver may have signalled) and a new wait is armed; later signals still arrive.
TEST_F(ScriptedListenerTest, AFailedWaitIsReportedAndArmedAgain) {
  auto observer = std::make_shared<CountingObserver>();
  listener->RegisterObserver(observer);
  ASSERT_EQ(S_OK, listener->Start());
  const int armed = workItems->waits.load();
  ASSERT_TRUE(workItems->Complete(E_FAIL));
  EXPECT_EQ(1, observer->count.load());
  EXPECT_EQ(armed + 1, workItems->waits.load());
  // Failing again and again: armed each time, observers told only about the first.
  ASSERT_TRUE(workItems->Complete(E_FAIL));
  ASSERT_TRUE(workItems->Complete(E_FAIL));
  EXPECT_EQ(1, observer->count.load());
  EXPECT_EQ(armed + 3, workItems->waits.load());
  ASSERT_TRUE(workItems->Complete(S_OK));
  EXPECT_EQ(2, observer->count.load());
  EXPECT_EQ(KsEventListener::Active, listener->GetState());
  workItems->cancelDelayMs = 0;
  listener->Stop();
  EXPECT_EQ(KsEventListener::Stopped, listener->GetState());
}

// However long the platform keeps a finished or cancelled work item, a released listener, stopped or
// still started, leaves the driver's control referenced only by its owner and no handle behind. Its last
// owner may be a work-queue thread leaving Invoke, and its stop does not wait for a cancellation that can
// no longer reach it.
TEST(KsEventListenerLifetimeTest, AReleasedListenerStopsAndLetsGoOfTheDriverAndItsHandles) {
  auto sink = std::make_shared<user_space_frameworks::CapturingTraceSink>();
  user_space_frameworks::trace::ScopedSink scoped(sink, user_space_frameworks::TraceLevel::Warning);
  auto driver = user_space_frameworks::MakeComObject<FakeKsControl>();
  const ULONG alone = test_waiting::References(driver.Get());
  DWORD before = 0;
  ASSERT_TRUE(GetProcessHandleCount(GetCurrentProcess(), &before));
  {
    auto listener = KsEventListener::Create("auto update", KSEVENTSETID_VIDCAPTOSTI, KSEVENT_VIDCAP_AUTO_UPDATE);
    ASSERT_EQ(S_OK, listener->Init(driver.Get()));
    ASSERT_EQ(S_OK, listener->Start());
    listener->Stop();
    ASSERT_EQ(S_OK, listener->Start());
    ASSERT_EQ(S_OK, listener->Start());
  }
  EXPECT_TRUE(test_waiting::WaitFor([&] { return driver->DisableCount() == 2u; }));
  EXPECT_TRUE(test_waiting::WaitFor([&] { return test_waiting::References(driver.Get()) == alone; }));
  EXPECT_FALSE(sink->Contains("did not complete"));
  EXPECT_TRUE(test_waiting::WaitFor([&] {
    DWORD after = 0;
    return GetProcessHandleCount(GetCurrentProcess(), &after) && after <= before;
  }));
}

}  // namespace
}  // namespace mft_core
