// A firmware condition the camera signals while streaming reaches the frame server as a thermal event.
#include "ProductHarness.h"

namespace {

constexpr ULONG kErrorCodeControl = 7;
constexpr MediaEventType kThermalStateChanged = 950;

using DepthFirmwareErrorTest = test_support::DepthTransformTest;

TEST_F(DepthFirmwareErrorTest, OverTemperatureCodesBecomeThermalEventsOthersDoNot) {
  ConnectAndInitialize();
  ASSERT_EQ(S_OK, Start(0));
  ASSERT_TRUE(test_support::WaitFor([&] { return FramesOut(0) >= 2; }));
  ASSERT_TRUE(test_support::WaitFor([&] {
    return filter->ActiveEventSubscriptions(sim::kAutoUpdateEventSet, sim::kAutoUpdateEventId) == 1;
  }));

  uint64_t expected = 0;
  for (BYTE code : {BYTE(0), BYTE(1), BYTE(3), BYTE(2), BYTE(200)}) {
    filter->SetControlValue(sim::kDepthXuSet, kErrorCodeControl, {code});
    const uint64_t reads = filter->CountRequests(sim::KsRequestKind::Property, sim::kDepthXuSet, kErrorCodeControl);
    ASSERT_EQ(1u, filter->SignalAutoUpdate()) << int(code);
    // The code is read once per signal; only over-temperature codes are passed on.
    ASSERT_TRUE(test_support::WaitFor([&] {
      return filter->CountRequests(sim::KsRequestKind::Property, sim::kDepthXuSet, kErrorCodeControl) == reads + 1;
    })) << int(code);
    if (code == 1 || code == 2) ++expected;
    EXPECT_TRUE(test_support::WaitFor([&] { return host->EventCount(kThermalStateChanged) == expected; }))
        << int(code);
  }
  // Frames keep flowing.
  const uint64_t before = FramesOut(0);
  EXPECT_TRUE(test_support::WaitFor([&] { return FramesOut(0) >= before + 2; }));
}

}  // namespace
