// The fisheye exposure loop closed through the simulated camera: from a dark start the frames reach a
// well-exposed band within a bounded number of frames and stay there, with every exposure and gain the
// camera received inside its limits; a lock freezes the exposure the loop reached.
#include <gtest/gtest.h>

#include <algorithm>

#include "ProductHarness.h"
#include "common/SystemStateGuards.h"
#include "product/transforms/WQ400FishEyeDeviceMft.h"

using namespace test_support;

namespace {

constexpr double kBandLow = 96;
constexpr double kBandHigh = 160;
constexpr size_t kConvergedBy = 240;  // frames; the engine sees every other one
constexpr size_t kWatched = 360;

struct LoopCase {
  const char *name;
  sim::ControlRange gainRange;  // minimum, maximum, step, default
  double midGreyExposureGain;   // microseconds x gain for a mid-grey scene
  bool writesMetadata;
  bool hasGainControl;
};

void PrintTo(const LoopCase &loopCase, std::ostream *out) { *out << loopCase.name; }

sim::CameraConfig CameraFor(const LoopCase &loopCase) {
  sim::CameraConfig camera = sim::FisheyeCamera();
  camera.writesMetadata = loopCase.writesMetadata;
  camera.scene.midGreyExposureGain = loopCase.midGreyExposureGain;
  if (loopCase.hasGainControl) {
    camera.standardControls[0].range = loopCase.gainRange;
    camera.standardControls[0].value = loopCase.gainRange.defaultValue;
  } else {
    camera.standardControls.clear();
  }
  return camera;
}

struct ClosedLoop : ProductTest, ::testing::WithParamInterface<LoopCase> {};

TEST_P(ClosedLoop, ConvergesFromADarkStartAndHoldsWithinTheDevicesLimits) {
  const LoopCase &loopCase = GetParam();
  const sim::CameraConfig camera = CameraFor(loopCase);
  Connect<mft_core::WQ400FishEyeDeviceMft>(camera);
  ASSERT_EQ(S_OK, host->Initialize());
  ASSERT_EQ(S_OK, Start(0, 640, 480, 60));
  ASSERT_TRUE(WaitForFrames(kWatched, 30000));
  const std::vector<DeliveredFrame> frames = Frames();

  EXPECT_LT(frames.front().mean, 30) << "the scene starts dark";
  size_t converged = 0;
  while (converged < frames.size() && (frames[converged].mean < kBandLow || frames[converged].mean > kBandHigh)) {
    ++converged;
  }
  ASSERT_LT(converged, kConvergedBy) << "never reached the band; last mean " << frames.back().mean;
  for (size_t i = converged; i < frames.size(); ++i) {
    EXPECT_GE(frames[i].mean, kBandLow - 8) << "frame " << i;
    EXPECT_LE(frames[i].mean, kBandHigh) << "frame " << i;
  }
  // No oscillation: over the last second the brightness moves in one direction at most.
  int reversals = 0, lastDirection = 0;
  for (size_t i = frames.size() - 60; i < frames.size(); ++i) {
    const int direction = frames[i].mean > frames[i - 1].mean + 0.5 ? 1 : frames[i].mean < frames[i - 1].mean - 0.5 ? -1 : 0;
    if (direction != 0 && lastDirection != 0 && direction != lastDirection) ++reversals;
    if (direction != 0) lastDirection = direction;
  }
  EXPECT_EQ(0, reversals);

  const sim::ControlRange exposureRange = camera.extensionUnits[0].controls[0].range;
  for (const auto &frame : frames) {
    if (!frame.hasControlRecord) continue;
    EXPECT_GE(static_cast<LONG>(frame.exposureUs), exposureRange.minimum);
    EXPECT_LE(static_cast<LONG>(frame.exposureUs), exposureRange.maximum);
    EXPECT_GE(static_cast<LONG>(frame.gain), std::max<LONG>(loopCase.gainRange.minimum, 1));
    EXPECT_LE(static_cast<LONG>(frame.gain), loopCase.gainRange.maximum);
  }
  EXPECT_GE(DeviceExposureUs(), exposureRange.minimum);
  EXPECT_LE(DeviceExposureUs(), exposureRange.maximum);
  if (loopCase.hasGainControl) {
    EXPECT_GE(DeviceGain(), std::max<LONG>(loopCase.gainRange.minimum, 1));
    EXPECT_LE(DeviceGain(), loopCase.gainRange.maximum);
  }
}

INSTANTIATE_TEST_SUITE_P(
    Fisheye, ClosedLoop,
    ::testing::Values(
        // Unity gain at 16: exposure alone reaches mid-grey.
        LoopCase{"GainFrom16", {16, 248, 1, 16}, 6000.0 * 16, true, true},
        // A gain range from 0: the engine never asks for a gain of 0.
        LoopCase{"GainFromZero", {0, 255, 1, 1}, 6000.0, true, true},
        // A scene that needs gain once the exposure is at its longest.
        LoopCase{"NeedsGain", {16, 248, 1, 16}, 32000.0 * 40, true, true},
        // Frames without metadata: the loop needs only the pixels.
        LoopCase{"WithoutMetadata", {16, 248, 1, 16}, 6000.0 * 16, false, true},
        // No gain control on the driver: exposure alone.
        LoopCase{"WithoutGainControl", {16, 16, 1, 16}, 6000.0 * 16, true, false}),
    [](const ::testing::TestParamInfo<LoopCase> &info) { return std::string(info.param.name); });

using ManualStopsTheLoop = ProductTest;

TEST_F(ManualStopsTheLoop, AutoLockWaitsForTheEngineToSettleThenFreezesTheExposureAndStopsTheEngine) {
  // A lock delta of 0.1 us over eight frames: only an exposure the engine no longer moves is stable.
  const wchar_t key[] = L"Software\\Tavix\\Veldara\\WQ4XX\\FEExposure";
  RegistryValueGuard lockDelta(key, L"AutoLockConvergeDelta");
  RegistryValueGuard lockFrames(key, L"NumConvergedSamplesForLock");
  lockDelta.SetDword(1);
  lockFrames.SetDword(8);
  Connect<mft_core::WQ400FishEyeDeviceMft>(sim::FisheyeCamera());
  ASSERT_EQ(S_OK, host->Initialize());
  ASSERT_EQ(S_OK, Start(0, 640, 480, 60));
  ASSERT_TRUE(WaitForFrames(2));
  const LONG darkExposure = DeviceExposureUs();

  user_space_frameworks::UniqueHandle locked(CreateEventW(nullptr, FALSE, FALSE, nullptr));
  ASSERT_EQ(S_OK, ArmExposureEvent(locked.Get()));
  ASSERT_EQ(S_OK, SetExposureMode(KSCAMERA_EXTENDEDPROP_VIDEOPROCFLAG_LOCK));
  ASSERT_EQ(WAIT_OBJECT_0, WaitForSingleObject(locked.Get(), 30000));
  // The engine drove the exposure up from the dark start while the lock waited.
  const LONG lockedExposure = DeviceExposureUs();
  EXPECT_GT(lockedExposure, darkExposure);

  // Frozen: a brighter gain (allowed once locked) no longer moves the exposure.
  ASSERT_EQ(S_OK, SetGain(DeviceGain() * 2));
  const size_t from = FrameCount();
  ASSERT_TRUE(WaitForFrames(from + 60));
  const auto frames = Frames();
  for (size_t i = from + 2; i < frames.size(); ++i) {
    EXPECT_EQ(static_cast<UINT32>(lockedExposure), frames[i].exposureUs) << "frame " << i;
  }
  EXPECT_EQ(lockedExposure, DeviceExposureUs());
}

}  // namespace
