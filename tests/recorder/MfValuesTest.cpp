// Attribute stores as the recorder lays them out: what the platform's own serialiser would say about
// the same store, read back by the portable reader and by the platform.
#include <gtest/gtest.h>

#include <cstring>

#include "device_events/AttributeStore.h"
#include "mft_core/recorder/MfValues.h"
#include "platform/WindowsSdk.h"

using Microsoft::WRL::ComPtr;

namespace {

std::string PlatformBlob(IMFAttributes *attributes) {
  UINT32 size = 0;
  EXPECT_EQ(S_OK, MFGetAttributesAsBlobSize(attributes, &size));
  std::string blob(size, '\0');
  EXPECT_EQ(S_OK, MFGetAttributesAsBlob(attributes, reinterpret_cast<UINT8 *>(&blob[0]), size));
  return blob;
}

std::string RecorderBlob(IMFAttributes *attributes) {
  std::vector<uint8_t> out = {0xEE};  // appended after what the record already holds
  EXPECT_TRUE(mft_core::AppendAttributeStore(attributes, out));
  EXPECT_EQ(0xEE, out[0]);
  return std::string(out.begin() + 1, out.end());
}

}  // namespace

TEST(AttributeStoreLayout, EveryValueTypeReadsBackAsFromThePlatformsSerialiserAndObjectsAreLeftOut) {
  ComPtr<IMFAttributes> store, object;
  ASSERT_EQ(S_OK, MFCreateAttributes(&store, 8));
  ASSERT_EQ(S_OK, MFCreateAttributes(&object, 1));
  const UINT8 bytes[] = {1, 2, 3, 4, 5};
  ASSERT_EQ(S_OK, store->SetUINT32(MF_MT_INTERLACE_MODE, 7));
  ASSERT_EQ(S_OK, store->SetUnknown(MF_MT_USER_DATA, object.Get()));
  ASSERT_EQ(S_OK, store->SetUINT64(MF_MT_FRAME_SIZE, 0x00000350000001E0ull));
  ASSERT_EQ(S_OK, store->SetDouble(MF_MT_AUDIO_BITS_PER_SAMPLE, 2.5));
  ASSERT_EQ(S_OK, store->SetGUID(MF_MT_SUBTYPE, MFVideoFormat_NV12));
  ASSERT_EQ(S_OK, store->SetString(MF_MT_MPEG2_PROFILE, L"d\u00e9pth"));
  ASSERT_EQ(S_OK, store->SetBlob(MF_MT_PIXEL_ASPECT_RATIO, bytes, sizeof(bytes)));
  ASSERT_EQ(S_OK, store->SetBlob(MF_MT_DEFAULT_STRIDE, bytes, 0));
  const std::vector<UINT8> large(2000, 0x5A);  // more than the room a blob is first read into
  ASSERT_EQ(S_OK, store->SetBlob(MF_MT_CUSTOM_VIDEO_PRIMARIES, large.data(), static_cast<UINT32>(large.size())));

  const std::string recorded = RecorderBlob(store.Get());
  EXPECT_EQ("", mft_core::CompareAttributeBlobs(PlatformBlob(store.Get()), recorded));
  std::vector<device_events::Attribute> attributes;
  device_events::ReadError error;
  ASSERT_TRUE(device_events::DecodeAttributeStore(recorded, 0, attributes, error)) << error.message;
  ASSERT_EQ(8u, attributes.size());
  EXPECT_EQ(nullptr, device_events::FindAttribute(attributes, mft_core::ToRecorded(MF_MT_USER_DATA)));
  const device_events::Attribute *blob =
      device_events::FindAttribute(attributes, mft_core::ToRecorded(MF_MT_CUSTOM_VIDEO_PRIMARIES));
  ASSERT_NE(nullptr, blob);
  EXPECT_EQ(std::string(large.begin(), large.end()), blob->bytes);
  const device_events::Attribute *text = device_events::FindAttribute(attributes, mft_core::ToRecorded(MF_MT_MPEG2_PROFILE));
  ASSERT_NE(nullptr, text);
  EXPECT_EQ("d\xC3\xA9pth", text->text);

  // The platform restores the store from it, object aside (an empty blob it refuses to restore from
  // its own layout as well).
  ASSERT_EQ(S_OK, store->DeleteItem(MF_MT_DEFAULT_STRIDE));
  const std::string restorable = RecorderBlob(store.Get());
  ComPtr<IMFAttributes> restored;
  ASSERT_EQ(S_OK, MFCreateAttributes(&restored, 8));
  ASSERT_EQ(S_OK, MFInitAttributesFromBlob(restored.Get(), reinterpret_cast<const UINT8 *>(restorable.data()),
                                           static_cast<UINT>(restorable.size())));
  UINT32 count = 0;
  ASSERT_EQ(S_OK, restored->GetCount(&count));
  EXPECT_EQ(7u, count);
  BOOL same = FALSE;
  ASSERT_EQ(S_OK, store->Compare(restored.Get(), MF_ATTRIBUTES_MATCH_THEIR_ITEMS, &same));
  EXPECT_TRUE(same);
}

TEST(AttributeStoreLayout, EmptyStoresAndStoresOfObjectsOnlyAreAHeadWithNoItems) {
  ComPtr<IMFAttributes> store, object;
  ASSERT_EQ(S_OK, MFCreateAttributes(&store, 1));
  ASSERT_EQ(S_OK, MFCreateAttributes(&object, 1));
  const std::string empty = RecorderBlob(store.Get());
  const uint8_t head[] = {0x41, 0x46, 0x4D, 0x49, 0, 0, 0, 0};
  EXPECT_EQ(std::string(reinterpret_cast<const char *>(head), sizeof(head)), empty);
  ASSERT_EQ(S_OK, store->SetUnknown(MF_MT_USER_DATA, object.Get()));
  EXPECT_EQ(empty, RecorderBlob(store.Get()));
  EXPECT_EQ("", mft_core::CompareAttributeBlobs(PlatformBlob(store.Get()), empty));
}
