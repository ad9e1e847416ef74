// The product's private properties, firmware error handler and device information against the
// simulated depth camera, reached as an application and the driver reach them.
#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <vector>

#include "common/Waiting.h"
#include "mft_core/ks/ExtensionUnitKsControl.h"
#include "mft_core/ks/FirmwareCommandPipe.h"
#include "mft_core/ks/KsControlsDispatcher.h"
#include "mft_core/ks/KsEventListener.h"
#include "mft_core/transform/MediaEventGenerator.h"
#include "product/controls/WQ400ApiVersion.h"
#include "product/controls/WQ400FwErrorHandler.h"
#include "product/controls/WQ400HwCommandKsPropertyHandler.h"
#include "product/controls/WQ400PrivateProperties.h"
#include "product/device/WQ400DeviceInfo.h"
#include "sim/DeviceInfoTable.h"
#include "sim/SimulatedCameraFilter.h"
#include "user_space_frameworks/ComObject.h"
#include "user_space_frameworks/Trace.h"

namespace mft_core {
namespace {

using Microsoft::WRL::ComPtr;
using user_space_frameworks::CapturingTraceSink;
using user_space_frameworks::TraceLevel;

constexpr HRESULT kMoreData = HRESULT_FROM_WIN32(ERROR_MORE_DATA);
constexpr ULONG kDepthXuNode = 2;

class TestDispatcher : public KsControlsDispatcher {
  WQ_IMPLEMENT_IUNKNOWN(TestDispatcher, IKsControl)
};

class TestEventQueue : public MediaEventGenerator {
  WQ_IMPLEMENT_IUNKNOWN(TestEventQueue, IMFMediaEventGenerator)
};

// The simulated depth camera with its extension unit and firmware pipe opened as the transform does.
class DepthCameraTest : public ::testing::Test {
 protected:
  void SetUp() override {
    filter = sim::SimulatedCameraFilter::Create(sim::DepthCamera());
    ASSERT_TRUE(filter);
    ComPtr<IMFTransform> transform;
    ASSERT_EQ(S_OK, filter.As(&transform));
    ASSERT_EQ(S_OK, filter.As(&filterKsControl));
    xu = user_space_frameworks::MakeComObject<ExtensionUnitKsControl>(sim::kDepthXuSet, "Depth ");
    ASSERT_EQ(S_OK, xu->Init(transform, filterKsControl, 1));
    pipe = std::make_shared<FirmwareCommandPipe>(ComPtr<IKsControl>(xu.Get()), sim::kDepthXuSet, 1, "Depth");
    dispatcher = user_space_frameworks::MakeComObject<TestDispatcher>();
    ASSERT_EQ(S_OK, dispatcher.As(&ksControl));
    ASSERT_EQ(S_OK, dispatcher->RegisterKsPropertyHandler(std::make_shared<WQ400ApiVersion>()));
    ASSERT_EQ(S_OK, dispatcher->RegisterKsPropertyHandler(std::make_shared<WQ400HwCommandKsPropertyHandler>(pipe)));
    filter->ClearRequests();
  }

  HRESULT HwCommand(ULONG flags, ULONG opCode, void *data, ULONG dataLength, ULONG *bytes,
                    ULONG identifierLength = sizeof(KSPROPERTY_WQ400_CONTROL_HW_COMMAND)) {
    KSPROPERTY_WQ400_CONTROL_HW_COMMAND command{};
    command.property.Set = PROPSETID_WQ400_PRIVATE;
    command.property.Id = KSPROPERTY_WQ400_CONTROL_HW_COMMAND_ID;
    command.property.Flags = flags;
    command.opCode = opCode;
    command.param1 = 11;
    command.param2 = 22;
    command.param3 = 33;
    command.param4 = 0xFFFFFFFF;
    return ksControl->KsProperty(&command.property, identifierLength, data, dataLength, bytes);
  }

