// The simulated fisheye camera: what its frames show follows exposure x gain, and its scene is dark at
// the camera's default exposure. (That frames report the exposure they were taken with is what the
// fisheye transform's tests rely on and check.)
#include <gtest/gtest.h>

#include "sim/Scene.h"

namespace {

TEST(FisheyeScene, MeanLevelFollowsExposureTimesGainAndIsDarkAtTheDefaultExposure) {
  const sim::CameraConfig camera = sim::FisheyeCamera();
  ASSERT_TRUE(camera.scene.graded);
  std::vector<BYTE> frame(640 * 480);
  const LONG defaultExposure = camera.extensionUnits[0].controls[0].range.defaultValue;
  EXPECT_LT(sim::PaintScene(camera.scene, frame.data(), 640, 480, defaultExposure, 16), 16);
  // Mid-grey at the scene's exposure x gain, whichever of the two provides it.
  EXPECT_NEAR(128, sim::PaintScene(camera.scene, frame.data(), 640, 480, 6000, 16), 2);
  EXPECT_NEAR(128, sim::PaintScene(camera.scene, frame.data(), 640, 480, 3000, 32), 2);
  // Rows span dark to bright: the first row is darker than the last, and both clip when overexposed.
  sim::PaintScene(camera.scene, frame.data(), 640, 480, 6000, 16);
  EXPECT_LT(frame.front(), 64);
  EXPECT_GT(frame.back(), 192);
  sim::PaintScene(camera.scene, frame.data(), 640, 480, 32000, 248);
  EXPECT_EQ(255, frame.front());
}

}  // namespace
