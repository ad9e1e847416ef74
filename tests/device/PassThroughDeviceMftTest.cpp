// The pass-through device transform through its COM surface, driven by the simulated frame server over
// the simulated depth camera.
#include <gtest/gtest.h>

#include "common/Waiting.h"
#include "mft_core/transform/PassThroughDeviceMft.h"
#include "sim/FrameServerHost.h"
#include "user_space_frameworks/ComObject.h"

using Microsoft::WRL::ComPtr;
using mft_core::PassThroughDeviceMft;

namespace {

const mft_core::DeviceExtensionUnits kDepthUnits{sim::kDepthXuSet, 1, 7};

using test_waiting::WaitFor;

class DeviceTransformTest : public ::testing::Test {
 protected:
  template <typename Transform = PassThroughDeviceMft, typename... Args>
  void Connect(const sim::CameraConfig &camera, Args &&...args) {
    filter = sim::SimulatedCameraFilter::Create(camera);
    ASSERT_TRUE(filter);
    auto object = user_space_frameworks::MakeComObject<Transform>(std::forward<Args>(args)...);
    ASSERT_EQ(S_OK, object.As(&device));
    host = std::make_unique<sim::FrameServerHost>(device, filter);
  }
  void ConnectDepth() { Connect(sim::DepthCamera(), "Test Device MFT", kDepthUnits); }

  ComPtr<IMFMediaType> OutputType(DWORD streamId, UINT32 width, UINT32 height, UINT32 fps) {
    ComPtr<IMFMediaType> type;
    EXPECT_EQ(S_OK, host->FindOutputType(streamId, width, height, fps, type.GetAddressOf()));
    return type;
  }
  uint64_t FramesOut(DWORD streamId) { return test_waiting::FramesOut(*host, streamId); }
  size_t Subscriptions() { return filter->ActiveEventSubscriptions(sim::kAutoUpdateEventSet, sim::kAutoUpdateEventId); }
  size_t EnableRequests() {
    return filter->CountRequests(sim::KsRequestKind::Event, sim::kAutoUpdateEventSet, sim::kAutoUpdateEventId,
                                 KSEVENT_TYPE_ENABLE);
  }