  ComPtr<sim::SimulatedCameraFilter> filter;
  ComPtr<IKsControl> filterKsControl;
  ComPtr<ExtensionUnitKsControl> xu;
  std::shared_ptr<FirmwareCommandPipe> pipe;
  ComPtr<TestDispatcher> dispatcher;
  ComPtr<IKsControl> ksControl;
};

// ---- API version ------------------------------------------------------------------------------------------------

TEST_F(DepthCameraTest, ApiVersionIsTwoThreeAndReadOnly) {
  KSPROPERTY property{PROPSETID_WQ400_PRIVATE, KSPROPERTY_WQ400_API_VERSION_ID, KSPROPERTY_TYPE_GET};
  ULONG words[3] = {0xEEEEEEEE, 0xEEEEEEEE, 0xEEEEEEEE};
  ULONG bytes = 0;
  EXPECT_EQ(kMoreData, ksControl->KsProperty(&property, sizeof(property), words, 4, &bytes));
  EXPECT_EQ(8u, bytes);
  EXPECT_EQ(0xEEEEEEEEu, words[0]);
  bytes = 0;
  EXPECT_EQ(kMoreData, ksControl->KsProperty(&property, sizeof(property), nullptr, 0, &bytes));
  EXPECT_EQ(8u, bytes);

  ASSERT_EQ(S_OK, ksControl->KsProperty(&property, sizeof(property), words, 8, &bytes));
  EXPECT_EQ(2u, words[0]);
  EXPECT_EQ(3u, words[1]);
  EXPECT_EQ(0xEEEEEEEEu, words[2]);
  EXPECT_EQ(8u, bytes);

  property.Flags = KSPROPERTY_TYPE_SET;
  EXPECT_EQ(E_UNEXPECTED, ksControl->KsProperty(&property, sizeof(property), words, 8, &bytes));
  property.Flags = KSPROPERTY_TYPE_BASICSUPPORT;
  EXPECT_EQ(E_INVALIDARG, ksControl->KsProperty(&property, sizeof(property), words, 8, &bytes));
  property.Flags = KSPROPERTY_TYPE_GET;
  EXPECT_EQ(E_POINTER, ksControl->KsProperty(&property, sizeof(property), words, 8, nullptr));
  EXPECT_EQ(E_POINTER, ksControl->KsProperty(&property, sizeof(property), nullptr, 8, &bytes));
  EXPECT_TRUE(filter->Requests().empty());  // never reaches the driver
}

// ---- Hardware command ---------------------------------------------------------------------------------------------

TEST_F(DepthCameraTest, HardwareCommandSetSendsTheCommandToTheUnitsNode) {
  BYTE data[5] = {1, 2, 3, 4, 5};
  ULONG bytes = 0;
  ASSERT_EQ(S_OK, HwCommand(KSPROPERTY_TYPE_SET, 0x42, data, sizeof(data), &bytes));
  EXPECT_EQ(44u, bytes);
  // The request's opcode, parameters and data make the command (framed as the pipe's own tests check).
  const auto commands = filter->FirmwareCommands();
  ASSERT_EQ(1u, commands.size());
  EXPECT_EQ(0x42u, commands[0].opcode);
  EXPECT_EQ((std::vector<uint32_t>{11, 22, 33, 0xFFFFFFFF}),
            std::vector<uint32_t>(std::begin(commands[0].params), std::end(commands[0].params)));
  EXPECT_EQ(std::vector<BYTE>(data, data + 5), commands[0].data);
  for (const auto &request : filter->Requests()) EXPECT_EQ(kDepthXuNode, request.node);
}

TEST_F(DepthCameraTest, HardwareCommandGetReturnsTheReplyAndKeepsFortyFourBytesReturned) {
  std::vector<BYTE> reply(sim::kDeviceInfoTableSize, 0);
  ULONG bytes = 0;
  ASSERT_EQ(S_OK, HwCommand(KSPROPERTY_TYPE_GET, sim::kFirmwareOpcodeDeviceInfo, reply.data(),
                            static_cast<ULONG>(reply.size()), &bytes));
  EXPECT_EQ(44u, bytes);
  EXPECT_EQ(sim::DeviceInfoTable(sim::DeviceInfoConfig{}), reply);
  ASSERT_EQ(1u, filter->FirmwareCommands().size());
  EXPECT_EQ(20u, filter->FirmwareCommands()[0].length);

  // 1020 reply bytes is the most a command can return.
  std::vector<BYTE> large(1021, 0);
  EXPECT_EQ(S_OK, HwCommand(KSPROPERTY_TYPE_GET, 0x30, large.data(), 1020, &bytes));
  EXPECT_EQ(E_INVALIDARG, HwCommand(KSPROPERTY_TYPE_GET, 0x30, large.data(), 1021, &bytes));
  EXPECT_EQ(44u, bytes);
  EXPECT_EQ(2u, filter->FirmwareCommands().size());
}

TEST_F(DepthCameraTest, HardwareCommandRefusesBadRequestsWithoutSendingAnything) {
  std::vector<BYTE> buffer(512, 0xCD);
  ULONG bytes = 0;
  // A plain 24-byte identifier has no room for the command.
  EXPECT_EQ(kMoreData, HwCommand(KSPROPERTY_TYPE_GET, 0x10, buffer.data(), 512, &bytes, sizeof(KSPROPERTY)));
  EXPECT_EQ(44u, bytes);
  EXPECT_EQ(kMoreData, HwCommand(KSPROPERTY_TYPE_SET, 0x10, buffer.data(), 512, &bytes, 43));
  EXPECT_EQ(E_POINTER, HwCommand(KSPROPERTY_TYPE_GET, 0x10, buffer.data(), 16, nullptr));
  EXPECT_EQ(E_POINTER, HwCommand(KSPROPERTY_TYPE_GET, 0x10, nullptr, 16, &bytes));
  EXPECT_EQ(E_POINTER, HwCommand(KSPROPERTY_TYPE_SET, 0x10, nullptr, 16, &bytes));
  EXPECT_EQ(E_INVALIDARG, HwCommand(KSPROPERTY_TYPE_BASICSUPPORT, 0x10, buffer.data(), 16, &bytes));
  EXPECT_TRUE(filter->FirmwareCommands().empty());
  for (BYTE b : buffer) ASSERT_EQ(0xCD, b);

  // More data than a command carries: refused by the pipe, reported by the dispatcher's guard.
  std::vector<BYTE> tooMuch(1001, 1);
  EXPECT_EQ(E_FAIL, HwCommand(KSPROPERTY_TYPE_SET, 0x10, tooMuch.data(), 1001, &bytes));
  EXPECT_TRUE(filter->FirmwareCommands().empty());

  // Still working.
  EXPECT_EQ(S_OK, HwCommand(KSPROPERTY_TYPE_SET, 0x10, tooMuch.data(), 1000, &bytes));
}

TEST_F(DepthCameraTest, HardwareCommandFirmwareFaultsReachTheApplicationUnchanged) {
  const std::pair<sim::FirmwareFault, HRESULT> faults[] = {{sim::FirmwareFault::WrongOpcode, E_FAIL},
                                                           {sim::FirmwareFault::ShortReply, E_FAIL},
                                                           {sim::FirmwareFault::FailReply, sim::kFirmwareFailure}};
  for (const auto &[fault, expected] : faults) {
    SCOPED_TRACE(static_cast<int>(fault));
    filter->SetFirmwareFault(fault);
    std::vector<BYTE> reply(16, 0xCD);
    ULONG bytes = 0;
    EXPECT_EQ(expected, HwCommand(KSPROPERTY_TYPE_GET, 0x10, reply.data(), 16, &bytes));
    EXPECT_EQ(44u, bytes);
    for (BYTE b : reply) ASSERT_EQ(0xCD, b);
    EXPECT_EQ(expected, HwCommand(KSPROPERTY_TYPE_SET, 0x10, reply.data(), 16, &bytes));
    filter->SetFirmwareFault(sim::FirmwareFault::None);
    EXPECT_EQ(S_OK, HwCommand(KSPROPERTY_TYPE_GET, 0x10, reply.data(), 16, &bytes));
  }
}

// ---- Device information -----------------------------------------------------------------------------------------

TEST_F(DepthCameraTest, DeviceInformationIsReadOnceAndTracedFieldByField) {
  sim::DeviceInfoConfig config;
  config.functionalPayloadVersion = {{1, 2, 3, 4}};
  filter->SetDeviceInfo(config);
  auto sink = std::make_shared<CapturingTraceSink>();
  user_space_frameworks::trace::ScopedSink scoped(sink, TraceLevel::Info);

  WQ400DeviceInfo info(pipe, "WQ400 Depth Device MFT");
  EXPECT_FALSE(info.IsValid());
  ASSERT_EQ(S_OK, info.Init());
  EXPECT_TRUE(info.IsValid());
  EXPECT_EQ((std::array<BYTE, 4>{{1, 2, 3, 4}}), info.GetFunctionalPayloadVersion());
  ASSERT_EQ(1u, filter->FirmwareCommands().size());
  EXPECT_EQ(0x10u, filter->FirmwareCommands()[0].opcode);

  // One line per field, in table order.
  const char *const expected[] = {
      "Structure Size: 0xE6",
      "Structure version: 3",
      "Product type: 0xB",
      "Advanced Mode=TRUE",
      "Advanced Mode Version: 1.2",
      "FunctionalPayloadVersion: 4.3.2.1",
      "Flash is locked=TRUE",
      "Optic module serial: 0123456789abcdef",
      "Asic module chip ID: 4a5331300011223344556677",
      "Left sensor ID: 0xA11",
      "Right sensor ID: 0xA12",
      "FishEye sensor ID: 0xF01",
      "WithRGB=FALSE",
      "MM FW version: 1.2.3.4",
      "Motion Module SN: 7766554433221100",
      "EEPROM Lock Status=FALSE",
  };
  std::vector<std::string> fieldLines;
  for (const auto &line : sink->Lines()) {
    if (line.function.find("TraceDeviceInfo") != std::string::npos) fieldLines.push_back(line.message);
  }
  EXPECT_EQ(61u, fieldLines.size());
  size_t next = 0;
  for (const auto &line : fieldLines) {
    if (next < sizeof(expected) / sizeof(expected[0]) && line == expected[next]) ++next;
  }
  EXPECT_EQ(sizeof(expected) / sizeof(expected[0]), next) << "missing or out of order: " << expected[next];

  // Read once: a later change of the camera is not seen.
  config.functionalPayloadVersion = {{9, 9, 9, 9}};
  filter->SetDeviceInfo(config);
  EXPECT_EQ((std::array<BYTE, 4>{{1, 2, 3, 4}}), info.GetFunctionalPayloadVersion());
}

TEST_F(DepthCameraTest, DeviceInformationThatCannotBeReadLeavesTheFlagClearAndInitSucceeds) {
  for (sim::FirmwareFault fault :
       {sim::FirmwareFault::FailReply, sim::FirmwareFault::WrongOpcode, sim::FirmwareFault::ShortReply}) {
    filter->SetFirmwareFault(fault);
    WQ400DeviceInfo info(pipe, "WQ400 Depth Device MFT");
    EXPECT_EQ(S_OK, info.Init());
    EXPECT_FALSE(info.IsValid());
    EXPECT_EQ((std::array<BYTE, 4>{{0, 0, 0, 0}}), info.GetFunctionalPayloadVersion());
  }
  WQ400DeviceInfo withoutPipe(nullptr, "none");
  EXPECT_EQ(S_OK, withoutPipe.Init());
  EXPECT_FALSE(withoutPipe.IsValid());
}

// ---- Firmware errors ----------------------------------------------------------------------------------------------

class FwErrorHandlerTest : public DepthCameraTest {
 protected:
  void SetUp() override {
    DepthCameraTest::SetUp();
    queue = user_space_frameworks::MakeComObject<TestEventQueue>();
    handler = std::make_shared<WQ400FwErrorHandler>("WQ400 Depth Device MFT", xu, 7, queue.Get());
    listener = KsEventListener::Create("auto update", sim::kAutoUpdateEventSet, sim::kAutoUpdateEventId);
    ASSERT_TRUE(listener);
    ASSERT_EQ(S_OK, listener->Init(filterKsControl.Get()));
    listener->RegisterObserver(handler);
    ASSERT_EQ(S_OK, listener->Start());
  }
  void TearDown() override {
    listener->UnregisterObserver(handler);
    listener->Stop();
  }

