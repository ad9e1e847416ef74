// A firmware condition the camera signals while streaming reaches the frame server as a thermal event.
#include "ProductHarness.h"

namespace {

constexpr ULONG kErrorCodeControl = 7;
constexpr MediaEventType kThermalStateChanged = 950;

struct DepthFirmwareErrorTest : test_support::DepthTransformTest {
  uint64_t ErrorReads() {
    return filter->CountRequests(sim::KsRequestKind::Property, sim::kDepthXuSet, kErrorCodeControl);
  }
  // Sets the camera's error code, signals the event and waits until the transform has read the code once.
  void RaiseError(BYTE code) {
    filter->SetControlValue(sim::kDepthXuSet, kErrorCodeControl, {code});
    const uint64_t reads = ErrorReads();
    ASSERT_EQ(1u, filter->SignalAutoUpdate()) << int(code);
    ASSERT_TRUE(test_support::WaitFor([&] { return ErrorReads() == reads + 1; })) << int(code);
  }
};

TEST_F(DepthFirmwareErrorTest, OverTemperatureCodesBecomeThermalEventsOthersDoNot) {
  ConnectAndInitialize();
  ASSERT_EQ(S_OK, Start(0));
  ASSERT_TRUE(test_support::WaitFor([&] { return FramesOut(0) >= 2; }));
  ASSERT_TRUE(test_support::WaitFor([&] {
    return filter->ActiveEventSubscriptions(sim::kAutoUpdateEventSet, sim::kAutoUpdateEventId) == 1;
  }));

  uint64_t expected = 0;
  for (BYTE code : {BYTE(0), BYTE(1), BYTE(3), BYTE(2), BYTE(200), BYTE(255)}) {
    RaiseError(code);
    if (code == 1 || code == 2) ++expected;
    EXPECT_TRUE(test_support::WaitFor([&] { return host->EventCount(kThermalStateChanged) == expected; }))
        << int(code);
  }
  // The code is read as one byte at the unit's node.
  const ULONG unitNode = filter->Config().extensionUnits[0].nodeId;
  for (const auto &request : filter->Requests()) {
    if (request.id == kErrorCodeControl && IsEqualGUID(request.set, sim::kDepthXuSet)) {
      EXPECT_EQ(unitNode, request.node);
      EXPECT_EQ(1u, request.dataLength);
      EXPECT_EQ(static_cast<ULONG>(KSPROPERTY_TYPE_GET | KSPROPERTY_TYPE_TOPOLOGY), request.flags);
    }
  }

  // A failed read passes nothing on and the transform keeps listening.
  InjectPropertyFault(sim::kDepthXuSet, kErrorCodeControl, 0, HRESULT_FROM_WIN32(ERROR_GEN_FAILURE));
  RaiseError(1);
  Sleep(50);
  EXPECT_EQ(expected, host->EventCount(kThermalStateChanged));
  filter->ClearFaults();
  RaiseError(2);
  EXPECT_TRUE(test_support::WaitFor([&] { return host->EventCount(kThermalStateChanged) == expected + 1; }));

  // Frames keep flowing.
  const uint64_t before = FramesOut(0);
  EXPECT_TRUE(test_support::WaitFor([&] { return FramesOut(0) >= before + 2; }));
}

}  // namespace
