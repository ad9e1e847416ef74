#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "common/Waiting.h"
#include "mft_core_streams/StreamTestSupport.h"
#include "user_space_frameworks/MediaEventNames.h"
#include "user_space_frameworks/Trace.h"

namespace {

using Microsoft::WRL::ComPtr;
using test_support::TestEventGenerator;
using user_space_frameworks::CapturingTraceSink;
using user_space_frameworks::TraceLevel;
namespace trace = user_space_frameworks::trace;

ComPtr<TestEventGenerator> MakeGenerator() { return user_space_frameworks::MakeComObject<TestEventGenerator>(); }

TEST(MediaEventGeneratorTest, WithoutAQueueEveryEntryPointAnswersOutOfMemory) {
  auto generator = user_space_frameworks::MakeComObject<TestEventGenerator>(
      [](IMFMediaEventQueue **) -> HRESULT { return E_OUTOFMEMORY; });
  ComPtr<IMFMediaEvent> event;
  EXPECT_EQ(E_OUTOFMEMORY, generator->GetEvent(MF_EVENT_FLAG_NO_WAIT, event.GetAddressOf()));
  EXPECT_EQ(E_OUTOFMEMORY, generator->BeginGetEvent(nullptr, nullptr));
  EXPECT_EQ(E_OUTOFMEMORY, generator->EndGetEvent(nullptr, event.GetAddressOf()));
  EXPECT_EQ(E_OUTOFMEMORY, generator->QueueEvent(MEError, GUID_NULL, S_OK, nullptr));
  ASSERT_EQ(S_OK, MFCreateMediaEvent(MEUnknown, GUID_NULL, S_OK, nullptr, event.ReleaseAndGetAddressOf()));
  EXPECT_EQ(E_OUTOFMEMORY, generator->QueueEvent(event.Get()));
  EXPECT_EQ(E_OUTOFMEMORY, generator->QueueHaveOutput());
  EXPECT_EQ(E_OUTOFMEMORY, generator->Shutdown());
  EXPECT_FALSE(generator->IsShutdown());
}

TEST(MediaEventGeneratorTest, ShutdownOnceThenRefusedByThePlatformQueue) {
  auto generator = MakeGenerator();
  EXPECT_FALSE(generator->IsShutdown());
  EXPECT_EQ(S_OK, generator->Shutdown());
  EXPECT_TRUE(generator->IsShutdown());
  EXPECT_EQ(MF_E_SHUTDOWN, generator->Shutdown());
  EXPECT_EQ(MF_E_SHUTDOWN, generator->QueueEvent(METransformHaveOutput, GUID_NULL, S_OK, nullptr));
  EXPECT_EQ(MF_E_SHUTDOWN, generator->QueueHaveOutput());
  ComPtr<IMFMediaEvent> event;
  EXPECT_EQ(MF_E_SHUTDOWN, generator->GetEvent(MF_EVENT_FLAG_NO_WAIT, event.GetAddressOf()));
}

TEST(MediaEventGeneratorTest, BlockingGetEventDoesNotHoldUpQueueEventOrShutdown) {
  auto generator = MakeGenerator();
  std::atomic<HRESULT> firstResult{E_PENDING}, secondResult{E_PENDING};
  std::atomic<MediaEventType> firstType{MEUnknown};
  std::thread reader([&] {
    ComPtr<IMFMediaEvent> event;
    firstResult = generator->GetEvent(0, event.GetAddressOf());
    if (event) {
      MediaEventType type = MEUnknown;
      event->GetType(&type);
      firstType = type;
    }
    secondResult = generator->GetEvent(0, event.ReleaseAndGetAddressOf());
  });
  Sleep(50);  // let the reader block
  EXPECT_EQ(S_OK, generator->QueueEvent(METransformHaveOutput, GUID_NULL, S_OK, nullptr));
  EXPECT_TRUE(test_waiting::WaitFor([&] { return firstResult != E_PENDING; }));
  EXPECT_EQ(S_OK, firstResult.load());
  EXPECT_EQ(static_cast<MediaEventType>(METransformHaveOutput), firstType.load());
  // The reader is blocked again; shutting down must not wait for it, and releases it.
  EXPECT_EQ(S_OK, generator->Shutdown());
  reader.join();
  EXPECT_EQ(MF_E_SHUTDOWN, secondResult.load());
}

class EventCallback : public user_space_frameworks::ComObject<IMFAsyncCallback> {
 public:
  explicit EventCallback(IMFMediaEventGenerator *generator) : generator(generator) {}
  STDMETHODIMP GetParameters(DWORD *, DWORD *) override { return E_NOTIMPL; }
  STDMETHODIMP Invoke(IMFAsyncResult *result) override {
    ComPtr<IMFMediaEvent> event;
    endResult = generator->EndGetEvent(result, event.GetAddressOf());
    if (event) event->GetType(&type);
    done.Set();
    return S_OK;
  }
  IMFMediaEventGenerator *generator;
  HRESULT endResult = E_PENDING;
  MediaEventType type = MEUnknown;
  user_space_frameworks::Event done;
};

TEST(MediaEventGeneratorTest, AsynchronousPullDeliversTheQueuedEvent) {
  auto generator = MakeGenerator();
  auto callback = user_space_frameworks::MakeComObject<EventCallback>(generator.Get());
  ASSERT_EQ(S_OK, generator->BeginGetEvent(callback.Get(), nullptr));
  ASSERT_EQ(S_OK, generator->QueueEvent(MEDeviceThermalStateChanged, GUID_NULL, S_OK, nullptr));
  ASSERT_EQ(static_cast<DWORD>(WAIT_OBJECT_0), callback->done.Wait(10000));
  EXPECT_EQ(S_OK, callback->endResult);
  EXPECT_EQ(static_cast<MediaEventType>(MEDeviceThermalStateChanged), callback->type);
  generator->Shutdown();
}

TEST(MediaEventGeneratorTest, PerFrameEventIsTracedOnlyAtVerboseLevel) {
  auto sink = std::make_shared<CapturingTraceSink>();
  trace::ScopedSink scoped(sink, TraceLevel::Info);
  auto generator = MakeGenerator();
  ASSERT_EQ(S_OK, generator->QueueEvent(METransformHaveOutput, GUID_NULL, S_OK, nullptr));
  ASSERT_EQ(S_OK, generator->QueueHaveOutput());
  EXPECT_FALSE(sink->Contains("METransformHaveOutput"));
  ASSERT_EQ(S_OK, generator->QueueEvent(METransformInputStreamStateChanged, GUID_NULL, S_OK, nullptr));
  EXPECT_TRUE(sink->Contains("METransformInputStreamStateChanged"));
  sink->Clear();
  trace::SetSink(sink, TraceLevel::Verbose);
  ASSERT_EQ(S_OK, generator->QueueHaveOutput());
  EXPECT_EQ(1u, sink->Count("METransformHaveOutput"));
  // Both queued per-frame events reach the puller.
  ComPtr<IMFMediaEvent> event;
  MediaEventType type = MEUnknown;
  for (int i = 0; i < 2; ++i) {
    ASSERT_EQ(S_OK, generator->GetEvent(MF_EVENT_FLAG_NO_WAIT, event.ReleaseAndGetAddressOf()));
    ASSERT_EQ(S_OK, event->GetType(&type));
    EXPECT_EQ(static_cast<MediaEventType>(METransformHaveOutput), type);
  }
  generator->Shutdown();
}

TEST(MediaEventGeneratorTest, AFailingPlatformCallIsReportedWithItsExpression) {
  auto sink = std::make_shared<CapturingTraceSink>();
  trace::ScopedSink scoped(sink, TraceLevel::Verbose);
  auto generator = MakeGenerator();
  ComPtr<IMFMediaEvent> event;
  EXPECT_EQ(MF_E_NO_EVENTS_AVAILABLE, generator->GetEvent(MF_EVENT_FLAG_NO_WAIT, event.GetAddressOf()));
  EXPECT_EQ(1u, sink->Count("local_pQueue->GetEvent(dwFlags, ppEvent)"));
  EXPECT_EQ(1u, sink->Count("OnGetEvent(dwFlags, ppEvent)"));
  // An empty poll is part of a normal exchange: traced, but not as an error.
  for (const auto &line : sink->Lines()) EXPECT_NE(TraceLevel::Error, line.level) << line.message;
  generator->Shutdown();
}

}  // namespace