  // Sets the camera's error code, signals the event and waits until the handler has read the code.
  void RaiseError(BYTE code) {
    filter->SetControlValue(sim::kDepthXuSet, 7, {code});
    const size_t reads = ErrorReads();
    ASSERT_EQ(1u, filter->SignalAutoUpdate());
    ASSERT_TRUE(test_waiting::WaitFor([&] { return ErrorReads() > reads; }));
  }
  size_t ErrorReads() { return filter->CountRequests(sim::KsRequestKind::Property, sim::kDepthXuSet, 7); }
  // Every queued event as (type, value), waiting up to two seconds for `expected` of them; when none is
  // expected, a short grace period lets a wrongly queued event show up.
  std::vector<std::pair<MediaEventType, ULONG>> Drain(size_t expected = 0) {
    std::vector<std::pair<MediaEventType, ULONG>> events;
    if (expected == 0) Sleep(50);
    test_waiting::WaitFor([&] {
      TakeEvents(events);
      return events.size() >= expected;
    }, 2000);
    return events;
  }
  void TakeEvents(std::vector<std::pair<MediaEventType, ULONG>> &events) {
    ComPtr<IMFMediaEvent> event;
    while (queue->GetEvent(MF_EVENT_FLAG_NO_WAIT, event.ReleaseAndGetAddressOf()) == S_OK) {
      MediaEventType type = MEUnknown;
      event->GetType(&type);
      PROPVARIANT value;
      PropVariantInit(&value);
      event->GetValue(&value);
      events.push_back({type, value.vt == VT_UI4 ? value.ulVal : 0xFFFFFFFFu});
      PropVariantClear(&value);
    }
  }

