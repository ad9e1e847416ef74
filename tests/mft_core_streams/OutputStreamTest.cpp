#include <gtest/gtest.h>

#include "common/MediaTypes.h"
#include "common/Waiting.h"
#include "mft_core_streams/StreamTestSupport.h"
#include "mft_core/streams/OutputStream.h"

namespace {

using Microsoft::WRL::ComPtr;
using mft_core::OutputStream;
using mft_core::OutputStreamConfiguration;
using test_support::DrainEvents;
using test_support::MakeSample;
using test_support::MakeVideoType;
using test_support::TestEventGenerator;

class OutputStreamTest : public ::testing::Test {
 protected:
  void SetUp() override {
    generator = user_space_frameworks::MakeComObject<TestEventGenerator>();
    OutputStreamConfiguration configuration;
    configuration.mtList->push_back(MakeVideoType(MFVideoFormat_YUY2, 640, 480, 30));
    stream = std::make_shared<OutputStream>(3, generator.Get(), configuration);
    ASSERT_EQ(S_OK, stream->Init());
  }
  void TearDown() override { generator->Shutdown(); }

  ComPtr<TestEventGenerator> generator;
  std::shared_ptr<OutputStream> stream;
};

TEST_F(OutputStreamTest, StoppedStreamDropsSamplesAndLeavesTheBufferUntouched) {
  auto sample = MakeSample(1);
  const ULONG before = test_waiting::References(sample.Get());
  ASSERT_EQ(S_OK, stream->ProcessSample(sample.Get()));
  EXPECT_EQ(0u, stream->GetQueueLength());
  EXPECT_EQ(before, test_waiting::References(sample.Get()));
  EXPECT_TRUE(DrainEvents(*generator.Get()).empty());

  MFT_OUTPUT_DATA_BUFFER buffer{};
  buffer.dwStatus = 0xABCD;
  buffer.pSample = reinterpret_cast<IMFSample *>(0x1);
  EXPECT_EQ(S_OK, stream->ProcessOutput(buffer, 3));
  EXPECT_EQ(0xABCDu, buffer.dwStatus);
  EXPECT_EQ(reinterpret_cast<IMFSample *>(0x1), buffer.pSample);
}

TEST_F(OutputStreamTest, RunningStreamAnnouncesItselfThenHandsSamplesOutInOrder) {
  ASSERT_EQ(S_OK, stream->SetState(DeviceStreamState_Run));
  std::vector<ComPtr<IMFMediaEvent>> events;
  ASSERT_EQ(std::vector<MediaEventType>{MEUnknown}, DrainEvents(*generator.Get(), &events));
  GUID extended = GUID_NULL;
  UINT32 streamId = 0;
  ASSERT_EQ(S_OK, events[0]->GetExtendedType(&extended));
  EXPECT_EQ(MEDeviceStreamCreated, extended);
  ASSERT_EQ(S_OK, events[0]->GetUINT32(MF_EVENT_MFT_INPUT_STREAM_ID, &streamId));
  EXPECT_EQ(3u, streamId);

  std::vector<ComPtr<IMFSample>> samples{MakeSample(10), MakeSample(20), MakeSample(30)};
  for (auto &s : samples) ASSERT_EQ(S_OK, stream->ProcessSample(s.Get()));
  EXPECT_EQ(std::vector<MediaEventType>(3, METransformHaveOutput), DrainEvents(*generator.Get()));

  for (auto &expected : samples) {
    MFT_OUTPUT_DATA_BUFFER buffer{};
    buffer.dwStatus = 0xFFFF;
    ASSERT_EQ(S_OK, stream->ProcessOutput(buffer, 3));
    EXPECT_EQ(0u, buffer.dwStatus);
    EXPECT_EQ(expected.Get(), buffer.pSample);
    // The queue's reference went to the caller: ours, the caller's, nothing else.
    EXPECT_EQ(2u, test_waiting::References(buffer.pSample));
    buffer.pSample->Release();
  }
  MFT_OUTPUT_DATA_BUFFER buffer{};
  buffer.pSample = reinterpret_cast<IMFSample *>(0x1);
  EXPECT_EQ(MF_E_TRANSFORM_NEED_MORE_INPUT, stream->ProcessOutput(buffer, 3));
  EXPECT_EQ(static_cast<DWORD>(MFT_OUTPUT_DATA_BUFFER_NO_SAMPLE), buffer.dwStatus);
  EXPECT_EQ(nullptr, buffer.pSample);
}

TEST_F(OutputStreamTest, FlushReleasesEveryQueuedSample) {
  ASSERT_EQ(S_OK, stream->SetState(DeviceStreamState_Run));
  auto sample = MakeSample();
  const ULONG before = test_waiting::References(sample.Get());
  ASSERT_EQ(S_OK, stream->ProcessSample(sample.Get()));
  ASSERT_EQ(S_OK, stream->ProcessSample(sample.Get()));
  EXPECT_EQ(before + 2, test_waiting::References(sample.Get()));
  ASSERT_EQ(S_OK, stream->Flush());
  EXPECT_EQ(0u, stream->GetQueueLength());
  EXPECT_EQ(before, test_waiting::References(sample.Get()));
}

TEST(OutputStreamAttributesTest, BuildsTheStreamStoreFromItsConfiguration) {
  OutputStreamConfiguration configuration;
  configuration.urlString = L"usb#camera";
  configuration.mtList->push_back(MakeVideoType(MFVideoFormat_D16, 640, 480, 30));
  configuration.mtList->push_back(MakeVideoType(MFVideoFormat_L8, 640, 480, 30));
  ASSERT_EQ(S_OK, MFCreateAttributes(configuration.attributes.GetAddressOf(), 4));
  ASSERT_EQ(S_OK, configuration.attributes->SetUINT32(MF_DEVICESTREAM_ATTRIBUTE_FRAMESOURCE_TYPES, MFFrameSourceTypes_Depth));
  ASSERT_EQ(S_OK, configuration.attributes->SetUINT32(MF_DEVICESTREAM_STREAM_ID, 99));  // not to overwrite ours
  ASSERT_EQ(S_OK, configuration.attributes->SetUINT32(MF_SA_D3D11_SHARED_WITHOUT_MUTEX, TRUE));
  ASSERT_EQ(S_OK, configuration.attributes->SetUINT32(MF_MT_DEFAULT_STRIDE, 1280));  // carried over
  configuration.intrinsics.assign(sizeof(MFPinholeCameraIntrinsics), 0x11);
  configuration.extrinsics.assign(sizeof(MFCameraExtrinsics), 0x22);
  configuration.depth.measurementType = DistanceToOpticalCenter;
  configuration.depth.depthValueUnit = 1000;
  configuration.depth.subtypes = {MFVideoFormat_D16};

  OutputStream stream(1, nullptr, configuration);
  EXPECT_EQ(E_POINTER, stream.InitAttributes(nullptr));
  ASSERT_EQ(S_OK, stream.Init());
  ComPtr<IMFAttributes> attr;
  ASSERT_EQ(S_OK, stream.GetAttributes(attr.GetAddressOf()));

  EXPECT_EQ(1u, MFGetAttributeUINT32(attr.Get(), MF_DEVICESTREAM_STREAM_ID, 0));
  EXPECT_EQ(static_cast<UINT32>(MFFrameSourceTypes_Depth),
            MFGetAttributeUINT32(attr.Get(), MF_DEVICESTREAM_ATTRIBUTE_FRAMESOURCE_TYPES, 0));
  EXPECT_EQ(static_cast<UINT32>(MFFrameSourceTypes_Depth), stream.GetFrameSourceType());
  EXPECT_EQ(1u, MFGetAttributeUINT32(attr.Get(), MF_DEVICESTREAM_FRAMESERVER_SHARED, 0));
  GUID category = GUID_NULL;
  ASSERT_EQ(S_OK, attr->GetGUID(MF_DEVICESTREAM_STREAM_CATEGORY, &category));
  EXPECT_EQ(PINNAME_VIDEO_CAPTURE, category);
  WCHAR url[32] = {};
  ASSERT_EQ(S_OK, attr->GetString(MFT_ENUM_HARDWARE_URL_Attribute, url, 32, nullptr));
  EXPECT_STREQ(L"usb#camera", url);
  UINT32 blobSize = 0;
  ASSERT_EQ(S_OK, attr->GetBlobSize(MFStreamExtension_PinholeCameraIntrinsics, &blobSize));
  EXPECT_EQ(48u, blobSize);
  ASSERT_EQ(S_OK, attr->GetBlobSize(MFStreamExtension_CameraExtrinsics, &blobSize));
  EXPECT_EQ(48u, blobSize);
  EXPECT_EQ(1000u, MFGetAttributeUINT32(attr.Get(), MF_MT_DEPTH_VALUE_UNIT, 0));
  EXPECT_EQ(1280u, MFGetAttributeUINT32(attr.Get(), MF_MT_DEFAULT_STRIDE, 0));
  MF_ATTRIBUTE_TYPE type;
  EXPECT_TRUE(FAILED(attr->GetItemType(MF_SA_D3D11_SHARED_WITHOUT_MUTEX, &type)));

  // Only the listed subtype is marked, and on the stream's own copy of the type.
  ComPtr<IMFMediaType> depthType, otherType;
  ASSERT_EQ(S_OK, stream.GetMediaTypeAt(0, depthType.GetAddressOf()));
  ASSERT_EQ(S_OK, stream.GetMediaTypeAt(1, otherType.GetAddressOf()));
  EXPECT_EQ(static_cast<UINT32>(DistanceToOpticalCenter), MFGetAttributeUINT32(depthType.Get(), MF_MT_DEPTH_MEASUREMENT, 99));
  EXPECT_TRUE(FAILED(otherType->GetItemType(MF_MT_DEPTH_VALUE_UNIT, &type)));
  EXPECT_NE((*configuration.mtList)[0].Get(), depthType.Get());
  EXPECT_TRUE(FAILED((*configuration.mtList)[0]->GetItemType(MF_MT_DEPTH_VALUE_UNIT, &type)));
}

}  // namespace
