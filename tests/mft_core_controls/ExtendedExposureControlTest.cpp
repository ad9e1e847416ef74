// The extended exposure-mode control as an application reaches it: KsProperty and KsEvent on the
// dispatcher, with frames fed by the test and a device played by a recording subclass.
#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <memory>
#include <thread>
#include <vector>

#include "mft_core/controls/ExtendedExposureControl.h"
#include "mft_core/ks/KsControlsDispatcher.h"
#include "user_space_frameworks/ComObject.h"
#include "user_space_frameworks/Sync.h"

namespace mft_core {
namespace {

using Microsoft::WRL::ComPtr;
using user_space_frameworks::Event;

constexpr HRESULT kMoreData = HRESULT_FROM_WIN32(ERROR_MORE_DATA);
constexpr HRESULT kNotSupported = HRESULT_FROM_WIN32(ERROR_NOT_SUPPORTED);
constexpr HRESULT kInvalidState = HRESULT_FROM_WIN32(ERROR_INVALID_STATE);
constexpr ULONG kRequestSize = 64;

class TestDispatcher : public KsControlsDispatcher {
  WQ_IMPLEMENT_IUNKNOWN(TestDispatcher, IKsControl)
};

// Plays the device: records each call, answers with a configurable result, and reports the exposure
// it was last given as the value its frames would show.
class RecordingExposureControl : public ExtendedExposureControl {
 public:
  struct Call {
    char kind;  // 'M' SetManual, 'A' SetAuto, 'G' Get
    uint32_t value;
  };

  RecordingExposureControl(uint32_t manualDelta, uint32_t lockDelta, uint32_t lockFrames)
      : ExtendedExposureControl("Test Exposure", nullptr, manualDelta, lockDelta, lockFrames) {}

  std::vector<Call> Calls() {
    user_space_frameworks::AutoLock guard(callsLock);
    return calls;
  }
  void ClearCalls() {
    user_space_frameworks::AutoLock guard(callsLock);
    calls.clear();
  }
  ExposureControlState State() {
    user_space_frameworks::AutoLock guard(lock);
    return state;
  }

  HRESULT setManualResult = S_OK;
  HRESULT setAutoResult = S_OK;
  HRESULT getResult = S_OK;
  std::atomic<uint32_t> deviceExposure{3000};

 protected:
  HRESULT Get(KSCAMERA_EXTENDEDPROP_VIDEOPROCSETTING *setting) override {
    Record('G', 0);
    if (FAILED(getResult)) return getResult;
    setting->Mode = 0;
    setting->Min = 10;
    setting->Max = 100000;
    setting->Step = 10;
    setting->VideoProc.Value.ull = deviceExposure.load();
    return S_OK;
  }
  HRESULT SetManual(uint32_t exposure) override {
    Record('M', exposure);
    if (SUCCEEDED(setManualResult)) deviceExposure = exposure;
    return setManualResult;
  }
  HRESULT SetAuto() override {
    Record('A', 0);
    return setAutoResult;
  }

 private:
  void Record(char kind, uint32_t value) {
    user_space_frameworks::AutoLock guard(callsLock);
    calls.push_back({kind, value});
  }
  user_space_frameworks::CriticalSection callsLock;
  std::vector<Call> calls;
};

// The 64-byte request an application sends.
struct Request {
  KSCAMERA_EXTENDEDPROP_HEADER header;
  KSCAMERA_EXTENDEDPROP_VIDEOPROCSETTING setting;
};
static_assert(sizeof(Request) == kRequestSize, "request layout");

KSPROPERTY ExposureProperty(ULONG flags) {
  return {KSPROPERTYSETID_ExtendedCameraControl, KSPROPERTY_CAMERACONTROL_EXTENDED_EXPOSUREMODE, flags};
}

class ExposureControlTest : public ::testing::Test {
 protected:
  void SetUp() override { Build(500, 100, 3); }

  void Build(uint32_t manualDelta, uint32_t lockDelta, uint32_t lockFrames) {
    dispatcher = user_space_frameworks::MakeComObject<TestDispatcher>();
    ASSERT_EQ(S_OK, dispatcher.As(&ksControl));
    control = std::make_shared<RecordingExposureControl>(manualDelta, lockDelta, lockFrames);
    ASSERT_EQ(S_OK, dispatcher->RegisterKsPropertyHandler(control));
    ASSERT_EQ(S_OK, control->RegisterEvent(*dispatcher.Get()));
  }

