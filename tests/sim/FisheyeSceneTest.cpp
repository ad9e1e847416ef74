// The simulated fisheye camera: what its frames show follows exposure x gain, its scene is dark at the
// camera's default exposure, and its metadata reports the exposure and gain each frame was taken with.
#include <gtest/gtest.h>

#include <chrono>
#include <mutex>
#include <thread>

#include "sim/CameraMetadataHook.h"
#include "sim/FrameSource.h"
#include "sim/Scene.h"

using Microsoft::WRL::ComPtr;

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

TEST(FisheyeScene, FramesAreTakenAtTheSensorsCurrentExposureAndGain) {
  auto filter = sim::SimulatedCameraFilter::Create(sim::FisheyeCamera());
  ASSERT_TRUE(filter);
  std::mutex mutex;
  std::vector<sim::FrameInfo> frames;
  sim::FrameSource source(filter, [](DWORD, IMFSample *) { return S_OK; });
  auto writeMetadata = sim::MakeCameraMetadataHook(sim::CameraKind::FishEye);
  source.SetMetadataHook([&](IMFSample *sample, const sim::FrameInfo &info) {
    std::lock_guard<std::mutex> hold(mutex);
    frames.push_back(info);
    return writeMetadata(sample, info);
  });
  ComPtr<IMFMediaType> type;
  ASSERT_EQ(S_OK, sim::SimulatedCameraFilter::CreateMediaType({MFVideoFormat_L8, 640, 480, 60, 1}, type.GetAddressOf()));
  auto frameCount = [&] {
    std::lock_guard<std::mutex> hold(mutex);
    return frames.size();
  };
  ASSERT_EQ(S_OK, source.Start(0, type.Get()));
  for (int i = 0; i < 200 && frameCount() == 0; ++i) std::this_thread::sleep_for(std::chrono::milliseconds(10));
  const uint16_t exposure = 5000;
  filter->SetControlValue(sim::kFisheyeXuSet, 1, {static_cast<BYTE>(exposure & 0xFF), static_cast<BYTE>(exposure >> 8)});
  for (int i = 0; i < 200; ++i) {
    {
      std::lock_guard<std::mutex> hold(mutex);
      if (!frames.empty() && frames.back().exposureUs == exposure) break;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  source.StopAll();
  ASSERT_FALSE(frames.empty());
  EXPECT_EQ(400, frames.front().exposureUs);
  EXPECT_EQ(exposure, frames.back().exposureUs);
  EXPECT_EQ(16, frames.back().gain);
  EXPECT_GT(frames.back().brightness, frames.front().brightness);
}

}  // namespace
