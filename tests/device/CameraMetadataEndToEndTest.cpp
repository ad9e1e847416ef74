// The simulated depth camera's frames leave the transform with the driver's capture metadata, and the
// depth parser turns that metadata into sample attributes.
#include <gtest/gtest.h>

#include <chrono>
#include <mutex>
#include <thread>
#include <vector>

#include "mft_core/streams/FrameDropMonitor.h"
#include "mft_core/transform/PassThroughDeviceMft.h"
#include "product/metadata/WQ400MetadataParsers.h"
#include "product/metadata/WQ400MetadataRecords.h"
#include "sim/FrameServerHost.h"
#include "user_space_frameworks/ComObject.h"

using Microsoft::WRL::ComPtr;

namespace {

struct Seen {
  UINT32 frameCounter = 0;
  bool hasHwTimestamp = false;
  bool hasIntrinsics = false;
};

TEST(CameraMetadataEndToEndTest, DepthFramesCarryMetadataTheParserTurnsIntoAttributes) {
  auto filter = sim::SimulatedCameraFilter::Create(sim::DepthCamera());
  auto object = user_space_frameworks::MakeComObject<mft_core::PassThroughDeviceMft>(
      "Metadata Device MFT", mft_core::DeviceExtensionUnits{sim::kDepthXuSet, 1, 7});
  ComPtr<IMFDeviceTransform> device;
  ASSERT_EQ(S_OK, object.As(&device));
  sim::FrameServerHost host(device, filter);
  host.Source().SetFrameGap(5);  // every fifth counter never arrives

  mft_core::WQ400DepthMetadataParser parser("WQ400 Depth Device MFT");
  std::mutex mutex;
  std::vector<Seen> seen;
  host.SetOutputObserver([&](DWORD streamId, IMFSample *sample) {
    if (streamId != 0) return;
    parser.Parse(sample);
    Seen frame;
    sample->GetUINT32(mft_core::WQ400_MF_FRAME_COUNTER, &frame.frameCounter);
    UINT32 hwTimestamp = 0, size = 0;
    frame.hasHwTimestamp = SUCCEEDED(sample->GetUINT32(mft_core::VELDARA_SAMPLE_WQ400_HW_TIMESTAMP, &hwTimestamp));
    frame.hasIntrinsics = SUCCEEDED(sample->GetBlobSize(MFSampleExtension_PinholeCameraIntrinsics, &size));
    std::lock_guard<std::mutex> hold(mutex);
    seen.push_back(frame);
  });

  ASSERT_EQ(S_OK, host.Initialize());
  ComPtr<IMFMediaType> type;
  ASSERT_EQ(S_OK, host.FindOutputType(0, 848, 480, 30, type.GetAddressOf()));
  ASSERT_EQ(S_OK, host.StartStream(0, type.Get()));
  for (int i = 0; i < 500; ++i) {
    {
      std::lock_guard<std::mutex> hold(mutex);
      if (seen.size() >= 12) break;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  ASSERT_EQ(S_OK, host.StopStream(0));
  ASSERT_EQ(S_OK, host.Shutdown());

  std::lock_guard<std::mutex> hold(mutex);
  ASSERT_GE(seen.size(), 12u);
  UINT32 previous = 0;
  for (const Seen &frame : seen) {
    EXPECT_TRUE(frame.hasHwTimestamp);
    EXPECT_TRUE(frame.hasIntrinsics);
    // The counters the camera stamped come back out, with the left-out ones missing.
    EXPECT_GT(frame.frameCounter, previous);
    EXPECT_NE(0u, frame.frameCounter % 5);
    previous = frame.frameCounter;
  }
}

}  // namespace
