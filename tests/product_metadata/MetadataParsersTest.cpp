// Which records the parsers attach, sticky calibration records, size checks and the timing attributes.
#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <string>

#include "common/CaptureMetadataSamples.h"
#include "mft_core/streams/FrameDropMonitor.h"
#include "product/metadata/WQ400MetadataParsers.h"
#include "product/metadata/WQ400TimingToAttribute.h"
#include "user_space_frameworks/ComObject.h"

namespace mft_core {
namespace {

using Microsoft::WRL::ComPtr;
using sim::CameraKind;
using sim::CameraMetadataWriter;
using sim::MetadataBufferBuilder;
using test_samples::GetBlob;
using test_samples::GetUINT32;
using test_samples::MakeSample;
using test_samples::MakeSampleWithMetadata;
using test_samples::Pattern;

struct Record {
  const char *what;
  uint32_t id;
  uint32_t size;
  GUID attribute;
};

const Record kRecords[] = {
    {"intrinsics", WQ400MetadataId_CameraIntrinsics, 48, MFSampleExtension_PinholeCameraIntrinsics},
    {"extrinsics", WQ400MetadataId_CameraExtrinsics, 48, MFStreamExtension_CameraExtrinsics},
    {"fisheye extrinsics", WQ400MetadataId_FishEyeExtrinsics, 68, VELDARA_SAMPLE_WQ400_FISHEYE_EXTRINSICS},
    {"depth control", WQ400MetadataId_DepthControl, 52, VELDARA_SAMPLE_WQ400_DEPTH_CONTROL},
    {"capture timing", WQ400MetadataId_CaptureTiming, 32, VELDARA_SAMPLE_WQ400_CAPTURE_TIMING},
    {"configuration", WQ400MetadataId_Configuration, 32, VELDARA_SAMPLE_WQ400_CONFIGURATION},
    {"statistics", WQ400MetadataId_Stat, 72, VELDARA_SAMPLE_WQ400_STATISTICS},
    {"fisheye control", WQ400MetadataId_FishEyeControl, 16, VELDARA_SAMPLE_WQ400_FISHEYE_CONTROL},
    {"color control", WQ400MetadataId_ColorControl, 64, VELDARA_SAMPLE_WQ400_COLOR_CONTROL},
};

// Every known item, each payload a distinct pattern, with the given hardware timestamp and counter.
std::vector<uint8_t> EveryItem(uint32_t hwTimestamp, uint32_t frameCounter, uint8_t seed = 0) {
  MetadataBufferBuilder builder;
  builder.UsbVideoHeader(hwTimestamp);
  for (const Record &r : kRecords) {
    auto payload = Pattern(r.size, static_cast<uint8_t>(seed + r.id));
    if (r.id == WQ400MetadataId_CaptureTiming) std::memcpy(payload.data() + 8, &frameCounter, 4);
    builder.Item(r.id, payload.data(), payload.size());
  }
  return builder.Bytes();
}

struct ParserCase {
  const char *name;
  std::function<std::shared_ptr<WQ400MetadataParser>()> make;
  std::vector<uint32_t> attachedIds;  // records the parser attaches from a frame carrying every item
};

std::vector<ParserCase> Parsers() {
  return {
      {"depth",
       [] { return std::make_shared<WQ400DepthMetadataParser>("WQ400 Depth Device MFT"); },
       {WQ400MetadataId_CameraIntrinsics, WQ400MetadataId_CameraExtrinsics, WQ400MetadataId_CaptureTiming,
        WQ400MetadataId_Stat, WQ400MetadataId_Configuration, WQ400MetadataId_DepthControl}},
      {"fisheye",
       [] { return std::make_shared<WQ400FisheyeMetadataParser>("WQ400 FishEye Device MFT"); },
       {WQ400MetadataId_CameraIntrinsics, WQ400MetadataId_FishEyeExtrinsics, WQ400MetadataId_CaptureTiming,
        WQ400MetadataId_FishEyeControl, WQ400MetadataId_Configuration}},
      {"color",
       [] { return std::make_shared<WQ400ColorMetadataParser>("WQ400 Color Device MFT"); },
       {WQ400MetadataId_CameraIntrinsics, WQ400MetadataId_CameraExtrinsics, WQ400MetadataId_CaptureTiming,
        WQ400MetadataId_Configuration, WQ400MetadataId_ColorControl}},
  };
}

// Capture timing is never sticky: a repeated counter would read as a reordered frame.
TEST(WQ400MetadataParsers, CaptureTimingIsNeverKeptFromAnEarlierFrame) {
  for (const ParserCase &c : Parsers()) {
    auto timing =
        std::dynamic_pointer_cast<WQ400MetaDataCaptureTimingToAttribute>(c.make()->GetConverters().at(2));
    ASSERT_NE(nullptr, timing) << c.name;
    EXPECT_FALSE(timing->KeepsLast()) << c.name;
  }
}

// The raw metadata buffer of a frame, counting how often it is locked and unlocked.
class CountingBuffer : public IMFMediaBuffer {
  WQ_IMPLEMENT_IUNKNOWN(CountingBuffer, IMFMediaBuffer)

