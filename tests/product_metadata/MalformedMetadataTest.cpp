// Arbitrary bytes in the metadata buffer: the depth parser never crashes or hangs, and whatever it
// attaches is well formed.
#include <gtest/gtest.h>

#include <random>

#include "common/CaptureMetadataSamples.h"
#include "mft_core/streams/FrameDropMonitor.h"
#include "product/metadata/WQ400MetadataParsers.h"

namespace mft_core {
namespace {

using Microsoft::WRL::ComPtr;

struct Expected {
  GUID attribute;
  size_t size;
};
const Expected kBlobs[] = {
    {MFSampleExtension_PinholeCameraIntrinsics, 48}, {MFStreamExtension_CameraExtrinsics, 48},
    {VELDARA_SAMPLE_WQ400_CAPTURE_TIMING, 32},       {VELDARA_SAMPLE_WQ400_STATISTICS, 72},
    {VELDARA_SAMPLE_WQ400_CONFIGURATION, 32},        {VELDARA_SAMPLE_WQ400_DEPTH_CONTROL, 52},
};

void ParseAndCheck(WQ400DepthMetadataParser &parser, const std::vector<uint8_t> &raw) {
  ComPtr<IMFSample> sample = test_samples::MakeSampleWithMetadata(raw);
  ASSERT_EQ(S_OK, parser.Parse(sample.Get()));
  for (const Expected &e : kBlobs) {
    const auto blob = test_samples::GetBlob(sample.Get(), e.attribute);
    if (blob) ASSERT_EQ(e.size, blob->size());
  }
  const auto counter = test_samples::GetUINT32(sample.Get(), WQ400_MF_FRAME_COUNTER);
  if (counter) {
    const auto timing = test_samples::GetBlob(sample.Get(), VELDARA_SAMPLE_WQ400_CAPTURE_TIMING);
    ASSERT_TRUE(timing);
    ASSERT_EQ(ReadLittleU32(timing->data() + 8), *counter);
  }
  const auto hwTimestamp = test_samples::GetUINT32(sample.Get(), VELDARA_SAMPLE_WQ400_HW_TIMESTAMP);
  if (hwTimestamp) {
    ASSERT_GE(raw.size(), 40u);
    ASSERT_EQ(2u, ReadLittleU32(raw.data()));
    ASSERT_EQ(ReadLittleU32(raw.data() + 8), *hwTimestamp);
  }
}

TEST(MalformedMetadata, RandomBuffersThroughTheDepthParser) {
  std::mt19937 random(20240611);
  WQ400DepthMetadataParser parser("WQ400 Depth Device MFT");
  const uint32_t ids[] = {2, 4, 5, 0x80000000, 0x80000001, 0x80000002, 0x80000003, 0x80000005, 0x80000007};
  for (int round = 0; round < 2000; ++round) {
    std::vector<uint8_t> raw(random() % 320);
    for (auto &byte : raw) byte = static_cast<uint8_t>(random());
    if (raw.size() >= 4 && random() % 4 != 0) raw[0] = 2, raw[1] = raw[2] = raw[3] = 0;
    // Plausible heads with sizes near the records' so that the walk gets past the first item.
    for (size_t at = 40; at + 8 <= raw.size() && random() % 5 != 0;) {
      const uint32_t id = ids[random() % 9];
      const uint32_t size = (random() % 4 == 0) ? random() : 8 + (random() % 80);
      std::memcpy(raw.data() + at, &id, 4);
      std::memcpy(raw.data() + at + 4, &size, 4);
      at += size < 8 ? 8 : size;
    }
    ParseAndCheck(parser, raw);
    if (HasFatalFailure()) FAIL() << "round " << round;
  }
}

TEST(MalformedMetadata, MutatedCameraFramesThroughTheDepthParser) {
  std::mt19937 random(7);
  WQ400DepthMetadataParser parser("WQ400 Depth Device MFT");
  sim::CameraMetadataWriter camera(sim::CameraKind::Depth);
  for (int round = 0; round < 2000; ++round) {
    std::vector<uint8_t> raw = camera.BuildNextFrame();
    const int mutations = 1 + random() % 4;
    for (int m = 0; m < mutations && !raw.empty(); ++m) {
      switch (random() % 4) {
        case 0:  // flip a byte
          raw[random() % raw.size()] = static_cast<uint8_t>(random());
          break;
        case 1: {  // rewrite one size field
          const size_t at = random() % raw.size();
          const uint32_t size = random() % 3 == 0 ? 0 : random() % 3 == 0 ? random() : random() % 128;
          std::memcpy(raw.data() + at, &size, std::min<size_t>(4, raw.size() - at));
          break;
        }
        case 2:  // cut short
          raw.resize(random() % raw.size());
          break;
        default:  // trailing bytes
          raw.resize(raw.size() + random() % 12, 0xAB);
          break;
      }
    }
    ParseAndCheck(parser, raw);
    if (HasFatalFailure()) FAIL() << "round " << round;
  }
}

}  // namespace
}  // namespace mft_core
