// The depth transform streaming over the simulated camera: depth and both infrared streams with the
// camera's metadata on every sample, at one frame size and rate, and the standard exposure controls
// kept away from the driver.
#include <atomic>
#include <thread>
#include <map>
#include <mutex>

#include "ProductHarness.h"
#include "mft_core/streams/FrameDropMonitor.h"
#include "product/controls/WQ400PrivateProperties.h"
#include "product/metadata/WQ400MetadataRecords.h"

using Microsoft::WRL::ComPtr;

namespace {

using DepthStreamingTest = test_support::DepthTransformTest;

TEST_F(DepthStreamingTest, DepthAndBothInfraredStreamsCarryTheCameraMetadataOnEverySample) {
  Connect();
  struct Counts {
    uint64_t samples = 0;
    uint64_t complete = 0;
  };
  std::mutex mutex;
  std::map<DWORD, Counts> counts;
  host->SetOutputObserver([&](DWORD streamId, IMFSample *sample) {
    UINT32 size = 0, value = 0;
    bool complete = true;
    for (const GUID &blob : {MFSampleExtension_PinholeCameraIntrinsics, MFStreamExtension_CameraExtrinsics,
                             mft_core::VELDARA_SAMPLE_WQ400_CAPTURE_TIMING, mft_core::VELDARA_SAMPLE_WQ400_STATISTICS,
                             mft_core::VELDARA_SAMPLE_WQ400_CONFIGURATION, mft_core::VELDARA_SAMPLE_WQ400_DEPTH_CONTROL}) {
      complete = complete && SUCCEEDED(sample->GetBlobSize(blob, &size));
    }
    complete = complete && SUCCEEDED(sample->GetUINT32(mft_core::VELDARA_SAMPLE_WQ400_HW_TIMESTAMP, &value));
    complete = complete && SUCCEEDED(sample->GetUINT32(mft_core::WQ400_MF_FRAME_COUNTER, &value));
    std::lock_guard<std::mutex> hold(mutex);
    ++counts[streamId].samples;
    if (complete) ++counts[streamId].complete;
  });
  ASSERT_EQ(S_OK, Initialize());
  for (DWORD stream : {0u, 1u, 2u}) ASSERT_EQ(S_OK, Start(stream));
  ASSERT_TRUE(test_support::WaitFor([&] { return FramesOut(0) >= 10 && FramesOut(1) >= 10 && FramesOut(2) >= 10; }));
  for (DWORD stream : {0u, 1u, 2u}) ASSERT_EQ(S_OK, host->StopStream(stream));
  EXPECT_EQ(S_OK, host->LastPumpError());

  std::lock_guard<std::mutex> hold(mutex);
  for (DWORD stream : {0u, 1u, 2u}) {
    EXPECT_GE(counts[stream].samples, 10u) << "stream " << stream;
    EXPECT_EQ(counts[stream].samples, counts[stream].complete) << "stream " << stream;
  }
}

TEST_F(DepthStreamingTest, AllStreamsRunAtOneFrameSizeAndRate) {
  ConnectAndInitialize();
  ASSERT_EQ(S_OK, Start(0, 640, 480, 30));
  // Another size, or the same size at another rate, is refused while depth runs.
  EXPECT_EQ(E_INVALIDARG, Start(1, 848, 480, 30));
  EXPECT_EQ(E_INVALIDARG, Start(1, 640, 480, 60));
  DeviceStreamState state = DeviceStreamState_Run;
  ASSERT_EQ(S_OK, device->GetOutputStreamState(1, &state));
  EXPECT_EQ(DeviceStreamState_Stop, state);
  EXPECT_FALSE(host->Source().IsRunning(1));

  ASSERT_EQ(S_OK, Start(1, 640, 480, 30));
  ASSERT_EQ(S_OK, Start(2, 640, 480, 30));
  // The stream itself may change its own format only when it runs alone.
  EXPECT_EQ(E_INVALIDARG, Start(0, 848, 480, 30));
  ASSERT_EQ(S_OK, host->StopStream(1));
  ASSERT_EQ(S_OK, host->StopStream(2));
  EXPECT_EQ(S_OK, Start(0, 848, 480, 30));
  EXPECT_TRUE(test_support::WaitFor([&] { return FramesOut(0) >= 3; }));
  EXPECT_EQ(S_OK, Start(2, 848, 480, 30));
  EXPECT_TRUE(test_support::WaitFor([&] { return FramesOut(2) >= 3; }));
}

TEST_F(DepthStreamingTest, StreamsStartedTogetherAtDifferentSizesCannotBothRun) {
  ConnectAndInitialize();
  ComPtr<IMFMediaType> large = OutputType(1, 848, 480, 30), small = OutputType(2, 640, 480, 30);
  for (int round = 0; round < 5; ++round) {
    std::atomic<int> ready{0};
    HRESULT first = E_FAIL, second = E_FAIL;
    auto start = [&](DWORD stream, IMFMediaType *type, HRESULT &result) {
      ++ready;
      while (ready < 2) std::this_thread::yield();
      result = host->StartStream(stream, type);
    };
    std::thread one(start, 1u, large.Get(), std::ref(first));
    std::thread two(start, 2u, small.Get(), std::ref(second));
    one.join();
    two.join();
    EXPECT_TRUE((first == S_OK && second == E_INVALIDARG) || (first == E_INVALIDARG && second == S_OK))
        << std::hex << first << " " << second;
    ASSERT_EQ(S_OK, host->StopStream(1));
    ASSERT_EQ(S_OK, host->StopStream(2));
  }
}

TEST_F(DepthStreamingTest, AStartWaitingForTheFrameServerDoesNotHoldUpAnotherStart) {
  Connect();
  // The frame server's event pump can be held inside a delivered sample, so that a start waits.
  std::atomic<bool> holdPump{false}, pumpHeld{false};
  user_space_frameworks::Event releasePump(true);
  host->SetOutputObserver([&](DWORD, IMFSample *) {
    if (!holdPump) return;
    pumpHeld = true;
    WaitForSingleObject(releasePump.Get(), 30000);
  });
  ASSERT_EQ(S_OK, Initialize());
  ASSERT_EQ(S_OK, Start(1, 848, 480, 30));
  holdPump = true;
  ASSERT_TRUE(test_support::WaitFor([&] { return pumpHeld.load(); }));

  // Stream 0 starts at the running size and waits for the frame server's answer. (The host's own start
  // would wait for the held pump before it reaches the transform.)
  ComPtr<IMFMediaType> same = OutputType(0, 848, 480, 30), other = OutputType(2, 640, 480, 30);
  std::atomic<bool> firstDone{false}, secondDone{false};
  HRESULT first = E_FAIL, second = E_FAIL;
  std::thread waiting([&] {
    first = device->SetOutputStreamState(0, same.Get(), DeviceStreamState_Run, 0);
    firstDone = true;
  });
  ASSERT_TRUE(test_support::WaitFor([&] {
    DeviceStreamState state = DeviceStreamState_Stop;
    ComPtr<IMFMediaType> type;
    return SUCCEEDED(device->GetInputStreamPreferredState(0, &state, type.GetAddressOf())) &&
           state == DeviceStreamState_Run;
  }));
  // Meanwhile a start at another size is refused at once, not after the wait.
  std::thread refused([&] {
    second = device->SetOutputStreamState(2, other.Get(), DeviceStreamState_Run, 0);
    secondDone = true;
  });
  EXPECT_TRUE(test_support::WaitFor([&] { return secondDone.load(); }, 5000));
  EXPECT_FALSE(firstDone.load());
  holdPump = false;
  releasePump.Set();
  waiting.join();
  refused.join();
  EXPECT_EQ(E_INVALIDARG, second);
  EXPECT_EQ(S_OK, first);
}

TEST_F(DepthStreamingTest, StandardExposureControlsAreAnsweredWithoutTheDriver) {
  ConnectAndInitialize();
  filter->ClearRequests();
  for (ULONG id : {ULONG(KSPROPERTY_CAMERACONTROL_EXPOSURE), ULONG(KSPROPERTY_CAMERACONTROL_AUTO_EXPOSURE_PRIORITY)}) {
    for (ULONG flags : {ULONG(KSPROPERTY_TYPE_GET), ULONG(KSPROPERTY_TYPE_SET), ULONG(KSPROPERTY_TYPE_BASICSUPPORT)}) {
      KSPROPERTY_CAMERACONTROL_S control = {};
      control.Property = {PROPSETID_VIDCAP_CAMERACONTROL, id, flags};
      control.Value = -5;
      ULONG bytesReturned = 0;
      EXPECT_EQ(HRESULT_FROM_WIN32(ERROR_SET_NOT_FOUND),
                host->ApplicationKsControl()->KsProperty(&control.Property, sizeof(control), &control, sizeof(control),
                                                         &bytesReturned));
    }
  }
  EXPECT_EQ(0u, filter->CountRequests(sim::KsRequestKind::Property, PROPSETID_VIDCAP_CAMERACONTROL, sim::kAnyId));
  EXPECT_EQ(-6, filter->GetStandardControlValue(PROPSETID_VIDCAP_CAMERACONTROL, KSPROPERTY_CAMERACONTROL_EXPOSURE));
  // Other camera controls still reach it.
  LONG gain = 0;
  EXPECT_EQ(S_OK, GetGain(gain));
  EXPECT_EQ(16, gain);
}

TEST_F(DepthStreamingTest, RawFirmwareCommandsReachTheCameraAndTheReplyComesBack) {
  ConnectAndInitialize();
  mft_core::KSPROPERTY_WQ400_CONTROL_HW_COMMAND command = {};
  command.property = {mft_core::PROPSETID_WQ400_PRIVATE, mft_core::KSPROPERTY_WQ400_CONTROL_HW_COMMAND_ID,
                      KSPROPERTY_TYPE_GET};
  command.opCode = sim::kFirmwareOpcodeDeviceInfo;
  std::vector<BYTE> reply(sim::kDeviceInfoTableSize);
  ULONG bytesReturned = 0;
  ASSERT_EQ(S_OK, host->ApplicationKsControl()->KsProperty(&command.property, sizeof(command), reply.data(),
                                                           static_cast<ULONG>(reply.size()), &bytesReturned));
  EXPECT_EQ(44u, bytesReturned);
  EXPECT_EQ(sim::DeviceInfoTable(filter->Config().deviceInfo), reply);
}

}  // namespace
