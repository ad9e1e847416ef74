// A recorded session replayed against the transform: the same transform matches; a driver answer
// altered in the recording, or a transform that behaves differently, is reported at the right record.
#include <gtest/gtest.h>

#include <cstring>

#include "RecordingSupport.h"
#include "device_events/EventsReader.h"
#include "mft_core/transform/PassThroughDeviceMft.h"
#include "product/transforms/WQ400DepthDeviceMft.h"
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
  static void SetUpTestSuite() {
    const std::wstring path = TemporaryRecordingPath(L"replay");
    {
      RecordingSwitch on(path);
      RunShortSession(CreatePassThrough());
    }
    ASSERT_TRUE(WaitFor([&] {
      const Recording recording = ReadRecording(path);
      return !recording.records.empty() && recording.records.back().Kind() == RecordKind::End;
    }));
    std::string error;
    ASSERT_TRUE(device_events::ReadFileBytes(std::string(path.begin(), path.end()), *bytes, error)) << error;
    DeleteFileW(path.c_str());
  }
  static void TearDownTestSuite() { bytes->clear(); }

  // The records of the recording, with their offsets.
  static std::vector<Record> Records() {
    std::vector<Record> records;
    device_events::EventsReader reader(bytes->data(), bytes->size());
    device_events::FileHeader header;
    device_events::ReadError error;
    EXPECT_TRUE(reader.ReadHeader(header, error));
    Record record;
    while (reader.Next(record, error) == device_events::EventsReader::Status::Record) records.push_back(record);
    return records;
  }

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

TEST_F(ReplayTest, DamagedOrIncompleteRecordingsAreRefusedWithTheirOffset) {
  std::vector<uint8_t> cut(bytes->begin(), bytes->begin() + static_cast<std::ptrdiff_t>(bytes->size() / 2));
  sim::ReplayReport report = sim::ReplayRecording(cut, SameTransform);
  EXPECT_FALSE(report.matched);
  EXPECT_NE(std::string::npos, report.divergence.find("damaged: offset ")) << report.divergence;

  // A recording that lost records cannot be compared past the loss.
  std::vector<uint8_t> lossy = *bytes;
  const std::vector<Record> records = Records();
  const Record &victim = records[records.size() / 2];
  const uint16_t dropped = static_cast<uint16_t>(RecordKind::Dropped);
  std::memcpy(&lossy[victim.offset + 4], &dropped, 2);
  report = sim::ReplayRecording(lossy, SameTransform);
  EXPECT_FALSE(report.matched);
  EXPECT_NE(std::string::npos, report.divergence.find("lost records")) << report.divergence;
}

ComPtr<IMFDeviceTransform> CreateDepthTransform() {
  ComPtr<IMFDeviceTransform> device;
  user_space_frameworks::MakeComObject<mft_core::WQ400DepthDeviceMft>().As(&device);
  return device;
}

TEST(ProductReplay, ARecordedSessionOfTheDepthTransformReplaysWithoutDivergence) {
  const std::wstring path = TemporaryRecordingPath(L"depth");
  {
    RecordingSwitch on(path);
    RunShortSession(CreateDepthTransform());
  }
  ASSERT_TRUE(WaitFor([&] {
    const Recording recording = ReadRecording(path);
    return !recording.records.empty() && recording.records.back().Kind() == RecordKind::End;
  }));
  std::vector<uint8_t> recorded;
  std::string error;
  ASSERT_TRUE(device_events::ReadFileBytes(std::string(path.begin(), path.end()), recorded, error)) << error;
  DeleteFileW(path.c_str());
  const sim::ReplayReport report =
      sim::ReplayRecording(recorded, [](const device_events::FileHeader &header, IMFDeviceTransform **transform) {
        EXPECT_EQ("WQ400 Depth Device MFT", header.transformName);
        return CreateDepthTransform().CopyTo(transform);
      });
  EXPECT_TRUE(report.matched) << report.divergence;
  EXPECT_GT(report.driverRequests, 0u);
  EXPECT_EQ(1u, report.driverEvents);
}

}  // namespace