 public:
  explicit CountingBuffer(ComPtr<IMFMediaBuffer> inner) : inner(std::move(inner)) {}
  STDMETHODIMP Lock(BYTE **data, DWORD *maxLength, DWORD *currentLength) override {
    ++locks;
    return inner->Lock(data, maxLength, currentLength);
  }
  STDMETHODIMP Unlock() override {
    ++unlocks;
    return inner->Unlock();
  }
  STDMETHODIMP GetCurrentLength(DWORD *length) override { return inner->GetCurrentLength(length); }
  STDMETHODIMP SetCurrentLength(DWORD length) override { return inner->SetCurrentLength(length); }
  STDMETHODIMP GetMaxLength(DWORD *length) override { return inner->GetMaxLength(length); }

  int locks = 0;
  int unlocks = 0;

 private:
  ComPtr<IMFMediaBuffer> inner;
};

// Each parser opens a frame's raw metadata once for all its converters, and closes it.
TEST(WQ400MetadataParsers, AttachOnlyTheirOwnRecordsByteForByteOpeningTheMetadataOnce) {
  const auto raw = EveryItem(0x01020304, 77);
  for (const ParserCase &c : Parsers()) {
    ComPtr<IMFSample> sample = MakeSampleWithMetadata(raw);
    ComPtr<IMFAttributes> metadata;
    ComPtr<IMFMediaBuffer> rawBuffer;
    ASSERT_EQ(S_OK, sample->GetUnknown(MFSampleExtension_CaptureMetadata, IID_PPV_ARGS(&metadata)));
    ASSERT_EQ(S_OK, metadata->GetUnknown(MF_CAPTURE_METADATA_FRAME_RAWSTREAM, IID_PPV_ARGS(&rawBuffer)));
    auto counting = user_space_frameworks::MakeComObject<CountingBuffer>(rawBuffer);
    ASSERT_EQ(S_OK, metadata->SetUnknown(MF_CAPTURE_METADATA_FRAME_RAWSTREAM, counting.Get()));
    ASSERT_EQ(S_OK, c.make()->Parse(sample.Get()));
    EXPECT_EQ(1, counting->locks) << c.name;
    EXPECT_EQ(1, counting->unlocks) << c.name;
    for (const Record &r : kRecords) {
      const bool wanted = std::find(c.attachedIds.begin(), c.attachedIds.end(), r.id) != c.attachedIds.end();
      const auto blob = GetBlob(sample.Get(), r.attribute);
      ASSERT_EQ(wanted, blob.has_value()) << c.name << ": " << r.what;
      if (!wanted) continue;
      auto expected = Pattern(r.size, static_cast<uint8_t>(r.id));
      if (r.id == WQ400MetadataId_CaptureTiming) {
        const uint32_t counter = 77;
        std::memcpy(expected.data() + 8, &counter, 4);
      }
      EXPECT_EQ(expected, *blob) << c.name << ": " << r.what;
    }
    EXPECT_EQ(0x01020304u, GetUINT32(sample.Get(), VELDARA_SAMPLE_WQ400_HW_TIMESTAMP)) << c.name;
    EXPECT_EQ(77u, GetUINT32(sample.Get(), WQ400_MF_FRAME_COUNTER)) << c.name;
    // Nothing else: the records, the timestamp and the counter.
    EXPECT_EQ(c.attachedIds.size() + 2 + 1, test_samples::AttributeCount(sample.Get())) << c.name;
  }
}

TEST(WQ400MetadataParsers, CalibrationRecordsStickAcrossFramesThatLackThem) {
  WQ400DepthMetadataParser parser("WQ400 Depth Device MFT");
  CameraMetadataWriter writer(CameraKind::Depth);
  const auto withoutCalibration = [&writer] {
    writer.SetItemEnabled(WQ400MetadataId_CameraIntrinsics, false);
    writer.SetItemEnabled(WQ400MetadataId_CameraExtrinsics, false);
  };
  withoutCalibration();

  // None before the first frame that carries them, with or without metadata.
  ComPtr<IMFSample> before = MakeSample(writer);
  ComPtr<IMFSample> bare = MakeSample();
  parser.Parse(before.Get());
  parser.Parse(bare.Get());
  for (IMFSample *sample : {before.Get(), bare.Get()}) {
    EXPECT_FALSE(GetBlob(sample, MFSampleExtension_PinholeCameraIntrinsics));
    EXPECT_FALSE(GetBlob(sample, MFStreamExtension_CameraExtrinsics));
  }
  EXPECT_EQ(0u, test_samples::AttributeCount(bare.Get()));

  MFPinholeCameraIntrinsics first{};
  first.IntrinsicModelCount = 1;
  first.IntrinsicModels[0].Width = 848;
  writer.SetIntrinsics(first);
  writer.SetItemEnabled(WQ400MetadataId_CameraIntrinsics, true);
  writer.SetItemEnabled(WQ400MetadataId_CameraExtrinsics, true);
  ComPtr<IMFSample> carrying = MakeSample(writer);
  parser.Parse(carrying.Get());
  const auto extrinsics = GetBlob(carrying.Get(), MFStreamExtension_CameraExtrinsics);
  ASSERT_TRUE(extrinsics);

  // A frame without them, one with a wrong-size intrinsics item, and one without any metadata all get
  // the last ones seen; and nothing but those (no stale timing or control records).
  withoutCalibration();
  ComPtr<IMFSample> lacking = MakeSample(writer);
  writer.SetItemEnabled(WQ400MetadataId_CameraIntrinsics, true);
  writer.SetItemSizeDelta(WQ400MetadataId_CameraIntrinsics, -4);
  ComPtr<IMFSample> wrongSize = MakeSample(writer);
  ComPtr<IMFSample> noMetadata = MakeSample();
  for (IMFSample *sample : {lacking.Get(), wrongSize.Get(), noMetadata.Get()}) {
    parser.Parse(sample);
    EXPECT_EQ(test_samples::BytesOf(first), GetBlob(sample, MFSampleExtension_PinholeCameraIntrinsics));
    EXPECT_EQ(extrinsics, GetBlob(sample, MFStreamExtension_CameraExtrinsics));
  }
  EXPECT_EQ(2u, test_samples::AttributeCount(noMetadata.Get()));

  // New calibration replaces the old.
  MFPinholeCameraIntrinsics second = first;
  second.IntrinsicModels[0].Width = 1280;
  writer.SetIntrinsics(second);
  writer.SetItemSizeDelta(WQ400MetadataId_CameraIntrinsics, 0);
  parser.Parse(MakeSample(writer).Get());
  ComPtr<IMFSample> after = MakeSample();
  parser.Parse(after.Get());
  EXPECT_EQ(test_samples::BytesOf(second), GetBlob(after.Get(), MFSampleExtension_PinholeCameraIntrinsics));
}

TEST(WQ400MetadataParsers, ParsersKeepTheirOwnCalibration) {
  WQ400DepthMetadataParser depth("d");
  WQ400DepthMetadataParser infrared("ir");
  depth.Parse(MakeSampleWithMetadata(EveryItem(1, 1)).Get());
  ComPtr<IMFSample> sample = MakeSample();
  infrared.Parse(sample.Get());
  EXPECT_FALSE(GetBlob(sample.Get(), MFSampleExtension_PinholeCameraIntrinsics));
}

TEST(WQ400MetadataParsers, AWrongSizeCopyBeforeTheRightOneIsPassedOver) {
  CameraMetadataWriter writer(CameraKind::Depth, 5);
  writer.SetItemDuplicated(WQ400MetadataId_CaptureTiming, true);
  writer.SetItemDuplicated(WQ400MetadataId_DepthControl, true);
  writer.SetDepthExposure(1234);
  ComPtr<IMFSample> sample = MakeSample(writer);
  WQ400DepthMetadataParser("d").Parse(sample.Get());
  EXPECT_EQ(5u, GetUINT32(sample.Get(), WQ400_MF_FRAME_COUNTER));
  const auto control = GetBlob(sample.Get(), VELDARA_SAMPLE_WQ400_DEPTH_CONTROL);
  ASSERT_TRUE(control);
  ASSERT_EQ(52u, control->size());
  EXPECT_EQ(1234u, ReadLittleU32(control->data() + 12));
}

TEST(WQ400CaptureTiming, TheFrameCounterIsReadBackFromTheSamplesBlob) {
  WQ400MetaDataCaptureTimingToAttribute timing("t", false);
  // From the item: the little-endian word at bytes 8..11.
  ComPtr<IMFSample> fromItem = MakeSampleWithMetadata(EveryItem(1, 0xDEADBEEF));
  timing.Process(fromItem);
  EXPECT_EQ(0xDEADBEEFu, GetUINT32(fromItem.Get(), WQ400_MF_FRAME_COUNTER));

  // A sample that already carries a capture-timing blob and no item: the counter comes from the blob.
  auto blob = Pattern(32, 9);
  const uint32_t counter = 4242;
  std::memcpy(blob.data() + 8, &counter, 4);
  ComPtr<IMFSample> carried = MakeSample();
  ASSERT_EQ(S_OK, carried->SetBlob(VELDARA_SAMPLE_WQ400_CAPTURE_TIMING, blob.data(), 32));
  timing.Process(carried);
  EXPECT_EQ(counter, GetUINT32(carried.Get(), WQ400_MF_FRAME_COUNTER));

  // A carried blob of another length gives no counter.
  ComPtr<IMFSample> odd = MakeSample();
  ASSERT_EQ(S_OK, odd->SetBlob(VELDARA_SAMPLE_WQ400_CAPTURE_TIMING, blob.data(), 31));
  timing.Process(odd);
  EXPECT_FALSE(GetUINT32(odd.Get(), WQ400_MF_FRAME_COUNTER));

  // The same through a parser, which opens the frame's metadata once for all converters: the frame's own
  // record wins over a carried blob, and without one the carried blob still gives the counter.
  WQ400DepthMetadataParser parser("d");
  ComPtr<IMFSample> both = MakeSampleWithMetadata(EveryItem(1, 0x01020304));
  ASSERT_EQ(S_OK, both->SetBlob(VELDARA_SAMPLE_WQ400_CAPTURE_TIMING, blob.data(), 32));
  parser.Parse(both.Get());
  EXPECT_EQ(0x01020304u, GetUINT32(both.Get(), WQ400_MF_FRAME_COUNTER));
  ComPtr<IMFSample> carriedOnly = MakeSampleWithMetadata(MetadataBufferBuilder().UsbVideoHeader(1).Bytes());
  ASSERT_EQ(S_OK, carriedOnly->SetBlob(VELDARA_SAMPLE_WQ400_CAPTURE_TIMING, blob.data(), 32));
  parser.Parse(carriedOnly.Get());
  EXPECT_EQ(counter, GetUINT32(carriedOnly.Get(), WQ400_MF_FRAME_COUNTER));
}

TEST(WQ400HwTimestamp, TakesTheHeadersFirstWordOnlyWhenTheHeaderIsThere) {
  WQ400HwTimestampToAttribute hw("WQ400 Depth");
  ComPtr<IMFSample> withHeader = MakeSampleWithMetadata(MetadataBufferBuilder().UsbVideoHeader(0xCAFEF00D).Bytes());
  hw.Process(withHeader);
  EXPECT_EQ(0xCAFEF00Du, GetUINT32(withHeader.Get(), VELDARA_SAMPLE_WQ400_HW_TIMESTAMP));

  auto cut = MetadataBufferBuilder().UsbVideoHeader(0xCAFEF00D).Bytes();
  cut.resize(12);
  for (auto sample : {MakeSample(), MakeSampleWithMetadata(cut),
                      MakeSampleWithMetadata(MetadataBufferBuilder().UsbVideoHeader(5, 1).Bytes())}) {
    hw.Process(sample);
    EXPECT_FALSE(GetUINT32(sample.Get(), VELDARA_SAMPLE_WQ400_HW_TIMESTAMP));
  }
}

TEST(WQ400MetadataParsers, WriterFaultsLeaveTheFrameWithoutItsRecords) {
  using sim::MetadataFault;
  struct Case {
    MetadataFault fault;
    bool hwTimestamp;
    bool anyRecord;
  } cases[] = {
      {MetadataFault::NoMetadata, false, false},      {MetadataFault::EmptyBuffer, false, false},
      {MetadataFault::WrongFirstItemId, false, false}, {MetadataFault::ZeroSizeItem, true, false},
      {MetadataFault::OverrunningItem, true, true},    {MetadataFault::TruncatedBuffer, true, true},
  };
  for (const Case &c : cases) {
    CameraMetadataWriter writer(CameraKind::Depth);
    writer.SetItemEnabled(WQ400MetadataId_CameraIntrinsics, false);
    writer.SetItemEnabled(WQ400MetadataId_CameraExtrinsics, false);
    writer.InjectFault(c.fault);
    ComPtr<IMFSample> sample = MakeSample(writer);
    WQ400DepthMetadataParser("d").Parse(sample.Get());
    const int index = static_cast<int>(c.fault);
    EXPECT_EQ(c.hwTimestamp, GetUINT32(sample.Get(), VELDARA_SAMPLE_WQ400_HW_TIMESTAMP).has_value()) << index;
    EXPECT_EQ(c.anyRecord, GetBlob(sample.Get(), VELDARA_SAMPLE_WQ400_CAPTURE_TIMING).has_value()) << index;
    // The fault spoils one frame only.
    ComPtr<IMFSample> next = MakeSample(writer);
    WQ400DepthMetadataParser("d").Parse(next.Get());
    EXPECT_EQ(2u, GetUINT32(next.Get(), WQ400_MF_FRAME_COUNTER)) << index;
  }
}

}  // namespace
}  // namespace mft_core
