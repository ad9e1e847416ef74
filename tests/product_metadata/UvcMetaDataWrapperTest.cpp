// Finding, locking and walking the raw metadata buffer of a sample.
#include <gtest/gtest.h>

#include <stdexcept>

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

MetadataItemView Lookup(const std::vector<uint8_t> &bytes, uint32_t id, uint32_t minSize, uint32_t maxSize,
                        UvcMetaDataWrapper &wrapper) {
  EXPECT_EQ(S_OK, wrapper.Init(MakeSampleWithMetadata(bytes)));
  return wrapper.GetMetadataItem(id, minSize, maxSize);
}

TEST(UvcMetaDataWrapperLookup, MalformedItemsEndTheSearch) {
  const auto payload = Pattern(16, 3);
  struct Case {
    const char *name;
    std::vector<uint8_t> bytes;
    uint32_t minSize;
    bool found;
  } cases[] = {
      // Size 0 would never advance: the wanted item after it stays out of reach.
      {"after a zero size",
       MetadataBufferBuilder().UsbVideoHeader(1).ItemWithSizeField(0x80000009, 0, nullptr, 0).Item(kId, payload.data(), 16).Bytes(),
       16, false},
      {"overrunning", MetadataBufferBuilder().UsbVideoHeader(1).ItemWithSizeField(kId, 8 + 17, payload.data(), 16).Bytes(),
       0, false},
      // Found items before a malformed one are still found.
      {"before an overrun",
       MetadataBufferBuilder().UsbVideoHeader(1).Item(kId, payload.data(), 16).ItemWithSizeField(0x80000009, 0x7FFFFFF0, nullptr, 0).Bytes(),
       16, true},
  };
  for (const Case &c : cases) {
    UvcMetaDataWrapper wrapper;
    EXPECT_EQ(c.found, static_cast<bool>(Lookup(c.bytes, kId, c.minSize, c.minSize ? 16 : 0xFFFFFFFF, wrapper))) << c.name;
  }
}

TEST(UvcMetaDataWrapperLookup, SizeBoundsSelectAmongItemsOfTheSameId) {
  const auto shortPayload = Pattern(12, 1);
  const auto rightPayload = Pattern(16, 2);
  const auto longPayload = Pattern(20, 3);
  const auto bytes = MetadataBufferBuilder()
                         .UsbVideoHeader(1)
                         .Item(kId, shortPayload.data(), 12)
                         .Item(kId, rightPayload.data(), 16)
                         .Item(kId, longPayload.data(), 20)
                         .Bytes();
  struct Case {
    uint32_t minSize, maxSize;
    uint32_t expectedSize;  // 0: not found
  } cases[] = {
      {16, 16, 16}, {12, 12, 12}, {20, 20, 20}, {13, 19, 16}, {0, 0xFFFFFFFF, 12}, {17, 19, 0}, {21, 100, 0},
  };
  for (const auto &c : cases) {
    UvcMetaDataWrapper wrapper;
    const MetadataItemView item = Lookup(bytes, kId, c.minSize, c.maxSize, wrapper);
    if (c.expectedSize == 0) {
      EXPECT_FALSE(item) << c.minSize << ".." << c.maxSize;
      continue;
    }
    ASSERT_TRUE(item) << c.minSize << ".." << c.maxSize;
    EXPECT_EQ(c.expectedSize, item.size);
    const auto &expected = c.expectedSize == 12 ? shortPayload : c.expectedSize == 16 ? rightPayload : longPayload;
    EXPECT_EQ(0, std::memcmp(expected.data(), item.data, item.size));
  }
  UvcMetaDataWrapper wrapper;
  EXPECT_FALSE(Lookup(bytes, kId + 1, 0, 0xFFFFFFFF, wrapper));
}

TEST(UvcMetaDataWrapperLookup, AnItemTooSmallForItsOwnHeadIsNeverAMatch) {
  // [kId, size 4] steps 4 bytes on, where its size field reads as id 4 with the next word, 8, as its
  // size; the real item follows at +12.
  const auto payload = Pattern(16, 2);
  const uint32_t words[] = {kId, 4, 8};
  const auto bytes = MetadataBufferBuilder().UsbVideoHeader(1).Raw(words, sizeof(words)).Item(kId, payload.data(), 16).Bytes();
  UvcMetaDataWrapper wrapper;
  const MetadataItemView item = Lookup(bytes, kId, 0, 0xFFFFFFFF, wrapper);
  ASSERT_TRUE(item);
  EXPECT_EQ(16u, item.size);
  EXPECT_EQ(0, std::memcmp(payload.data(), item.data, 16));
}

TEST(UvcMetaDataWrapperLookup, RefusesAnInvertedRangeAndAnswersNothingBeforeInit) {
  UvcMetaDataWrapper wrapper;
  EXPECT_THROW(wrapper.GetMetadataItem(kId, 17, 16), std::invalid_argument);
  EXPECT_FALSE(wrapper.GetMetadataItem(kId, 0, 0xFFFFFFFF));
}

}  // namespace
}  // namespace mft_core