  HRESULT Arm(HANDLE handle) {
    KSEVENT event{};
    event.Set = KSEVENTSETID_ExtendedCameraControl;
    event.Id = KSPROPERTY_CAMERACONTROL_EXTENDED_EXPOSUREMODE;
    event.Flags = KSEVENT_TYPE_ENABLE | KSEVENT_TYPE_ONESHOT;
    KSEVENTDATA data{};
    data.NotificationType = KSEVENTF_EVENT_HANDLE;
    data.EventHandle.Event = handle;
    ULONG bytes = 0;
    return ksControl->KsEvent(&event, sizeof(event), &data, sizeof(data), &bytes);
  }
  HRESULT Arm() { return Arm(completion.Get()); }
  bool Completed() { return completion.Wait(0) == WAIT_OBJECT_0; }

  HRESULT SetMode(ULONGLONG flags, ULONGLONG value = 0, ULONG propertyFlags = KSPROPERTY_TYPE_SET) {
    KSPROPERTY property = ExposureProperty(propertyFlags);
    Request request{};
    request.header.Version = 1;
    request.header.PinId = KSCAMERA_EXTENDEDPROP_FILTERSCOPE;
    request.header.Size = kRequestSize;
    request.header.Flags = flags;
    request.setting.VideoProc.Value.ull = value;
    ULONG bytes = 0;
    const HRESULT hr = ksControl->KsProperty(&property, sizeof(property), &request, sizeof(request), &bytes);
    EXPECT_EQ(kRequestSize, bytes);
    return hr;
  }
  ULONGLONG ReportedFlags() {
    KSPROPERTY property = ExposureProperty(KSPROPERTY_TYPE_GET);
    Request request{};
    ULONG bytes = 0;
    EXPECT_EQ(S_OK, ksControl->KsProperty(&property, sizeof(property), &request, sizeof(request), &bytes));
    return request.header.Flags;
  }
  void Frames(std::initializer_list<uint32_t> exposures) {
    for (uint32_t exposure : exposures) control->OnSample(exposure);
  }

