#include <gtest/gtest.h>

#include <memory>
#include <new>

#include "common/FakeKsControl.h"
#include "common/RecordingKsControlsObserver.h"
#include "mft_core/ks/KsControlsDispatcher.h"
#include "user_space_frameworks/ComObject.h"

namespace mft_core {
namespace {

using Microsoft::WRL::ComPtr;
using test_support::FakeKsControl;
using test_support::RecordingKsControlsObserver;

// {1B2C3D4E-0000-4000-8000-00000000AA01}
const GUID kSetS = {0x1b2c3d4e, 0x0000, 0x4000, {0x80, 0x00, 0x00, 0x00, 0x00, 0x00, 0xaa, 0x01}};
const GUID kSetT = {0x1b2c3d4e, 0x0000, 0x4000, {0x80, 0x00, 0x00, 0x00, 0x00, 0x00, 0xaa, 0x02}};
constexpr HRESULT kSetNotFound = HRESULT_FROM_WIN32(ERROR_SET_NOT_FOUND);
constexpr HRESULT kNotFound = HRESULT_FROM_WIN32(ERROR_NOT_FOUND);
constexpr HRESULT kInvalidState = HRESULT_FROM_WIN32(ERROR_INVALID_STATE);
constexpr HRESULT kMoreData = HRESULT_FROM_WIN32(ERROR_MORE_DATA);

class TestDispatcher : public KsControlsDispatcher {
  WQ_IMPLEMENT_IUNKNOWN(TestDispatcher, IKsControl)
};

// A property handler that answers with a fixed code and counts its runs.
class AnsweringHandler : public KsPropHandler {
 public:
  AnsweringHandler(REFGUID set, ULONG id, HRESULT answer) : KsPropHandler(set, id, "answering", nullptr), answer(answer) {}
  HRESULT Run(PKSIDENTIFIER, ULONG, LPVOID, ULONG, ULONG *) override {
    ++runs;
    return answer;
  }
  HRESULT answer;
  int runs = 0;
};

class ThrowingHandler : public KsPropHandler {
 public:
  ThrowingHandler(void (*thrower)()) : KsPropHandler(kSetS, 1, "throwing", nullptr), thrower(thrower) {}
  HRESULT Run(PKSIDENTIFIER, ULONG, LPVOID, ULONG, ULONG *) override {
    thrower();
    return S_OK;
  }
  void (*thrower)();
};

KSPROPERTY Property(REFGUID set, ULONG id, ULONG flags) { return {set, id, flags}; }

class KsControlsDispatcherTest : public ::testing::Test {
 protected:
  void SetUp() override {
    dispatcher = user_space_frameworks::MakeComObject<TestDispatcher>();
    ASSERT_EQ(S_OK, dispatcher.As(&ksControl));
    driver = user_space_frameworks::MakeComObject<FakeKsControl>();
  }
  HRESULT Get(REFGUID set, ULONG id, ULONG flags = KSPROPERTY_TYPE_GET) {
    KSPROPERTY property = Property(set, id, flags);
    ULONG value = 0;
    ULONG bytes = 0;
    return ksControl->KsProperty(&property, sizeof(property), &value, sizeof(value), &bytes);
  }

