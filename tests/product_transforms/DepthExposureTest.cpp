// The depth transform's extended exposure control as an application uses it: KS requests and the
// one-shot completion event through the transform, completed by the frames of the simulated camera.
#include <algorithm>
#include <cstring>

#include "ProductHarness.h"
#include "common/SystemStateGuards.h"
#include "common/MediaTypes.h"
#include "product/controls/WQ400DepthExtendedExposureControl.h"
#include "sim/CameraMetadataWriter.h"
#include "user_space_frameworks/Sync.h"

using Microsoft::WRL::ComPtr;

namespace {

constexpr ULONG kExposureMode = 12;  // the extended exposure-mode control
constexpr ULONGLONG kAuto = KSCAMERA_EXTENDEDPROP_VIDEOPROCFLAG_AUTO;
constexpr ULONGLONG kManual = KSCAMERA_EXTENDEDPROP_VIDEOPROCFLAG_MANUAL;
constexpr ULONGLONG kLock = KSCAMERA_EXTENDEDPROP_VIDEOPROCFLAG_LOCK;

struct ExtendedRequest {
  KSCAMERA_EXTENDEDPROP_HEADER header;
  KSCAMERA_EXTENDEDPROP_VIDEOPROCSETTING setting;
};
static_assert(sizeof(ExtendedRequest) == 64, "extended request");

class DepthExposureTest : public test_support::DepthTransformTest {
 protected:
  // Arms the control's one-shot completion event as an application does.
  void ArmCompletion() {
    completion = user_space_frameworks::UniqueHandle(CreateEventW(nullptr, FALSE, FALSE, nullptr));
    EXPECT_EQ(S_OK, ArmExposureEvent(completion.Get()));
  }
  bool Completed(DWORD timeoutMs = 0) { return WaitForSingleObject(completion.Get(), timeoutMs) == WAIT_OBJECT_0; }
  ExtendedRequest Query() {
    ExtendedRequest reply = {};
    EXPECT_EQ(S_OK, GetExposureMode(reply.header, reply.setting));
    return reply;
  }
  uint32_t DeviceExposure() {
    uint32_t value = 0;
    const std::vector<BYTE> bytes = filter->GetControlValue(sim::kDepthXuSet, 3);
    std::memcpy(&value, bytes.data(), std::min(bytes.size(), sizeof(value)));
    return value;
  }
  BYTE DeviceMode() { return filter->GetControlValue(sim::kDepthXuSet, 11).at(0); }

  // A stream the camera delivers nothing on: the test feeds its frames.
  void StartFedStream() {
    host->Source().SetFrameGap(1);
    ASSERT_EQ(S_OK, Start(0));
  }
  void Feed(bool withMetadata, uint32_t exposureUs = 0, DWORD streamId = 0) {
    ComPtr<IMFSample> sample = test_support::MakeSample(++sampleTime * 333333);
    if (withMetadata) {
      writer.SetDepthExposure(exposureUs);
      ASSERT_EQ(S_OK, writer.WriteNextFrame(sample.Get()));
    }
    ASSERT_EQ(S_OK, device->ProcessInput(streamId, sample.Get(), 0));
  }
  // Whether the frames of `streamId` reach the control: a manual request completes on its frame.
  // A request left open is completed on `feeder`, a stream known to feed.
  bool Feeds(DWORD streamId, DWORD feeder) {
    ArmCompletion();
    EXPECT_EQ(S_OK, SetExposureMode(kManual, 50000));
    Feed(true, 5000, streamId);
    const bool feeds = Completed();
    if (!feeds) {
      Feed(true, 5000, feeder);
      EXPECT_TRUE(Completed()) << "stream " << feeder << " was to feed the control";
    }
    return feeds;
  }

