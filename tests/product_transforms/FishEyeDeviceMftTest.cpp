// The fisheye transform over the simulated fisheye camera: calibration, the exposure and gain controls
// as applications reach them, and what the software auto exposure does to the camera.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>

#include "ProductHarness.h"
#include "product/transforms/WQ400FishEyeDeviceMft.h"
#include "sim/CalibrationReplies.h"
#include "user_space_frameworks/Trace.h"

using namespace test_support;
using mft_core::WQ400FishEyeDeviceMft;

namespace {

constexpr ULONGLONG kAuto = KSCAMERA_EXTENDEDPROP_VIDEOPROCFLAG_AUTO;
constexpr ULONGLONG kManual = KSCAMERA_EXTENDEDPROP_VIDEOPROCFLAG_MANUAL;

struct FishEyeTransform : ProductTest {
  void ConnectAndInitialize(const sim::CameraConfig &camera = sim::FisheyeCamera()) {
    Connect<WQ400FishEyeDeviceMft>(camera);
    ASSERT_EQ(S_OK, Initialize());
  }
  // Frames delivered from now until `count` more have arrived.
  std::vector<DeliveredFrame> NextFrames(size_t count) {
    const size_t first = FrameCount();
    EXPECT_TRUE(WaitForFrames(first + count));
    std::vector<DeliveredFrame> all = Frames();
    return std::vector<DeliveredFrame>(all.begin() + std::min(first, all.size()), all.end());
  }
  // The exposure control's answer to a GET.
  KSCAMERA_EXTENDEDPROP_VIDEOPROCSETTING Reported(ULONGLONG *flags = nullptr) {
    KSCAMERA_EXTENDEDPROP_HEADER header = {};
    KSCAMERA_EXTENDEDPROP_VIDEOPROCSETTING setting = {};
    EXPECT_EQ(S_OK, GetExposureMode(header, setting));
    if (flags) *flags = header.Flags;
    return setting;
  }
};

TEST_F(FishEyeTransform, PublishesIntrinsicsAndTheFisheyeExtrinsicsOnTheOutputStream) {
  ConnectAndInitialize();
  const std::vector<BYTE> intrinsicsReply = sim::FisheyeIntrinsicsReply();
  EXPECT_EQ(std::vector<BYTE>(intrinsicsReply.begin() + 5, intrinsicsReply.end()),
            StreamBlob(0, MFStreamExtension_PinholeCameraIntrinsics));
  const STMFCameraFishEyeExtrinsics record = sim::FisheyeExtrinsicsRecord();
  const std::vector<BYTE> published = StreamBlob(0, mft_core::VELDARA_STREAM_WQ400_FISHEYE_EXTRINSICS);
  ASSERT_EQ(sizeof(record), published.size());
  EXPECT_EQ(0, std::memcmp(&record, published.data(), sizeof(record)));
  // The fisheye transform has no extrinsics of the depth kind.
  EXPECT_TRUE(StreamBlob(0, MFStreamExtension_CameraExtrinsics).empty());
}

TEST_F(FishEyeTransform, CalibrationThatIsAbsentShortOrMalformedIsLeftOutAndTheCameraStillStreams) {
  STMFCameraFishEyeExtrinsics none = sim::FisheyeExtrinsicsRecord();
  none.transformCount = 0;
  std::vector<BYTE> shortExtrinsics = sim::FisheyeExtrinsicsReply(), shortIntrinsics = sim::FisheyeIntrinsicsReply();
  shortExtrinsics.resize(40);
  shortIntrinsics.resize(20);
  // No transform, and two models claimed in a reply that holds one; then replies cut short.
  const std::vector<BYTE> replies[][2] = {{sim::FisheyeExtrinsicsReply(none), sim::FisheyeIntrinsicsReply(2)},
                                          {shortExtrinsics, shortIntrinsics}};
  for (const auto &reply : replies) {
    sim::CameraConfig camera = sim::FisheyeCamera();
    UnitControl(camera, sim::kFisheyeXuSet, 2).value = reply[0];
    UnitControl(camera, sim::kFisheyeXuSet, 3).value = reply[1];
    ConnectAndInitialize(camera);
    EXPECT_TRUE(StreamBlob(0, mft_core::VELDARA_STREAM_WQ400_FISHEYE_EXTRINSICS).empty());
    EXPECT_TRUE(StreamBlob(0, MFStreamExtension_PinholeCameraIntrinsics).empty());
    ASSERT_EQ(S_OK, Start(0, 640, 480, 60));
    EXPECT_TRUE(WaitForFrames(FrameCount() + 5));
  }
}

TEST_F(FishEyeTransform, WritesTheDefaultExposureAtStartAndReportsTheRangeIn100nsOrTheBuiltInLimits) {
  sim::CameraConfig camera = sim::FisheyeCamera();
  UnitControl(camera, sim::kFisheyeXuSet, 1).value = {0xD2, 0x04};  // 1234 us before the transform comes
  ConnectAndInitialize(camera);
  EXPECT_EQ(400, DeviceExposureUs());

  KSCAMERA_EXTENDEDPROP_HEADER header = {};
  KSCAMERA_EXTENDEDPROP_VIDEOPROCSETTING setting = {};
  ASSERT_EQ(S_OK, GetExposureMode(header, setting));
  EXPECT_EQ(kAuto, header.Flags);
  EXPECT_EQ(0x8000000000000007ull, header.Capability);
  EXPECT_EQ(4000u, setting.VideoProc.Value.ull);
  // The camera's range, and the same built-in limits when the range query fails.
  for (bool failingQuery : {false, true}) {
    if (failingQuery) {
      Connect<WQ400FishEyeDeviceMft>(sim::FisheyeCamera());
      InjectPropertyFault(sim::kFisheyeXuSet, sim::kAnyId, KSPROPERTY_TYPE_BASICSUPPORT);
      ASSERT_EQ(S_OK, host->Initialize());
    }
    setting = Reported();
    EXPECT_EQ(2000, setting.Min);
    EXPECT_EQ(320000, setting.Max);
    EXPECT_EQ(1000, setting.Step);
  }
}

TEST_F(FishEyeTransform, AnExposureControlThatFailsAtStartLeavesTheControlManualUntilAutoIsAsked) {
  Connect<WQ400FishEyeDeviceMft>(sim::FisheyeCamera());
  InjectPropertyFault(sim::kFisheyeXuSet, 1, KSPROPERTY_TYPE_SET, E_FAIL, 1);
  ASSERT_EQ(S_OK, host->Initialize());
  ULONGLONG flags = 0;
  Reported(&flags);
  EXPECT_EQ(kManual, flags);
  ASSERT_EQ(S_OK, Start(0, 640, 480, 60));
  for (const auto &frame : NextFrames(20)) EXPECT_EQ(400u, frame.exposureUs);
  ASSERT_EQ(S_OK, SetAutoExposure());
  EXPECT_TRUE(WaitFor([&] { return DeviceExposureUs() > 400; }, 5000));
}

TEST_F(FishEyeTransform, AnOutOfRangeManualRequestIsRefusedAndStillStopsTheEngine) {
  ConnectAndInitialize();
  // Refused before a frame: the dark scene would otherwise make the engine raise the exposure.
  EXPECT_EQ(E_INVALIDARG, SetExposureMode(kManual, 400000));  // 40 ms, above 32 ms
  EXPECT_EQ(E_INVALIDARG, SetExposureMode(kManual, 1000));    // 0.1 ms, below 0.2 ms
  ASSERT_EQ(S_OK, Start(0, 640, 480, 60));
  for (const auto &frame : NextFrames(40)) EXPECT_EQ(400u, frame.exposureUs);
  EXPECT_EQ(400, DeviceExposureUs());
  // Auto lets the engine go again.
  ASSERT_EQ(S_OK, SetAutoExposure());
  EXPECT_TRUE(WaitFor([&] { return DeviceExposureUs() > 400; }, 5000));
}

TEST_F(FishEyeTransform, GainSetIsRefusedOnlyInAutoAndGetAlwaysReachesTheDriver) {
  ConnectAndInitialize();
  ASSERT_EQ(S_OK, Start(0, 640, 480, 60));
  LONG gain = 0;
  ASSERT_EQ(S_OK, GetGain(gain));
  EXPECT_EQ(DeviceGain(), gain);
  EXPECT_EQ(E_UNEXPECTED, SetGain(40));
  EXPECT_EQ(16, DeviceGain());

  ASSERT_EQ(S_OK, SetExposureMode(kManual, 80000));
  ASSERT_EQ(S_OK, SetGain(40));
  EXPECT_EQ(40, DeviceGain());
  ASSERT_EQ(S_OK, GetGain(gain));
  EXPECT_EQ(40, gain);
  // Out of the driver's range: the driver's answer comes back unchanged.
  EXPECT_EQ(E_INVALIDARG, SetGain(1000));

  ASSERT_EQ(S_OK, SetAutoExposure());
  EXPECT_EQ(E_UNEXPECTED, SetGain(20));
}

TEST_F(FishEyeTransform, FramesOfAnotherSizeStreamButNeverReachTheEngine) {
  auto sink = std::make_shared<user_space_frameworks::CapturingTraceSink>();
  user_space_frameworks::trace::ScopedSink scoped(sink, user_space_frameworks::TraceLevel::Warning);
  ConnectAndInitialize();
  ASSERT_EQ(S_OK, Start(0, 848, 800, 60));
  for (const auto &frame : NextFrames(30)) EXPECT_EQ(400u, frame.exposureUs);
  EXPECT_EQ(1u, sink->Count("is not 640x480"));
}

TEST_F(FishEyeTransform, StoppingTheStreamDetachesTheControlAndARestartAttachesItOnce) {
  ConnectAndInitialize();
  ASSERT_EQ(S_OK, Start(0, 640, 480, 60));
  ASSERT_TRUE(WaitForFrames(4));
  ASSERT_EQ(S_OK, host->StopStream(0));
  // Detached: a manual request completes at once, with no frame to show it.
  user_space_frameworks::Event done(true);
  ASSERT_EQ(S_OK, ArmExposureEvent(done.Get()));
  ASSERT_EQ(S_OK, SetExposureMode(kManual, 20000));
  EXPECT_EQ(WAIT_OBJECT_0, done.Wait(0));
  // Restarted at another rate, attached again: the manual value holds.
  ASSERT_EQ(S_OK, Start(0, 640, 480, 30));
  for (const auto &frame : NextFrames(10)) EXPECT_EQ(2000u, frame.exposureUs);
}

}  // namespace