  ComPtr<TestEventQueue> queue;
  std::shared_ptr<WQ400FwErrorHandler> handler;
  std::shared_ptr<KsEventListener> listener;
};

TEST_F(FwErrorHandlerTest, OverTemperatureCodesQueueOneThermalEventEach) {
  const std::pair<BYTE, bool> cases[] = {{0, false}, {1, true}, {2, true}, {3, false}, {200, false}, {255, false}};
  for (const auto &c : cases) {
    SCOPED_TRACE(static_cast<int>(c.first));
    RaiseError(c.first);
    const auto events = Drain(c.second ? 1 : 0);
    if (c.second) {
      ASSERT_EQ(1u, events.size());
      EXPECT_EQ(static_cast<MediaEventType>(MEDeviceThermalStateChanged), events[0].first);
      EXPECT_EQ(1u, events[0].second);
    } else {
      EXPECT_TRUE(events.empty());
    }
  }
  // The code is read as one byte at the unit's node.
  for (const auto &request : filter->Requests()) {
    if (request.id == 7 && IsEqualGUID(request.set, sim::kDepthXuSet)) {
      EXPECT_EQ(kDepthXuNode, request.node);
      EXPECT_EQ(1u, request.dataLength);
      EXPECT_EQ(static_cast<ULONG>(KSPROPERTY_TYPE_GET | KSPROPERTY_TYPE_TOPOLOGY), request.flags);
    }
  }
}

TEST_F(FwErrorHandlerTest, AFailedReadQueuesNothingAndTheListenerKeepsRunning) {
  sim::KsFault fault;
  fault.set = sim::kDepthXuSet;
  fault.id = 7;
  fault.result = HRESULT_FROM_WIN32(ERROR_GEN_FAILURE);
  filter->InjectFault(fault);
  RaiseError(1);
  EXPECT_TRUE(Drain().empty());
  EXPECT_EQ(KsEventListener::Active, listener->GetState());

  filter->ClearFaults();
  RaiseError(2);
  const auto events = Drain(1);
  ASSERT_EQ(1u, events.size());
  EXPECT_EQ(static_cast<MediaEventType>(MEDeviceThermalStateChanged), events[0].first);
}

}  // namespace
}  // namespace mft_core