  user_space_frameworks::UniqueHandle completion;
  sim::CameraMetadataWriter writer{sim::CameraKind::Depth};
  LONGLONG sampleTime = 0;
};

TEST_F(DepthExposureTest, ReportsTheDeviceRangeInPlatformUnitsAndTheStateInTheFlags) {
  ConnectAndInitialize();
  // The header's fixed fields are the generic control's (its own tests); the range is this camera's.
  ExtendedRequest reply = Query();
  EXPECT_EQ(kAuto, reply.header.Flags);
  EXPECT_EQ(0u, reply.setting.Mode);
  EXPECT_EQ(10, reply.setting.Min);
  EXPECT_EQ(1650000, reply.setting.Max);
  EXPECT_EQ(10, reply.setting.Step);
  EXPECT_EQ(85000u, reply.setting.VideoProc.Value.ull);

  // Manual values go to the device in its units, truncated.
  ASSERT_EQ(S_OK, SetExposureMode(kManual, 33333));
  EXPECT_EQ(3333u, DeviceExposure());
  EXPECT_EQ(0, DeviceMode());
  reply = Query();
  EXPECT_EQ(kManual, reply.header.Flags);
  EXPECT_EQ(33330u, reply.setting.VideoProc.Value.ull);
  EXPECT_EQ(0u, reply.setting.Mode);

  // A device that fails the range query fails the read.
  ULONG bytesReturned = 0;
  ExtendedRequest shortReply = {};
  InjectPropertyFault(sim::kDepthXuSet, 3, KSPROPERTY_TYPE_BASICSUPPORT, HRESULT_FROM_WIN32(ERROR_GEN_FAILURE), 1);
  EXPECT_EQ(HRESULT_FROM_WIN32(ERROR_GEN_FAILURE), Property(KSPROPERTYSETID_ExtendedCameraControl, kExposureMode,
                                                            KSPROPERTY_TYPE_GET, &shortReply, 64, &bytesReturned));
}

TEST_F(DepthExposureTest, ManualAutoAndLockRequestsCompleteOnLiveFrames) {
  sim::CameraConfig camera = sim::DepthCamera();
  // A slow sensor: frames show a new value only after a second, whatever the machine's load.
  camera.sensor.exposureSettleMs = 1000;
  ConnectAndInitialize(camera);
  ASSERT_EQ(S_OK, Start(0));
  ASSERT_TRUE(test_support::WaitFor([&] { return FramesOut(0) >= 3; }));

  ArmCompletion();
  ASSERT_EQ(S_OK, SetExposureMode(kManual, 50000));
  EXPECT_TRUE(Completed(5000));
  EXPECT_EQ(5000u, DeviceExposure());
  EXPECT_EQ(0, DeviceMode());

  // Auto completes at once, without waiting for frames.
  ArmCompletion();
  ASSERT_EQ(S_OK, SetExposureMode(kAuto));
  EXPECT_TRUE(Completed());
  EXPECT_EQ(1, DeviceMode());

  // Lock: auto runs until the frames are stable, then the sensor's value is frozen as manual.
  ArmCompletion();
  ASSERT_EQ(S_OK, SetExposureMode(kAuto | kLock));
  EXPECT_TRUE(Completed(5000));
  EXPECT_EQ(0, DeviceMode());
  EXPECT_GT(DeviceExposure(), 5000u);
  EXPECT_LE(DeviceExposure(), 12000u);
  EXPECT_EQ(kAuto | kLock, Query().header.Flags);
}

TEST_F(DepthExposureTest, WithoutRunningStreamsManualCompletesAtOnce) {
  ConnectAndInitialize();
  ArmCompletion();
  ASSERT_EQ(S_OK, SetExposureMode(kManual, 120000));
  EXPECT_TRUE(Completed());
  EXPECT_EQ(12000u, DeviceExposure());
  // A stream that ran and stopped leaves the control detached again.
  ASSERT_EQ(S_OK, Start(0));
  ASSERT_EQ(S_OK, host->StopStream(0));
  ArmCompletion();
  ASSERT_EQ(S_OK, SetExposureMode(kManual, 60000));
  EXPECT_TRUE(Completed());
}

TEST_F(DepthExposureTest, StoppingTheFeedingStreamHandsTheFeedToEveryRunningStreamEachFrameOnce) {
  ConnectAndInitialize();
  host->Source().SetFrameGap(1);
  for (DWORD stream : {0u, 1u, 2u}) ASSERT_EQ(S_OK, Start(stream));
  // The first stream started feeds alone.
  EXPECT_TRUE(Feeds(0, 0));
  EXPECT_FALSE(Feeds(1, 0));
  EXPECT_FALSE(Feeds(2, 0));
  // Its stop hands the feed to every stream still running; the later one is remembered.
  ASSERT_EQ(S_OK, host->StopStream(0));
  EXPECT_TRUE(Feeds(1, 1));
  EXPECT_TRUE(Feeds(2, 2));
  // Stopping the remembered stream walks again and registers stream 1 a second time: its frames still
  // count once, so a lock takes all three stable frames.
  ASSERT_EQ(S_OK, host->StopStream(2));
  EXPECT_TRUE(Feeds(1, 1));
  ArmCompletion();
  ASSERT_EQ(S_OK, SetExposureMode(kLock));
  for (int frame = 1; frame < 3; ++frame) {
    Feed(true, 5000, 1);
    EXPECT_FALSE(Completed()) << "frame " << frame;
  }
  Feed(true, 5000, 1);
  EXPECT_TRUE(Completed());
}

TEST_F(DepthExposureTest, RegistryTuningIsReadAsDwordsOnly) {
  const std::wstring key = mft_core::WQ400DepthExtendedExposureControl::kRegistryKey;
  test_support::RegistryValueGuard samples(key, L"NumConvergedSamplesForLock");
  test_support::RegistryValueGuard manualDelta(key, L"ManualConvergeDelta");
  samples.SetDword(5);
  manualDelta.SetString(L"1");  // not a DWORD: the default holds
  ConnectAndInitialize();
  StartFedStream();

  // Five frames without metadata before the substitute frame completes the request.
  ArmCompletion();
  ASSERT_EQ(S_OK, SetExposureMode(kManual, 50000));
  for (int frame = 1; frame < 5; ++frame) {
    Feed(false);
    EXPECT_FALSE(Completed()) << "frame " << frame;
  }
  Feed(false);
  EXPECT_TRUE(Completed());

  // The manual delta is 5 ms: 10 ms shown for 5 ms requested is not there yet, 9.999 ms is.
  ArmCompletion();
  ASSERT_EQ(S_OK, SetExposureMode(kManual, 50000));
  Feed(true, 10000);
  EXPECT_FALSE(Completed());
  Feed(true, 9999);
  EXPECT_TRUE(Completed());

  // Lock needs five stable frames; one jump of 5 ms or more starts the count again.
  ArmCompletion();
  ASSERT_EQ(S_OK, SetExposureMode(kLock));
  for (uint32_t exposure : {8000u, 8100u, 8200u, 13200u, 13200u, 13200u, 13200u, 13200u}) {
    Feed(true, exposure);
    EXPECT_FALSE(Completed()) << exposure;
  }
  Feed(true, 13300);
  EXPECT_TRUE(Completed());
  EXPECT_EQ(13300u, DeviceExposure());
  EXPECT_EQ(0, DeviceMode());
}

}  // namespace