  ComPtr<sim::SimulatedCameraFilter> filter;
  ComPtr<IMFDeviceTransform> device;
  std::unique_ptr<sim::FrameServerHost> host;
};

std::vector<DWORD> Ids(IMFDeviceTransform *device, bool input) {
  DWORD inputs = 0, outputs = 0;
  EXPECT_EQ(S_OK, device->GetStreamCount(&inputs, &outputs));
  std::vector<DWORD> in(inputs), out(outputs);
  EXPECT_EQ(S_OK, device->GetStreamIDs(inputs, in.data(), outputs, out.data()));
  return input ? in : out;
}

TEST_F(DeviceTransformTest, CreatesOneInputPerFilterStreamNumberedAsListedAndOneOutputPerInput) {
  sim::CameraConfig camera = sim::DepthCamera();
  camera.streams[0].id = 4;
  camera.streams[1].id = 7;
  camera.streams[2].id = 9;
  Connect(camera, "Test Device MFT", kDepthUnits);
  ASSERT_EQ(S_OK, host->Initialize());
  EXPECT_EQ((std::vector<DWORD>{4, 7, 9}), Ids(device.Get(), true));
  EXPECT_EQ((std::vector<DWORD>{0, 1, 2}), Ids(device.Get(), false));

  // Output 1 offers what input 7 offers, and carries its stream attributes.
  ComPtr<IMFAttributes> outputAttributes;
  ASSERT_EQ(S_OK, device->GetOutputStreamAttributes(1, outputAttributes.GetAddressOf()));
  EXPECT_EQ(UINT32(MFFrameSourceTypes_Infrared), MFGetAttributeUINT32(outputAttributes.Get(),
                                                                     MF_DEVICESTREAM_ATTRIBUTE_FRAMESOURCE_TYPES, 0));
  DWORD index = 0;
  for (;; ++index) {
    ComPtr<IMFMediaType> output, input;
    const HRESULT hr = device->GetOutputAvailableType(1, index, output.GetAddressOf());
    if (hr == MF_E_NO_MORE_TYPES) break;
    ASSERT_EQ(S_OK, hr);
    ASSERT_EQ(S_OK, device->GetInputAvailableType(7, index, input.GetAddressOf()));
    DWORD flags = 0;
    EXPECT_EQ(S_OK, output->IsEqual(input.Get(), &flags));
  }
  EXPECT_EQ(camera.streams[1].formats.size(), index);

  ComPtr<IMFTransform> view;
  ASSERT_EQ(S_OK, device.As(&view));
  ComPtr<IMFAttributes> attributes;
  ASSERT_EQ(S_OK, view->GetAttributes(attributes.GetAddressOf()));
  EXPECT_EQ(1u, MFGetAttributeUINT32(attributes.Get(), MF_TRANSFORM_ASYNC, 0));
  EXPECT_EQ(1u, MFGetAttributeUINT32(attributes.Get(), MFT_SUPPORT_DYNAMIC_FORMAT_CHANGE, 0));
  EXPECT_EQ(0u, MFGetAttributeUINT32(attributes.Get(), MF_SA_D3D_AWARE, 1));
  UINT32 urlLength = 0;
  EXPECT_EQ(S_OK, attributes->GetStringLength(MFT_ENUM_HARDWARE_URL_Attribute, &urlLength));

  // A filter that does not list its stream ids has them numbered from zero.
  sim::CameraConfig unlisted = sim::DepthCamera();
  unlisted.reportsStreamIds = false;
  Connect(unlisted, "Test Device MFT", kDepthUnits);
  ASSERT_EQ(S_OK, host->Initialize());
  EXPECT_EQ((std::vector<DWORD>{0, 1, 2}), Ids(device.Get(), true));
}

TEST_F(DeviceTransformTest, StartsRestartsWithAnotherTypeAndStops) {
  ConnectDepth();
  ASSERT_EQ(S_OK, host->Initialize());
  ASSERT_EQ(S_OK, host->StartStream(0, OutputType(0, 848, 480, 30).Get()));
  ASSERT_TRUE(WaitFor([&] { return FramesOut(0) >= 3; }));
  EXPECT_EQ(1u, Subscriptions());
  EXPECT_EQ(1u, host->StateChangeRequests());

  // Restart with another size: the input stream is stopped and started again with the new type, and
  // the driver-event subscription is not taken a second time.
  ComPtr<IMFMediaType> smaller = OutputType(0, 640, 480, 30);
  ASSERT_EQ(S_OK, host->StartStream(0, smaller.Get()));
  EXPECT_EQ(3u, host->StateChangeRequests());
  ComPtr<IMFMediaType> driverType = filter->CurrentType(0);
  ASSERT_TRUE(driverType);
  DWORD flags = 0;
  EXPECT_EQ(S_OK, driverType->IsEqual(smaller.Get(), &flags));
  const uint64_t before = FramesOut(0);
  ASSERT_TRUE(WaitFor([&] { return FramesOut(0) >= before + 3; }));
  EXPECT_EQ(1u, Subscriptions());
  EXPECT_EQ(1u, EnableRequests());

  // Restarting with the same type changes nothing.
  ASSERT_EQ(S_OK, host->StartStream(0, smaller.Get()));
  EXPECT_EQ(3u, host->StateChangeRequests());

  // A second stream shares the subscription; the last stop gives it back.
  ASSERT_EQ(S_OK, host->StartStream(1, OutputType(1, 848, 480, 30).Get()));
  ASSERT_EQ(S_OK, host->StopStream(0));
  EXPECT_EQ(1u, Subscriptions());
  EXPECT_FALSE(host->Source().IsRunning(0));
  ASSERT_EQ(S_OK, host->StopStream(1));
  EXPECT_EQ(0u, Subscriptions());
  DeviceStreamState state = DeviceStreamState_Run;
  ASSERT_EQ(S_OK, device->GetOutputStreamState(0, &state));
  EXPECT_EQ(DeviceStreamState_Stop, state);

  // Stopping a stream that never ran is accepted and asks the frame server for nothing.
  const uint64_t requests = host->StateChangeRequests();
  EXPECT_EQ(S_OK, host->StopStream(2));
  EXPECT_EQ(requests, host->StateChangeRequests());
  EXPECT_EQ(S_OK, host->LastPumpError());
}

TEST_F(DeviceTransformTest, RefusesTypesStatesStreamsAndMessagesItDoesNotHandle) {
  ConnectDepth();
  ASSERT_EQ(S_OK, host->Initialize());
  // Listed at 30 fps only as 25 here: not a type of the input stream.
  ComPtr<IMFMediaType> otherRate;
  ASSERT_EQ(S_OK, MFCreateMediaType(otherRate.GetAddressOf()));
  ASSERT_EQ(S_OK, OutputType(0, 848, 480, 30)->CopyAllItems(otherRate.Get()));
  ASSERT_EQ(S_OK, MFSetAttributeRatio(otherRate.Get(), MF_MT_FRAME_RATE, 25, 1));
  EXPECT_EQ(E_INVALIDARG, device->SetOutputStreamState(0, otherRate.Get(), DeviceStreamState_Run, 0));
  DeviceStreamState state = DeviceStreamState_Run;
  ASSERT_EQ(S_OK, device->GetOutputStreamState(0, &state));
  EXPECT_EQ(DeviceStreamState_Stop, state);

  ComPtr<IMFMediaType> type = OutputType(0, 848, 480, 30);
  EXPECT_EQ(E_NOTIMPL, device->SetOutputStreamState(0, type.Get(), DeviceStreamState_Pause, 0));
  EXPECT_EQ(E_FAIL, device->SetOutputStreamState(3, type.Get(), DeviceStreamState_Run, 0));
  EXPECT_EQ(E_NOTIMPL, device->ProcessMessage(MFT_MESSAGE_SET_D3D_MANAGER, 0));
  EXPECT_EQ(S_OK, device->ProcessMessage(MFT_MESSAGE_NOTIFY_BEGIN_STREAMING, 0));
  EXPECT_EQ(S_OK, device->ProcessMessage(MFT_MESSAGE_COMMAND_DRAIN, 0));

  // The transform still streams after all that.
  ASSERT_EQ(S_OK, host->StartStream(0, type.Get()));
  EXPECT_TRUE(WaitFor([&] { return FramesOut(0) >= 3; }));
}

TEST_F(DeviceTransformTest, FlushEmptiesOutputQueues) {
  ConnectDepth();
  ASSERT_EQ(S_OK, host->Initialize());
  ASSERT_EQ(S_OK, host->StartStream(0, OutputType(0, 848, 480, 30).Get()));
  ASSERT_TRUE(WaitFor([&] { return FramesOut(0) >= 2; }));
  host->Source().StopAll();
  EXPECT_EQ(S_OK, device->ProcessMessage(MFT_MESSAGE_COMMAND_FLUSH, 0));
  MFT_OUTPUT_DATA_BUFFER buffer = {};
  buffer.dwStreamID = 0;
  DWORD status = 0;
  EXPECT_EQ(MF_E_TRANSFORM_NEED_MORE_INPUT, device->ProcessOutput(0, 1, &buffer, &status));
  EXPECT_EQ(nullptr, buffer.pSample);
  EXPECT_EQ(DWORD(MFT_OUTPUT_DATA_BUFFER_NO_SAMPLE), buffer.dwStatus);
}

TEST_F(DeviceTransformTest, FilterWithoutKsControlFailsInitialisationAndCreatesNoStreams) {
  sim::CameraConfig camera = sim::DepthCamera();
  camera.exposesKsControl = false;
  Connect(camera, "Test Device MFT", kDepthUnits);
  EXPECT_EQ(E_POINTER, host->Initialize());
  DWORD inputs = 9, outputs = 9;
  ASSERT_EQ(S_OK, device->GetStreamCount(&inputs, &outputs));
  EXPECT_EQ(0u, inputs);
  EXPECT_EQ(0u, outputs);
}

TEST_F(DeviceTransformTest, ADriverThatIsNotReadyIsRetriedAndOneThatStaysSoIsReported) {
  ConnectDepth();
  // Busy while the transform looks for its extension unit: the proxy asks again.
  filter->InjectNotReady(3, sim::kDepthXuSet);
  ASSERT_EQ(S_OK, host->Initialize());

  ComPtr<IKsControl> application = host->ApplicationKsControl();
  ASSERT_TRUE(application);
  KSPROPERTY_VIDEOPROCAMP_S gain = {};
  gain.Property = {PROPSETID_VIDCAP_VIDEOPROCAMP, KSPROPERTY_VIDEOPROCAMP_GAIN, KSPROPERTY_TYPE_GET};
  ULONG bytesReturned = 0;
  ASSERT_EQ(S_OK, application->KsProperty(&gain.Property, sizeof(gain), &gain, sizeof(gain), &bytesReturned));
  EXPECT_EQ(16, gain.Value);

  filter->InjectNotReady(-1, PROPSETID_VIDCAP_VIDEOPROCAMP);
  filter->ClearRequests();
  EXPECT_EQ(sim::kNotReady, application->KsProperty(&gain.Property, sizeof(gain), &gain, sizeof(gain), &bytesReturned));
  EXPECT_EQ(10u, filter->CountRequests(sim::KsRequestKind::Property, PROPSETID_VIDCAP_VIDEOPROCAMP, sim::kAnyId));

  // Other controls and streaming carry on.
  filter->ClearFaults();
  ASSERT_EQ(S_OK, host->StartStream(2, OutputType(2, 848, 480, 30).Get()));
  EXPECT_TRUE(WaitFor([&] { return FramesOut(2) >= 3; }));
}

}  // namespace
