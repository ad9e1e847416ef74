// A recorded session replayed against the transform: the same transform matches; a driver answer
// altered in the recording, or a transform that behaves differently, is reported at the right record.
#include <gtest/gtest.h>

#include <cstring>

#include "RecordingSupport.h"
#include "device_events/EventsReader.h"
#include "mft_core/transform/PassThroughDeviceMft.h"
#include "sim/CameraConfig.h"
#include "sim/ReplaySession.h"
#include "user_space_frameworks/ComObject.h"

using Microsoft::WRL::ComPtr;
using device_events::Record;
using device_events::RecordKind;
using namespace recorder_tests;

namespace {

// A transform that hides the camera's depth format: its output types differ from the recorded ones.
class HidingTransform : public mft_core::PassThroughDeviceMft {
 public:
  HidingTransform() : PassThroughDeviceMft("Recorded MFT", mft_core::DeviceExtensionUnits{sim::kDepthXuSet, 1, 7}) {}

 protected:
  std::vector<GUID> GetExcludedInputMediaTypes() override { return {sim::kSubtypeZ16}; }
};

HRESULT SameTransform(const device_events::FileHeader &header, IMFDeviceTransform **transform) {
  EXPECT_EQ("Recorded MFT", header.transformName);
  return CreatePassThrough().CopyTo(transform);
}

class ReplayTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() { *bytes = RecordSession(L"replay", [] { RunShortSession(CreatePassThrough()); }); }
  static void TearDownTestSuite() { bytes->clear(); }

  // The records of the recording, with their offsets.
  static std::vector<Record> Records() { return ParseRecording(*bytes).records; }

  static std::unique_ptr<std::vector<uint8_t>> bytes;
};
std::unique_ptr<std::vector<uint8_t>> ReplayTest::bytes = std::make_unique<std::vector<uint8_t>>();

TEST_F(ReplayTest, TheSameTransformMatchesEveryRecordedCallRequestAndEvent) {
  const sim::ReplayReport report = sim::ReplayRecording(*bytes, SameTransform);
  EXPECT_TRUE(report.matched) << report.divergence;
  EXPECT_GT(report.calls, 20u);
  EXPECT_EQ(1u, report.applicationRequests);
  EXPECT_EQ(1u, report.driverEvents);
  EXPECT_GT(report.mediaEvents, 5u);
  EXPECT_NE(std::string::npos, report.Summary().find("MATCH"));
}

TEST_F(ReplayTest, ADriverAnswerAlteredInTheRecordingIsReportedWhereTheTransformUsesIt) {
  // The driver now refuses the transform's subscription to its firmware event: starting the stream fails.
  std::vector<uint8_t> altered = *bytes;
  bool patched = false;
  for (const Record &record : Records()) {
    if (record.Kind() != RecordKind::DriverKsRequest || record.values[0].number != 0 || record.values[1].IsNull()) continue;
    const uint32_t failure = 0x80070005;  // access denied
    std::memcpy(&altered[record.offset + 4 + 2 + 8 + 4], &failure, 4);
    patched = true;
    break;
  }
  ASSERT_TRUE(patched);
  const sim::ReplayReport report = sim::ReplayRecording(altered, SameTransform);
  EXPECT_FALSE(report.matched);
  EXPECT_NE(std::string::npos, report.divergence.find("return       SetOutputStreamState")) << report.divergence;
  EXPECT_NE(std::string::npos, report.divergence.find("recorded S_OK, now 0x80070005")) << report.divergence;
  EXPECT_FALSE(report.context.empty());
}

TEST_F(ReplayTest, ATransformThatBehavesDifferentlyIsReportedAtTheFirstDifferentAnswer) {
  const sim::ReplayReport report =
      sim::ReplayRecording(*bytes, [](const device_events::FileHeader &, IMFDeviceTransform **transform) {
        return user_space_frameworks::MakeComObject<HidingTransform>().CopyTo(transform);
      });
  EXPECT_FALSE(report.matched);
  // The first type of output stream 0 is no longer the depth format.
  EXPECT_NE(std::string::npos, report.divergence.find("return       GetOutputAvailableType")) << report.divergence;
  EXPECT_NE(std::string::npos, report.divergence.find("value 1 handed out: {F7E34C9A-42E8-4714-B74B-CB29D72C35E5} differs"))
      << report.divergence;
}

TEST_F(ReplayTest, ARecordingCutInsideARecordReplaysToTheCutAndADamagedOneIsRefused) {
  // The writer died halfway through: replayed up to the calls still in flight at the cut, and matching.
  const std::vector<Record> records = Records();
  const Record &middle = records[records.size() / 2];
  std::vector<uint8_t> cut(bytes->begin(), bytes->begin() + static_cast<std::ptrdiff_t>(middle.offset + 7));
  sim::ReplayReport report = sim::ReplayRecording(cut, SameTransform);
  EXPECT_TRUE(report.matched) << report.divergence;
  EXPECT_GT(report.calls, 5u);
  EXPECT_LE(report.records, records.size() / 2);
  EXPECT_NE(std::string::npos, report.Summary().find("ends inside the record at offset " + std::to_string(middle.offset)))
      << report.Summary();

  // A record damaged before the end is still an error, named with its offset.
  std::vector<uint8_t> damaged = *bytes;
  damaged[middle.offset + 4 + device_events::kRecordPrefixSize] = 11;
  report = sim::ReplayRecording(damaged, SameTransform);
  EXPECT_FALSE(report.matched);
  EXPECT_NE(std::string::npos, report.divergence.find("damaged: offset ")) << report.divergence;

  // A recording that lost records cannot be compared past the loss.
  std::vector<uint8_t> lossy = *bytes;
  const Record &victim = records[records.size() / 2];
  const uint16_t dropped = static_cast<uint16_t>(RecordKind::Dropped);
  std::memcpy(&lossy[victim.offset + 4], &dropped, 2);
  report = sim::ReplayRecording(lossy, SameTransform);
  EXPECT_FALSE(report.matched);
  EXPECT_NE(std::string::npos, report.divergence.find("lost records")) << report.divergence;
}

}  // namespace