  ComPtr<TestDispatcher> dispatcher;
  ComPtr<IKsControl> ksControl;
  ComPtr<FakeKsControl> driver;
};

TEST_F(KsControlsDispatcherTest, FirstRegisteredMatchAnswersForEveryFlagWhateverComesLater) {
  auto specific = std::make_shared<AnsweringHandler>(kSetS, 5, S_FALSE);
  auto completeSet = std::make_shared<CompleteSetPropsHandler>(driver.Get(), kSetS, "extension unit");
  ASSERT_EQ(S_OK, dispatcher->RegisterKsPropertyHandler(specific));
  ASSERT_EQ(S_OK, dispatcher->RegisterKsPropertyHandler(completeSet));
  ASSERT_EQ(S_OK, dispatcher->RegisterKsPropertyDefaultHandler(std::make_shared<PassthroughKsPropsHandler>(nullptr)));

  for (ULONG flags : {KSPROPERTY_TYPE_GET, KSPROPERTY_TYPE_SET, KSPROPERTY_TYPE_BASICSUPPORT}) {
    EXPECT_EQ(S_FALSE, Get(kSetS, 5, flags));
  }
  EXPECT_EQ(3, specific->runs);
  // Other ids of the set go to the complete-set handler's control, unchanged.
  EXPECT_EQ(S_OK, Get(kSetS, 7));
  ASSERT_EQ(1u, driver->Requests().size());
  EXPECT_EQ(7u, driver->Requests()[0].id);
  EXPECT_EQ(sizeof(KSPROPERTY), driver->Requests()[0].identifierLength);

  // In the other order the complete-set handler answers first, and the later one is never reached.
  auto late = std::make_shared<AnsweringHandler>(kSetT, 5, S_FALSE);
  ASSERT_EQ(S_OK, dispatcher->RegisterKsPropertyHandler(std::make_shared<CompleteSetPropsHandler>(driver.Get(), kSetT, "xu")));
  ASSERT_EQ(S_OK, dispatcher->RegisterKsPropertyHandler(late));
  driver->Script({E_ACCESSDENIED});
  EXPECT_EQ(E_ACCESSDENIED, Get(kSetT, 5));
  EXPECT_EQ(0, late->runs);
}

TEST_F(KsControlsDispatcherTest, RegistrationRefusesEmptyAndDuplicateHandlers) {
  EXPECT_EQ(E_INVALIDARG, dispatcher->RegisterKsPropertyHandler(nullptr));
  EXPECT_EQ(E_INVALIDARG, dispatcher->RegisterKsEventHandler(nullptr));
  EXPECT_EQ(E_INVALIDARG, dispatcher->RegisterKsMethodDefaultHandler(nullptr));

  auto first = std::make_shared<AnsweringHandler>(kSetT, 2, S_FALSE);
  ASSERT_EQ(S_OK, dispatcher->RegisterKsPropertyHandler(first));
  EXPECT_EQ(E_FAIL, dispatcher->RegisterKsPropertyHandler(std::make_shared<AnsweringHandler>(kSetT, 2, E_ABORT)));
  EXPECT_EQ(S_FALSE, Get(kSetT, 2));

  // A complete-set handler counts as (set, 0).
  ASSERT_EQ(S_OK, dispatcher->RegisterKsPropertyHandler(std::make_shared<CompleteSetPropsHandler>(driver.Get(), kSetS, "xu")));
  EXPECT_EQ(E_FAIL, dispatcher->RegisterKsPropertyHandler(std::make_shared<KsPropHandler>(kSetS, 0, "blocker", nullptr)));
  EXPECT_EQ(S_OK, dispatcher->RegisterKsPropertyHandler(std::make_shared<KsPropHandler>(kSetS, 1, "blocker", nullptr)));

  // Defaults replace each other without error; the last one answers.
  ASSERT_EQ(S_OK, dispatcher->RegisterKsMethodDefaultHandler(std::make_shared<KsMethodHandler>(kSetT, 9, "a", nullptr)));
  ASSERT_EQ(S_OK, dispatcher->RegisterKsMethodDefaultHandler(std::make_shared<PassthroughKsMethodsHandler>(driver.Get())));
  KSMETHOD method = Property(kSetT, 3, KSMETHOD_TYPE_SEND);
  EXPECT_EQ(S_OK, ksControl->KsMethod(&method, sizeof(method), nullptr, 0, nullptr));
  EXPECT_EQ(1u, driver->Count(KsControlType::Method));
}

TEST_F(KsControlsDispatcherTest, UnclaimedRequestsWithoutDefaultAreSetNotFoundAndObserved) {
  auto observer = std::make_shared<RecordingKsControlsObserver>();
  dispatcher->AddKsControlsObserver(observer);
  EXPECT_EQ(kSetNotFound, Get(kSetT, 1));
  KSEVENT event = Property(kSetT, 1, KSEVENT_TYPE_ENABLE);
  EXPECT_EQ(kSetNotFound, ksControl->KsEvent(&event, sizeof(event), nullptr, 0, nullptr));
  KSMETHOD method = Property(kSetT, 1, KSMETHOD_TYPE_SEND);
  EXPECT_EQ(kSetNotFound, ksControl->KsMethod(&method, sizeof(method), nullptr, 0, nullptr));
  // Null and short identifiers cannot be routed, and are not read.
  EXPECT_EQ(kSetNotFound, ksControl->KsProperty(nullptr, 0, nullptr, 0, nullptr));
  EXPECT_EQ(kSetNotFound, ksControl->KsProperty(&event, 8, nullptr, 0, nullptr));

  const auto entries = observer->Entries();
  ASSERT_EQ(10u, entries.size());
  const KsControlType types[] = {KsControlType::Property, KsControlType::Event, KsControlType::Method,
                                 KsControlType::Property, KsControlType::Property};
  for (size_t i = 0; i < 5; ++i) {
    EXPECT_FALSE(entries[2 * i].exit);
    EXPECT_TRUE(entries[2 * i + 1].exit);
    EXPECT_EQ(types[i], entries[2 * i].type);
    EXPECT_EQ(kSetNotFound, entries[2 * i + 1].result);
  }
}

// Which code each kind of exception becomes is the guard's own concern; here: requests run guarded.
TEST_F(KsControlsDispatcherTest, AnExceptionFromAHandlerBecomesACode) {
  ASSERT_EQ(S_OK, dispatcher->RegisterKsPropertyHandler(std::make_shared<ThrowingHandler>([] { throw std::bad_alloc(); })));
  EXPECT_EQ(E_OUTOFMEMORY, Get(kSetS, 1));
}

// ---- Event handlers --------------------------------------------------------------------------------------------

class EventHandlerTest : public KsControlsDispatcherTest {
 protected:
  void SetUp() override {
    KsControlsDispatcherTest::SetUp();
    applicationEvent = CreateEventW(nullptr, FALSE, FALSE, nullptr);
    ASSERT_NE(nullptr, applicationEvent);
    eventData.NotificationType = KSEVENTF_EVENT_HANDLE;
    eventData.EventHandle.Event = applicationEvent;
  }
  void TearDown() override { CloseHandle(applicationEvent); }
  HRESULT Arm(ULONG id, ULONG flags, ULONG dataLength = sizeof(KSEVENTDATA)) {
    KSEVENT event = Property(kSetS, id, flags);
    ULONG bytes = 0;
    return ksControl->KsEvent(&event, sizeof(event), &eventData, dataLength, &bytes);
  }
  bool Signalled() { return WaitForSingleObject(applicationEvent, 0) == WAIT_OBJECT_0; }

