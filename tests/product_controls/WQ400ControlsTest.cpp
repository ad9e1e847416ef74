// The product's private properties and device information against the
// simulated depth camera, reached as an application and the driver reach them.
#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <mutex>
#include <vector>

#include "autoexposure/AutoExposureAPI.h"
#include "common/FakeKsControl.h"
#include "mft_core/ks/ExtensionUnitKsControl.h"
#include "mft_core/ks/FirmwareCommandPipe.h"
#include "mft_core/ks/KsControlsDispatcher.h"
#include "product/controls/WQ400ApiVersion.h"
#include "product/controls/WQ400FishEyeExtendedExposureControl.h"
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

TEST_F(DepthCameraTest, HardwareCommandSetAndGetReachTheUnitsNodeAndKeepFortyFourBytesReturned) {
  BYTE data[5] = {1, 2, 3, 4, 5};
  ULONG bytes = 0;
  ASSERT_EQ(S_OK, HwCommand(KSPROPERTY_TYPE_SET, 0x42, data, sizeof(data), &bytes));
  EXPECT_EQ(44u, bytes);
  std::vector<BYTE> reply(sim::kDeviceInfoTableSize, 0);
  ASSERT_EQ(S_OK, HwCommand(KSPROPERTY_TYPE_GET, sim::kFirmwareOpcodeDeviceInfo, reply.data(),
                            static_cast<ULONG>(reply.size()), &bytes));
  EXPECT_EQ(44u, bytes);
  EXPECT_EQ(sim::DeviceInfoTable(sim::DeviceInfoConfig{}), reply);
  // The request's opcode, parameters and data make the command (framed as the pipe's own tests check); a
  // read carries the request's four parameters as a write does.
  const auto commands = filter->FirmwareCommands();
  ASSERT_EQ(2u, commands.size());
  EXPECT_EQ(0x42u, commands[0].opcode);
  EXPECT_EQ(std::vector<BYTE>(data, data + 5), commands[0].data);
  EXPECT_EQ(20u, commands[1].length);
  for (const auto &command : commands) {
    EXPECT_EQ((std::vector<uint32_t>{11, 22, 33, 0xFFFFFFFF}),
              std::vector<uint32_t>(std::begin(command.params), std::end(command.params)));
  }
  for (const auto &request : filter->Requests()) EXPECT_EQ(kDepthXuNode, request.node);
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

// ---- Fisheye exposure: the auto-exposure engine's requests ------------------------------------------------------

// The fisheye control over the simulated fisheye camera, whose exposure range ends at 20 ms. Every
// request reaches the camera through a recorder that notes the exposure and gain writes as sent.
class FishEyeEngineRequestTest : public ::testing::Test {
 protected:
  void SetUp() override {
    sim::CameraConfig camera = sim::FisheyeCamera();
    for (auto &control : camera.extensionUnits.at(0).controls) {
      if (control.id == XU_EXPOSURE_ID) control.range.maximum = 20000;
    }
    filter = sim::SimulatedCameraFilter::Create(camera);
    ASSERT_TRUE(filter);
    ComPtr<IMFTransform> transform;
    ASSERT_EQ(S_OK, filter.As(&transform));
    ComPtr<IKsControl> cameraKs;
    ASSERT_EQ(S_OK, filter.As(&cameraKs));
    recorder = user_space_frameworks::MakeComObject<test_support::FakeKsControl>();
    recorder->SetResponder([this, cameraKs](const test_support::FakeKsControl::Request &request) -> HRESULT {
      if (request.type != KsControlType::Property) return E_NOTIMPL;
      if ((request.flags & KSPROPERTY_TYPE_SET) != 0 && request.data != nullptr) {
        std::lock_guard<std::mutex> hold(mutex);
        if (request.set == sim::kFisheyeXuSet && request.id == XU_EXPOSURE_ID && request.dataLength == 2) {
          USHORT exposure = 0;
          std::memcpy(&exposure, request.data, sizeof(exposure));
          exposureWrites.push_back(exposure);
        } else if (request.set == PROPSETID_VIDCAP_VIDEOPROCAMP && request.id == KSPROPERTY_VIDEOPROCAMP_GAIN) {
          gainWrites.push_back(static_cast<const KSPROPERTY_VIDEOPROCAMP_S *>(request.data)->Value);
        }
      }
      return cameraKs->KsProperty(reinterpret_cast<PKSPROPERTY>(request.identifier), request.identifierLength,
                                request.data, request.dataLength, request.bytesReturned);
    });
    ComPtr<IKsControl> filterKsControl(recorder.Get());
    auto xu = user_space_frameworks::MakeComObject<ExtensionUnitKsControl>(sim::kFisheyeXuSet, "FishEye ");
    ASSERT_EQ(S_OK, xu->Init(transform, filterKsControl, XU_EXPOSURE_ID));
    control = std::make_shared<WQ400FishEyeExtendedExposureControl>(xu, filterKsControl, FishEyeExposureSettings{});
    std::lock_guard<std::mutex> hold(mutex);
    exposureWrites.clear();
    gainWrites.clear();
  }

  HRESULT EngineAsks(float exposureMs, float gain, uint32_t flags) {
    return WQ400FishEyeExtendedExposureControl::OnSetExposure(control.get(), exposureMs, gain, flags);
  }

  ComPtr<sim::SimulatedCameraFilter> filter;
  ComPtr<test_support::FakeKsControl> recorder;
  std::shared_ptr<WQ400FishEyeExtendedExposureControl> control;
  std::mutex mutex;
  std::vector<USHORT> exposureWrites;
  std::vector<LONG> gainWrites;
};

TEST_F(FishEyeEngineRequestTest, ExposureIsScaledOnceWhenOutOfRangeAndWrittenTruncatedNeverClamped) {
  struct Case {
    float exposureMs;
    USHORT written;
  };
  const Case cases[] = {
      {7.9999f, 7999},                         // microseconds truncated, not rounded
      {30.0f, 28500},                          // above 20 ms: times 0.95 once, still above, sent as it is
      {80.0f, static_cast<USHORT>(76000 % 65536)},  // the two low bytes of 76 ms, not a clamp at 65535
  };
  for (const Case &c : cases) {
    EXPECT_EQ(S_OK, EngineAsks(c.exposureMs, 16.0f, autoexposure::kSetExposure));
    std::lock_guard<std::mutex> hold(mutex);
    ASSERT_FALSE(exposureWrites.empty()) << c.exposureMs;
    EXPECT_EQ(c.written, exposureWrites.back()) << c.exposureMs;
  }
  EXPECT_EQ(E_POINTER, WQ400FishEyeExtendedExposureControl::OnSetExposure(nullptr, 5.0f, 16.0f, 3));
}

TEST_F(FishEyeEngineRequestTest, AGainOutOfRangeEndsTheWholeRequest) {
  // The camera's gain runs from 16 to 248: neither the gain nor the exposure chosen with it is written.
  EXPECT_EQ(S_OK, EngineAsks(5.0f, 300.0f, autoexposure::kSetExposure | autoexposure::kSetGain));
  {
    std::lock_guard<std::mutex> hold(mutex);
    EXPECT_TRUE(exposureWrites.empty());
    EXPECT_TRUE(gainWrites.empty());
  }
  EXPECT_EQ(S_OK, EngineAsks(5.0f, 32.0f, autoexposure::kSetExposure | autoexposure::kSetGain));
  std::lock_guard<std::mutex> hold(mutex);
  EXPECT_EQ(std::vector<USHORT>{5000}, exposureWrites);
  EXPECT_EQ(std::vector<LONG>{32}, gainWrites);
}

}  // namespace
}  // namespace mft_core