  ComPtr<TestDispatcher> dispatcher;
  ComPtr<IKsControl> ksControl;
  std::shared_ptr<RecordingExposureControl> control;
  Event completion{true};  // manual reset: a second set would still be seen as one
};

// ---- Request buffer -------------------------------------------------------------------------------------------

TEST_F(ExposureControlTest, ShortOrMissingBuffersGetTheDocumentedCodesAndNoWrite) {
  KSPROPERTY get = ExposureProperty(KSPROPERTY_TYPE_GET);
  BYTE buffer[kRequestSize + 16];
  for (ULONG length : {0u, 1u, 63u}) {
    std::memset(buffer, 0xCD, sizeof(buffer));
    ULONG bytes = 0;
    EXPECT_EQ(kMoreData, ksControl->KsProperty(&get, sizeof(get), buffer, length, &bytes)) << length;
    EXPECT_EQ(kRequestSize, bytes);
    for (BYTE b : buffer) ASSERT_EQ(0xCD, b) << length;
  }
  ULONG bytes = 0;
  EXPECT_EQ(kMoreData, ksControl->KsProperty(&get, sizeof(get), nullptr, 0, &bytes));
  EXPECT_EQ(kRequestSize, bytes);
  EXPECT_EQ(E_POINTER, ksControl->KsProperty(&get, sizeof(get), buffer, kRequestSize, nullptr));
  bytes = 0;
  EXPECT_EQ(E_POINTER, ksControl->KsProperty(&get, sizeof(get), nullptr, kRequestSize, &bytes));
  EXPECT_EQ(kRequestSize, bytes);

  // Neither GET nor SET (basic support) is not supported.
  KSPROPERTY support = ExposureProperty(KSPROPERTY_TYPE_BASICSUPPORT);
  EXPECT_EQ(kNotSupported, ksControl->KsProperty(&support, sizeof(support), buffer, kRequestSize, &bytes));

  // A length far beyond the real buffer: the control touches its 64 bytes only.
  std::memset(buffer, 0xCD, sizeof(buffer));
  EXPECT_EQ(S_OK, ksControl->KsProperty(&get, sizeof(get), buffer, 0xFFFFFFFFu, &bytes));
  for (size_t i = kRequestSize; i < sizeof(buffer); ++i) ASSERT_EQ(0xCD, buffer[i]) << i;
  EXPECT_TRUE(control->Calls().size() == 1 && control->Calls().back().kind == 'G');

  // The control still works afterwards.
  ASSERT_EQ(S_OK, Arm());
  EXPECT_EQ(S_OK, SetMode(KSCAMERA_EXTENDEDPROP_VIDEOPROCFLAG_AUTO));
  EXPECT_TRUE(Completed());
}

TEST_F(ExposureControlTest, GetReportsHeaderCapabilityAndTheStateFlags) {
  KSPROPERTY get = ExposureProperty(KSPROPERTY_TYPE_GET);
  Request request;
  std::memset(&request, 0xAB, sizeof(request));
  ULONG bytes = 0;
  ASSERT_EQ(S_OK, ksControl->KsProperty(&get, sizeof(get), &request, sizeof(request), &bytes));
  EXPECT_EQ(kRequestSize, bytes);
  EXPECT_EQ(1u, request.header.Version);
  EXPECT_EQ(0xFFFFFFFFu, request.header.PinId);
  EXPECT_EQ(kRequestSize, request.header.Size);
  EXPECT_EQ(0xABABABABu, request.header.Result);  // left as it was
  EXPECT_EQ(0x8000000000000007ull, request.header.Capability);
  EXPECT_EQ(KSCAMERA_EXTENDEDPROP_VIDEOPROCFLAG_AUTO, request.header.Flags);
  EXPECT_EQ(100000, request.setting.Max);
  EXPECT_EQ(3000u, request.setting.VideoProc.Value.ull);

  SetMode(KSCAMERA_EXTENDEDPROP_VIDEOPROCFLAG_MANUAL, 20000);
  EXPECT_EQ(KSCAMERA_EXTENDEDPROP_VIDEOPROCFLAG_MANUAL, ReportedFlags());  // converging
  Frames({20000});
  EXPECT_EQ(KSCAMERA_EXTENDEDPROP_VIDEOPROCFLAG_MANUAL, ReportedFlags());  // converged
  SetMode(KSCAMERA_EXTENDEDPROP_VIDEOPROCFLAG_LOCK);
  EXPECT_EQ(5u, ReportedFlags());  // locking
  Frames({20000, 20000, 20000});
  ASSERT_EQ(ExposureControlState::AutoLocked, control->State());
  EXPECT_EQ(5u, ReportedFlags());  // locked reads auto|lock although the device runs manual

  // A device failure reaches the caller after the header was written.
  control->getResult = E_ACCESSDENIED;
  std::memset(&request, 0, sizeof(request));
  EXPECT_EQ(E_ACCESSDENIED, ksControl->KsProperty(&get, sizeof(get), &request, sizeof(request), &bytes));
  EXPECT_EQ(kRequestSize, request.header.Size);
}

TEST_F(ExposureControlTest, SetWinsWhenBothGetAndSetAreFlagged) {
  ASSERT_EQ(S_OK, SetMode(KSCAMERA_EXTENDEDPROP_VIDEOPROCFLAG_MANUAL, 7000,
                          KSPROPERTY_TYPE_GET | KSPROPERTY_TYPE_SET));
  EXPECT_EQ(ExposureControlState::ManualConverging, control->State());
  ASSERT_EQ(1u, control->Calls().size());
  EXPECT_EQ('M', control->Calls()[0].kind);
}

// ---- Flags ------------------------------------------------------------------------------------------------------

TEST_F(ExposureControlTest, RefusedFlagCombinationsLeaveStateDeviceAndEventUntouched) {
  SetMode(KSCAMERA_EXTENDEDPROP_VIDEOPROCFLAG_MANUAL, 9000);
  Frames({9000});
  ASSERT_EQ(ExposureControlState::ManualConverged, control->State());
  control->ClearCalls();
  ASSERT_EQ(S_OK, Arm());
  for (ULONGLONG flags : {0x0ull, 0x3ull, 0x6ull, 0xCull, 0x7ull, 0x9ull, 0x8ull, 0x8000000000000002ull,
                          0x8000000000000001ull, 0x8000000000000004ull}) {
    EXPECT_EQ(E_INVALIDARG, SetMode(flags, 1234)) << std::hex << flags;
    EXPECT_EQ(ExposureControlState::ManualConverged, control->State()) << std::hex << flags;
  }
  EXPECT_TRUE(control->Calls().empty());
  EXPECT_FALSE(Completed());
  EXPECT_EQ(kInvalidState, Arm());  // the armed event is still waiting for a real request

  // Lock alone and auto|lock are lock requests.
  for (ULONGLONG flags : {0x4ull, 0x5ull}) {
    SetMode(KSCAMERA_EXTENDEDPROP_VIDEOPROCFLAG_MANUAL, 9000);
    ASSERT_EQ(S_OK, SetMode(flags)) << flags;
    EXPECT_EQ(ExposureControlState::AutoLocking, control->State());
    EXPECT_EQ('A', control->Calls().back().kind);
  }
}

// ---- Auto ------------------------------------------------------------------------------------------------------------

TEST_F(ExposureControlTest, AutoCompletesAtOnceAndFailsWhenNoEventIsArmed) {
  SetMode(KSCAMERA_EXTENDEDPROP_VIDEOPROCFLAG_MANUAL, 9000);
  ASSERT_EQ(S_OK, Arm());
  ASSERT_EQ(S_OK, SetMode(KSCAMERA_EXTENDEDPROP_VIDEOPROCFLAG_AUTO));
  EXPECT_TRUE(Completed());
  EXPECT_TRUE(control->IsAuto());
  EXPECT_EQ('A', control->Calls().back().kind);

  // Without an armed event the mode still changes, and the caller learns the event could not be set.
  completion.Reset();
  SetMode(KSCAMERA_EXTENDEDPROP_VIDEOPROCFLAG_MANUAL, 9000);
  EXPECT_FALSE(control->IsAuto());
  EXPECT_EQ(kInvalidState, SetMode(KSCAMERA_EXTENDEDPROP_VIDEOPROCFLAG_AUTO));
  EXPECT_TRUE(control->IsAuto());
  EXPECT_FALSE(Completed());
}

TEST_F(ExposureControlTest, DeviceFailuresAreReturnedAfterTheStateChanged) {
  ASSERT_EQ(S_OK, Arm());
  control->setManualResult = E_ACCESSDENIED;
  EXPECT_EQ(E_ACCESSDENIED, SetMode(KSCAMERA_EXTENDEDPROP_VIDEOPROCFLAG_MANUAL, 5000));
  EXPECT_EQ(ExposureControlState::ManualConverging, control->State());

  control->setAutoResult = E_ACCESSDENIED;
  EXPECT_EQ(E_ACCESSDENIED, SetMode(KSCAMERA_EXTENDEDPROP_VIDEOPROCFLAG_LOCK));
  EXPECT_EQ(ExposureControlState::AutoLocking, control->State());
  EXPECT_EQ(E_ACCESSDENIED, SetMode(KSCAMERA_EXTENDEDPROP_VIDEOPROCFLAG_AUTO));
  EXPECT_EQ(ExposureControlState::Auto, control->State());
  EXPECT_FALSE(Completed());  // a failed auto request is not signalled
}

// ---- Manual convergence -------------------------------------------------------------------------------------------

TEST_F(ExposureControlTest, ManualCompletesOnTheFirstLaterFrameStrictlyWithinTheDelta) {
  Frames({10000});  // already there before the request: only a frame after it counts
  ASSERT_EQ(S_OK, Arm());
  // Only the low 32 bits of the value are the exposure.
  ASSERT_EQ(S_OK, SetMode(KSCAMERA_EXTENDEDPROP_VIDEOPROCFLAG_MANUAL, 0x500000000ull + 10000));
  ASSERT_EQ(1u, control->Calls().size());
  EXPECT_EQ(10000u, control->Calls()[0].value);
  EXPECT_FALSE(Completed());

  Frames({10600, 9400});  // 600 away
  Frames({10500, 9500});  // exactly the delta does not count
  EXPECT_FALSE(Completed());
  EXPECT_EQ(ExposureControlState::ManualConverging, control->State());
  Frames({9501});
  EXPECT_TRUE(Completed());
  EXPECT_EQ(ExposureControlState::ManualConverged, control->State());

  // Later frames, near or far, do not complete anything again.
  completion.Reset();
  Frames({10000, 50000, 10000});
  EXPECT_FALSE(Completed());
  EXPECT_EQ(ExposureControlState::ManualConverged, control->State());
  EXPECT_EQ(S_OK, Arm());  // the completed request released the event
}

TEST_F(ExposureControlTest, DistancesAreTakenWithoutUnsignedWrap) {
  Build(500, 100, 1);
  ASSERT_EQ(S_OK, Arm());
  ASSERT_EQ(S_OK, SetMode(KSCAMERA_EXTENDEDPROP_VIDEOPROCFLAG_MANUAL, 0xFFFFFF00u));
  Frames({0x10});  // a wrapping subtraction would read 272 as near
  EXPECT_FALSE(Completed());
  Frames({0xFFFFFFFFu});
  EXPECT_TRUE(Completed());
  completion.Reset();

  // Lock: a frame of 0 after one of 0xFFFFFFFF is a jump, not a step of 1.
  ASSERT_EQ(S_OK, Arm());
  ASSERT_EQ(S_OK, SetMode(KSCAMERA_EXTENDEDPROP_VIDEOPROCFLAG_LOCK));
  Frames({0});
  EXPECT_FALSE(Completed());
  Frames({0});
  EXPECT_TRUE(Completed());
}

// ---- Auto-lock ----------------------------------------------------------------------------------------------------------

TEST_F(ExposureControlTest, LockOnTheNthStableFrameAfterAJumpRestartsTheCount) {
  Frames({5000});  // the frame before the request
  ASSERT_EQ(S_OK, Arm());
  ASSERT_EQ(S_OK, SetMode(KSCAMERA_EXTENDEDPROP_VIDEOPROCFLAG_AUTO | KSCAMERA_EXTENDEDPROP_VIDEOPROCFLAG_LOCK));
  ASSERT_EQ(1u, control->Calls().size());
  EXPECT_EQ('A', control->Calls()[0].kind);

  Frames({5050, 5060});  // two stable frames, the first compared with the frame before the request
  Frames({5160});         // a change of exactly the delta is a jump
  Frames({5160, 5161});  // two stable again
  EXPECT_FALSE(Completed());
  EXPECT_EQ(ExposureControlState::AutoLocking, control->State());
  Frames({5161});  // third consecutive stable frame (no change counts as stable)
  EXPECT_TRUE(Completed());
  EXPECT_EQ(ExposureControlState::AutoLocked, control->State());
  ASSERT_EQ(2u, control->Calls().size());
  EXPECT_EQ('M', control->Calls()[1].kind);
  EXPECT_EQ(5161u, control->Calls()[1].value);  // the current frame's exposure is frozen

  completion.Reset();
  Frames({5161, 9000, 5161});
  EXPECT_FALSE(Completed());
  EXPECT_EQ(2u, control->Calls().size());
}

TEST_F(ExposureControlTest, FirstLockFrameIsComparedWithTheFrameBeforeTheRequest) {
  Build(500, 100, 1);
  Frames({1000});
  ASSERT_EQ(S_OK, Arm());
  ASSERT_EQ(S_OK, SetMode(KSCAMERA_EXTENDEDPROP_VIDEOPROCFLAG_LOCK));
  Frames({1200});  // 200 from the frame before the request: not stable
  EXPECT_FALSE(Completed());
  Frames({1250});
  EXPECT_TRUE(Completed());

  // A new lock request restarts the count from zero.
  completion.Reset();
  Build(500, 100, 2);
  Frames({1000});
  SetMode(KSCAMERA_EXTENDEDPROP_VIDEOPROCFLAG_LOCK);
  Frames({1000});
  ASSERT_EQ(S_OK, Arm());
  SetMode(KSCAMERA_EXTENDEDPROP_VIDEOPROCFLAG_LOCK);
  Frames({1000});
  EXPECT_FALSE(Completed());
  Frames({1000});
  EXPECT_TRUE(Completed());
}

// ---- Threads ---------------------------------------------------------------------------------------------------------

// Requests and reads from one thread, frames from a streaming thread, and an application thread that
// arms a fresh completion event for every request and waits on it.
TEST_F(ExposureControlTest, RequestsFramesAndCompletionEventsOnThreeThreadsAllComplete) {
  Build(500, 100, 2);
  Event armRequested;
  Event armed;
  Event waited;
  DWORD handlesBefore = 0;
  ASSERT_TRUE(GetProcessHandleCount(GetCurrentProcess(), &handlesBefore));

  std::atomic<bool> streaming{true};
  std::thread frames([&] {
    while (streaming) {
      control->OnSample(control->deviceExposure.load());
      Sleep(1);
    }
  });

  std::atomic<bool> armerRunning{true};
  std::atomic<int> completed{0};
  std::atomic<int> failures{0};
  std::thread application([&] {
    while (true) {
      armRequested.Wait(INFINITE);
      if (!armerRunning) return;
      Event completion;
      if (Arm(completion.Get()) != S_OK) ++failures;
      armed.Set();
      if (completion.Wait(5000) == WAIT_OBJECT_0) {
        ++completed;
      } else {
        ++failures;
      }
      waited.Set();
    }
  });

  const ULONGLONG modes[] = {KSCAMERA_EXTENDEDPROP_VIDEOPROCFLAG_MANUAL, KSCAMERA_EXTENDEDPROP_VIDEOPROCFLAG_LOCK,
                             KSCAMERA_EXTENDEDPROP_VIDEOPROCFLAG_AUTO,
                             KSCAMERA_EXTENDEDPROP_VIDEOPROCFLAG_AUTO | KSCAMERA_EXTENDEDPROP_VIDEOPROCFLAG_LOCK};
  int requests = 0;
  const ULONGLONG end = GetTickCount64() + 3000;
  while (GetTickCount64() < end && failures == 0) {
    armRequested.Set();
    ASSERT_EQ(WAIT_OBJECT_0, armed.Wait(5000));
    const ULONGLONG mode = modes[requests % 4];
    EXPECT_EQ(S_OK, SetMode(mode, 1000 + 10 * (requests % 50)));
    // Reads while the request converges.
    for (int i = 0; i < 3; ++i) ReportedFlags();
    ASSERT_EQ(WAIT_OBJECT_0, waited.Wait(10000));
    ++requests;
  }
  armerRunning = false;
  armRequested.Set();
  application.join();
  streaming = false;
  frames.join();

  EXPECT_EQ(0, failures.load());
  EXPECT_EQ(requests, completed.load());
  EXPECT_GT(requests, 20);
  DWORD handlesAfter = 0;
  ASSERT_TRUE(GetProcessHandleCount(GetCurrentProcess(), &handlesAfter));
  EXPECT_EQ(handlesBefore, handlesAfter);
}

// Arming on one thread while two others keep setting: each duplicate is set and closed exactly once.
TEST(OneShotEventRaceTest, ArmingAndSettingFromTwoThreadsNeitherLeaksNorSetsAReplacedHandle) {
  auto handler = std::make_shared<OneShotKsEventHandler>(KSEVENTSETID_ExtendedCameraControl, 12, "race", nullptr);
  DWORD handlesBefore = 0;
  ASSERT_TRUE(GetProcessHandleCount(GetCurrentProcess(), &handlesBefore));
  std::atomic<bool> running{true};
  std::atomic<int> sets{0};
  auto setLoop = [&] {
    while (running) {
      if (handler->Set() == S_OK) ++sets;
    }
  };
  // Two setters: a duplicate must be set and closed by exactly one of them.
  std::thread setter(setLoop);
  std::thread secondSetter(setLoop);
  int arms = 0;
  for (int i = 0; i < 1000; ++i) {
    Event completion(true);
    KSEVENT event{};
    event.Set = KSEVENTSETID_ExtendedCameraControl;
    event.Id = 12;
    event.Flags = KSEVENT_TYPE_ENABLE | KSEVENT_TYPE_ONESHOT;
    KSEVENTDATA data{};
    data.NotificationType = KSEVENTF_EVENT_HANDLE;
    data.EventHandle.Event = completion.Get();
    while (handler->Run(&event, sizeof(event), &data, sizeof(data), nullptr) != S_OK) {
    }
    ++arms;
    ASSERT_EQ(WAIT_OBJECT_0, completion.Wait(5000));
  }
  running = false;
  setter.join();
  secondSetter.join();
  EXPECT_EQ(arms, sets.load());
  DWORD handlesAfter = 0;
  ASSERT_TRUE(GetProcessHandleCount(GetCurrentProcess(), &handlesAfter));
  EXPECT_EQ(handlesBefore, handlesAfter);
}

}  // namespace
}  // namespace mft_core
