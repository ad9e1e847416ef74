// The color transform over the simulated color camera: calibration on the output stream, the color
// metadata on every sample, and streaming through its node chain.
#include <gtest/gtest.h>

#include <cstring>

#include "ProductHarness.h"
#include "product/metadata/WQ400MetadataRecords.h"
#include "product/transforms/WQ400ColorDeviceMFT.h"
#include "sim/CalibrationReplies.h"

using namespace test_support;

namespace {

const GUID kOtherCalibrationId = {0x12345678, 0x1111, 0x2222, {1, 2, 3, 4, 5, 6, 7, 8}};

sim::CameraConfig ColorCameraWith(std::vector<BYTE> extrinsics, std::vector<BYTE> intrinsics) {
  sim::CameraConfig camera = sim::ColorCamera();
  for (auto &control : camera.extensionUnits[0].controls) {
    if (control.id == 1) control = sim::ControlConfig{1, std::move(extrinsics)};
    if (control.id == 2) control = sim::ControlConfig{2, std::move(intrinsics)};
  }
  return camera;
}

std::vector<BYTE> ExtrinsicsWithId(const GUID &id, float x) {
  std::vector<BYTE> body = sim::ExtrinsicsBody(x);
  std::memcpy(body.data() + 4, &id, sizeof(id));
  return body;
}

GUID CalibrationIdOf(const std::vector<BYTE> &extrinsics) {
  GUID id = GUID_NULL;
  if (extrinsics.size() >= 20) std::memcpy(&id, extrinsics.data() + 4, sizeof(id));
  return id;
}

using ColorTransform = ProductTest;

TEST_F(ColorTransform, PublishesTheFirstEntrysCalibrationWithExtrinsicsRelativeToDepth) {
  const std::vector<BYTE> intrinsics = sim::IntrinsicsBody(1280, 720, 640.0f);
  const std::vector<BYTE> extrinsics = ExtrinsicsWithId(kOtherCalibrationId, 0.015f);
  // Two entries in each table; the second is another sensor's and is never used.
  Connect<mft_core::WQ400ColorDeviceMFT>(ColorCameraWith(
      sim::CalibrationTable({{2, extrinsics}, {1, ExtrinsicsWithId(kOtherCalibrationId, 0.5f)}}),
      sim::CalibrationTable({{2, intrinsics}, {1, sim::IntrinsicsBody(640, 480, 1.0f)}})));
  ASSERT_EQ(S_OK, host->Initialize());

  EXPECT_EQ(intrinsics, StreamBlob(0, MFStreamExtension_PinholeCameraIntrinsics));
  const std::vector<BYTE> published = StreamBlob(0, MFStreamExtension_CameraExtrinsics);
  ASSERT_EQ(48u, published.size());
  EXPECT_EQ(mft_core::kWQ400SubtypeZ16, CalibrationIdOf(published));
  // Everything but the calibration id is the camera's.
  std::vector<BYTE> expected = extrinsics;
  std::memcpy(expected.data() + 4, &mft_core::kWQ400SubtypeZ16, sizeof(GUID));
  EXPECT_EQ(expected, published);
}

TEST_F(ColorTransform, MissingOrMalformedCalibrationLeavesTheStreamWithoutItButWorking) {
  std::vector<BYTE> noModel = sim::IntrinsicsBody(1280, 720, 640.0f);
  std::memset(noModel.data(), 0, 4);
  std::vector<BYTE> cut = sim::CalibrationTable({{2, ExtrinsicsWithId(kOtherCalibrationId, 0.0f)}});
  cut.resize(30);
  Connect<mft_core::WQ400ColorDeviceMFT>(ColorCameraWith(cut, sim::CalibrationTable({{2, noModel}})));
  ASSERT_EQ(S_OK, host->Initialize());
  EXPECT_TRUE(StreamBlob(0, MFStreamExtension_PinholeCameraIntrinsics).empty());
  EXPECT_TRUE(StreamBlob(0, MFStreamExtension_CameraExtrinsics).empty());
  ASSERT_EQ(S_OK, Start(0, 640, 480, 60));
  EXPECT_TRUE(WaitForFrames(5));
}

TEST_F(ColorTransform, StreamsWithTheColorMetadataOnEverySample) {
  Connect<mft_core::WQ400ColorDeviceMFT>(sim::ColorCamera());
  std::mutex mutex;
  size_t withColorControl = 0, withDepthControl = 0, withIntrinsics = 0;
  extraObserver = [&](IMFSample *sample) {
    UINT32 size = 0;
    std::lock_guard<std::mutex> hold(mutex);
    if (SUCCEEDED(sample->GetBlobSize(mft_core::VELDARA_SAMPLE_WQ400_COLOR_CONTROL, &size)) && size == 64) ++withColorControl;
    if (SUCCEEDED(sample->GetBlobSize(mft_core::VELDARA_SAMPLE_WQ400_DEPTH_CONTROL, &size))) ++withDepthControl;
    if (SUCCEEDED(sample->GetBlobSize(MFSampleExtension_PinholeCameraIntrinsics, &size)) && size == 48) ++withIntrinsics;
  };
  ASSERT_EQ(S_OK, host->Initialize());
  // The driver's subtypes other than "Z16 " and "Y8  " are published.
  ASSERT_EQ(S_OK, Start(0, 640, 480, 60));
  ASSERT_TRUE(WaitForFrames(10));
  ASSERT_EQ(S_OK, host->StopStream(0));
  std::lock_guard<std::mutex> hold(mutex);
  EXPECT_EQ(FrameCount(), withColorControl);
  EXPECT_EQ(FrameCount(), withIntrinsics);
  EXPECT_EQ(0u, withDepthControl);
}

}  // namespace
