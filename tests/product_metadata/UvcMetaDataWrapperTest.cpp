// Finding and locking the raw metadata buffer of a sample; the item walk itself has its own tests.
#include <gtest/gtest.h>


#include "common/CaptureMetadataSamples.h"
#include "product/metadata/UvcMetaDataWrapper.h"

namespace mft_core {
namespace {

using Microsoft::WRL::ComPtr;
using sim::MetadataBufferBuilder;
using test_samples::MakeSample;
using test_samples::MakeSampleWithMetadata;
using test_samples::Pattern;

constexpr uint32_t kId = 0x80000002;

TEST(UvcMetaDataWrapperInit, RefusesSamplesWithoutAWellFormedRawBuffer) {
  ComPtr<IMFSample> noMetadata = MakeSample();

  ComPtr<IMFSample> noRawStream = MakeSample();
  ComPtr<IMFAttributes> emptyStore;
  ASSERT_EQ(S_OK, MFCreateAttributes(&emptyStore, 1));
  ASSERT_EQ(S_OK, noRawStream->SetUnknown(MFSampleExtension_CaptureMetadata, emptyStore.Get()));

  const uint8_t twoBytes[] = {2, 0};
  struct Case {
    const char *name;
    ComPtr<IMFSample> sample;
    HRESULT expected;
  } cases[] = {
      {"no capture metadata", noMetadata, MF_E_ATTRIBUTENOTFOUND},
      {"no raw stream", noRawStream, MF_E_ATTRIBUTENOTFOUND},
      {"empty buffer", MakeSampleWithMetadata({}), E_FAIL},
      {"shorter than an id", MakeSampleWithMetadata({twoBytes, twoBytes + 2}), E_FAIL},
      {"first item id 1", MakeSampleWithMetadata(MetadataBufferBuilder().UsbVideoHeader(7, 1).Bytes()), E_FAIL},
      {"first item a camera item",
       MakeSampleWithMetadata(MetadataBufferBuilder().Item(kId, Pattern(24, 1).data(), 24).Bytes()), E_FAIL},
  };
  for (auto &c : cases) {
    UvcMetaDataWrapper wrapper;
    EXPECT_EQ(c.expected, wrapper.Init(c.sample)) << c.name;
    EXPECT_EQ(nullptr, wrapper.GetUsbVideoHeader()) << c.name;
    EXPECT_FALSE(wrapper.GetMetadataItem(kId, 0, 0xFFFFFFFF)) << c.name;
  }
}

TEST(UvcMetaDataWrapperInit, ExposesTheUsbVideoHeaderAndFindsItemsAfterIt) {
  const auto payload = Pattern(24, 5);
  ComPtr<IMFSample> sample =
      MakeSampleWithMetadata(MetadataBufferBuilder().UsbVideoHeader(0xA1B2C3D4).Item(kId, payload.data(), 24).Bytes());
  UvcMetaDataWrapper wrapper;
  ASSERT_EQ(S_OK, wrapper.Init(sample));
  ASSERT_NE(nullptr, wrapper.GetUsbVideoHeader());
  EXPECT_EQ(0xA1B2C3D4u, ReadLittleU32(wrapper.GetUsbVideoHeader()));
  const MetadataItemView item = wrapper.GetMetadataItem(kId, 24, 24);
  ASSERT_TRUE(item);
  EXPECT_EQ(24u, item.size);
  EXPECT_EQ(0, std::memcmp(payload.data(), item.data, 24));
}

TEST(UvcMetaDataWrapperInit, CameraItemsStartAtFortyWhateverTheHeaderSizeSays) {
  // The header item claims 16 bytes; the camera's items still start at offset 40.
  std::vector<uint8_t> bytes = MetadataBufferBuilder().UsbVideoHeader(1).Bytes();
  bytes[4] = 16;
  const auto payload = Pattern(8, 9);
  MetadataBufferBuilder rest;
  rest.Item(kId, payload.data(), payload.size());
  bytes.insert(bytes.end(), rest.Bytes().begin(), rest.Bytes().end());
  UvcMetaDataWrapper wrapper;
  ASSERT_EQ(S_OK, wrapper.Init(MakeSampleWithMetadata(bytes)));
  EXPECT_TRUE(wrapper.GetMetadataItem(kId, 8, 8));
}

TEST(UvcMetaDataWrapperInit, AHeaderCutShortIsOutOfReach) {
  std::vector<uint8_t> bytes = MetadataBufferBuilder().UsbVideoHeader(1).Bytes();
  bytes.resize(20);
  UvcMetaDataWrapper wrapper;
  ASSERT_EQ(S_OK, wrapper.Init(MakeSampleWithMetadata(bytes)));
  EXPECT_EQ(nullptr, wrapper.GetUsbVideoHeader());
  EXPECT_FALSE(wrapper.GetMetadataItem(kId, 0, 0xFFFFFFFF));
}

}  // namespace
}  // namespace mft_core