  HANDLE applicationEvent = nullptr;
  KSEVENTDATA eventData{};
};

TEST_F(EventHandlerTest, OneShotRefusesBadArmsThenArmsOnceSignalsAndRearms) {
  auto oneShot = std::make_shared<OneShotKsEventHandler>(kSetS, 3, "async", nullptr);
  ASSERT_EQ(S_OK, dispatcher->RegisterKsEventHandler(oneShot));

  EXPECT_EQ(kInvalidState, oneShot->Set());
  EXPECT_EQ(E_NOTIMPL, Arm(3, KSEVENT_TYPE_ENABLE));
  EXPECT_EQ(E_INVALIDARG, Arm(3, KSEVENT_TYPE_ONESHOT, sizeof(KSEVENTDATA) - 1));
  KSEVENT event = Property(kSetS, 3, KSEVENT_TYPE_ONESHOT);
  EXPECT_EQ(E_INVALIDARG, ksControl->KsEvent(&event, sizeof(event), nullptr, 0, nullptr));
  eventData.EventHandle.Event = reinterpret_cast<HANDLE>(static_cast<ULONG_PTR>(0x7ffc));  // not a handle
  EXPECT_TRUE(FAILED(Arm(3, KSEVENT_TYPE_ONESHOT)));
  eventData.EventHandle.Event = applicationEvent;
  EXPECT_FALSE(oneShot->IsArmed());

  ASSERT_EQ(S_OK, Arm(3, KSEVENT_TYPE_ONESHOT));
  EXPECT_EQ(kInvalidState, Arm(3, KSEVENT_TYPE_ONESHOT));
  EXPECT_FALSE(Signalled());
  EXPECT_EQ(S_OK, oneShot->Set());
  EXPECT_TRUE(Signalled());
  EXPECT_EQ(kInvalidState, oneShot->Set());
  EXPECT_EQ(S_OK, Arm(3, KSEVENT_TYPE_ONESHOT));
  EXPECT_EQ(S_OK, oneShot->Set());
  EXPECT_TRUE(Signalled());
}

TEST_F(EventHandlerTest, RegularEventIsArmedByEnableAndReleasedByTheDisableForm) {
  auto regular = std::make_shared<RegularKsEventHandler>(kSetS, 8, "regular", nullptr);
  auto observer = std::make_shared<RecordingKsControlsObserver>();
  ASSERT_EQ(S_OK, dispatcher->RegisterKsEventHandler(regular));
  ASSERT_EQ(S_OK, dispatcher->RegisterKsEventDefaultHandler(std::make_shared<PassthroughKsEventsHandler>(driver.Get())));
  dispatcher->AddKsControlsObserver(observer);

  EXPECT_EQ(E_NOTIMPL, Arm(8, KSEVENT_TYPE_ONESHOT));
  ASSERT_EQ(S_OK, Arm(8, KSEVENT_TYPE_ENABLE));
  EXPECT_TRUE(regular->IsArmed());
  const size_t observed = observer->Entries().size();

  // The disable form names the data; data this handler did not record is not found, and neither the
  // driver nor the observers hear of it.
  ULONG bytes = 0;
  EXPECT_EQ(kNotFound, ksControl->KsEvent(nullptr, 0, &eventData, sizeof(eventData), &bytes));
  EXPECT_TRUE(regular->IsArmed());
  EXPECT_EQ(S_OK, ksControl->KsEvent(nullptr, 0, nullptr, 0, &bytes));
  EXPECT_FALSE(regular->IsArmed());
  EXPECT_EQ(observed, observer->Entries().size());
  EXPECT_TRUE(driver->Requests().empty());

  ASSERT_EQ(S_OK, Arm(8, KSEVENT_TYPE_ENABLE));
  EXPECT_EQ(S_OK, regular->Set());
  EXPECT_TRUE(Signalled());
  EXPECT_FALSE(regular->IsArmed());
  EXPECT_EQ(kInvalidState, regular->Set());
}

TEST_F(EventHandlerTest, DestroyingAnArmedHandlerClosesItsDuplicate) {
  DWORD before = 0;
  DWORD after = 0;
  ASSERT_TRUE(GetProcessHandleCount(GetCurrentProcess(), &before));
  {
    OneShotKsEventHandler oneShot(kSetS, 3, "async", nullptr);
    KSEVENT event = Property(kSetS, 3, KSEVENT_TYPE_ONESHOT);
    ASSERT_EQ(S_OK, oneShot.Run(&event, sizeof(event), &eventData, sizeof(eventData), nullptr));
  }
  ASSERT_TRUE(GetProcessHandleCount(GetCurrentProcess(), &after));
  EXPECT_EQ(before, after);
}

// ---- Warm start ------------------------------------------------------------------------------------------------

struct WarmStartCase {
  const char *name;
  ULONG flags;
  ULONG length;
  bool withData;
  ULONGLONG headerFlags;
  HRESULT expected;
  ULONG bytes;
};

class WarmStartTest : public ::testing::TestWithParam<WarmStartCase> {};

TEST_P(WarmStartTest, AnswersBySizeAndFlags) {
  const WarmStartCase &c = GetParam();
  WarmStartKsPropsHandler handler;
  KSPROPERTY property = Property(KSPROPERTYSETID_ExtendedCameraControl, KSPROPERTY_CAMERACONTROL_EXTENDED_WARMSTART, c.flags);
  EXPECT_TRUE(handler.IsMatch(&property));
  BYTE payload[64] = {};
  auto *header = reinterpret_cast<KSCAMERA_EXTENDEDPROP_HEADER *>(payload);
  header->PinId = 0x1234;
  header->Flags = c.headerFlags;
  ULONG bytes = 99;
  EXPECT_EQ(c.expected, handler.Run(&property, sizeof(property), c.withData ? payload : nullptr, c.length, &bytes));
  EXPECT_EQ(c.bytes, bytes);
  EXPECT_EQ(0x1234u, header->PinId);
}

const WarmStartCase kWarmStartCases[] = {
    {"SetEmpty", KSPROPERTY_TYPE_SET, 0, true, 0, kMoreData, 40},
    {"SetShort", KSPROPERTY_TYPE_SET, 39, true, 0, kMoreData, 0},
    {"SetNoData", KSPROPERTY_TYPE_SET, 40, false, 0, S_OK, 0},
    {"SetEnable", KSPROPERTY_TYPE_SET, 40, true, 1, E_INVALIDARG, 0},
    {"SetDisable", KSPROPERTY_TYPE_SET, 40, true, 0, S_OK, 16},
    {"GetEmpty", KSPROPERTY_TYPE_GET, 0, true, 0, kMoreData, 40},
    {"GetShort", KSPROPERTY_TYPE_GET, 1, true, 0, kMoreData, 0},
    {"GetNoData", KSPROPERTY_TYPE_GET, 40, false, 0, S_OK, 0},
    {"Get", KSPROPERTY_TYPE_GET, 64, true, 0, S_OK, 40},
    {"Neither", KSPROPERTY_TYPE_BASICSUPPORT, 64, true, 0, S_OK, 0},
};
INSTANTIATE_TEST_SUITE_P(Cases, WarmStartTest, ::testing::ValuesIn(kWarmStartCases),
                         [](const auto &info) { return std::string(info.param.name); });

TEST(WarmStartGetTest, ReportsOffWithAsyncCapability) {
  WarmStartKsPropsHandler handler;
  KSPROPERTY property = Property(KSPROPERTYSETID_ExtendedCameraControl, 4, KSPROPERTY_TYPE_GET);
  BYTE payload[40];
  memset(payload, 0xcc, sizeof(payload));
  ULONG bytes = 0;
  ASSERT_EQ(S_OK, handler.Run(&property, sizeof(property), payload, sizeof(payload), &bytes));
  const auto *header = reinterpret_cast<const KSCAMERA_EXTENDEDPROP_HEADER *>(payload);
  EXPECT_EQ(1u, header->Version);
  EXPECT_EQ(40u, header->Size);
  EXPECT_EQ(0u, header->Result);
  EXPECT_EQ(0u, header->Flags);
  EXPECT_EQ(KSCAMERA_EXTENDEDPROP_CAPS_ASYNCCONTROL, header->Capability);
  EXPECT_EQ(0xccu, payload[32]);  // the value is left alone
}

}  // namespace
}  // namespace mft_core
