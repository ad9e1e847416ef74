// A recorded session replayed against the transform: the same transform matches; a driver answer
// altered in the recording, or a transform that behaves differently, is reported at the right record.
#include <gtest/gtest.h>

#include <cstring>

#include "RecordingSupport.h"
#include "device_events/EventsReader.h"
#include "mft_core/transform/PassThroughDeviceMft.h"
#include "sim/CameraConfig.h"
#include "sim/ReplayMatching.h"
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

// A recorded pull can hand out a frame before the ProcessInput that brought it returns; the replay
// then makes that input first. A frame the transform took and dropped (a stream not connected yet)
// must not make the replay count one frame short and pull before the frame it hands out is in.
TEST(ReplayMatching, APullNeedsTheFrameWithItsTimeWhenAnEarlierFrameWasDropped) {
  auto value = [](device_events::ValueTag tag, uint64_t number) {
    device_events::Value v;
    v.tag = tag;
    v.number = number;
    return v;
  };
  auto name = [](const char *text) {
    device_events::Value v;
    v.tag = device_events::ValueTag::String;
    v.bytes = text;
    return v;
  };
  auto sample = [](int64_t time, bool timed) {
    auto recorded = std::make_shared<device_events::SampleValue>();
    recorded->time = time;
    recorded->present = timed ? device_events::kSampleHasTime : 0;
    device_events::Value v;
    v.tag = device_events::ValueTag::Sample;
    v.sample = recorded;
    return v;
  };
  auto record = [](RecordKind kind, uint32_t thread, std::vector<device_events::Value> values) {
    Record r;
    r.kind = static_cast<uint16_t>(kind);
    r.threadId = thread;
    r.values = std::move(values);
    return r;
  };
  const auto U32 = device_events::ValueTag::U32;
  auto input = [&](int64_t time, bool timed) {
    return record(RecordKind::CallEntry, 1, {name("ProcessInput"), value(U32, 2), sample(time, timed), value(U32, 0)});
  };
  auto pull = [&] { return record(RecordKind::CallEntry, 2, {name("ProcessOutput"), value(U32, 0), value(U32, 1), value(U32, 2)}); };
  auto handedOut = [&](int64_t time, bool timed) {
    return record(RecordKind::CallExit, 2, {name("ProcessOutput"), value(U32, 2), value(U32, 0), sample(time, timed), value(U32, 0)});
  };
  const Record inputReturn = record(RecordKind::CallExit, 1, {name("ProcessInput")});
  // Frame 100 is taken and dropped; frame 200 is handed out before its input returns; then frame 300,
  // and a frame without a time (counted in order).
  const std::vector<Record> records = {input(100, true), inputReturn,      input(200, true), pull(),
                                       handedOut(200, true), inputReturn,  input(300, true), inputReturn,
                                       pull(),           handedOut(300, true), input(0, false), inputReturn,
                                       pull(),           handedOut(0, false)};
  std::map<const Record *, const Record *> exitOf;
  std::map<uint32_t, std::vector<const Record *>> open;
  for (const Record &r : records) {
    if (r.Kind() == RecordKind::CallEntry) open[r.threadId].push_back(&r);
    if (r.Kind() == RecordKind::CallExit) {
      exitOf[open[r.threadId].back()] = &r;
      open[r.threadId].pop_back();
    }
  }
  const sim::FrameOrder order = sim::OrderFrames(records, exitOf);
  ASSERT_EQ(4u, order.framesOf.at(2).size());
  EXPECT_EQ(2u, order.framesNeeded.at(&records[3]).at(2));   // frames 100 and 200 in
  EXPECT_EQ(3u, order.framesNeeded.at(&records[8]).at(2));   // and 300
  EXPECT_EQ(4u, order.framesNeeded.at(&records[12]).at(2));  // the untimed one, next in order
}

// On a loaded machine a replay's have-output events wait in the queue until their frames' records
// are reached; a stream's state-change event queued behind more of them than the window is still
// found, while the window still bounds how far other events may have moved.
TEST(ReplayMatching, AStateChangeBehindManyHaveOutputEventsIsFoundButNotOneOutOfTheWindow) {
  sim::QueuedEvent haveOutput, stateChanged, other;
  haveOutput.type = METransformHaveOutput;
  stateChanged.type = METransformInputStreamStateChanged;
  stateChanged.hasStream = true;
  stateChanged.stream = 1;
  other.type = MEError;
  std::deque<sim::QueuedEvent> queued(sim::kEventWindow + 4, haveOutput);
  queued.push_back(stateChanged);
  EXPECT_EQ(static_cast<std::ptrdiff_t>(sim::kEventWindow + 4), sim::FindQueuedEvent(queued, stateChanged));
  EXPECT_EQ(0, sim::FindQueuedEvent(queued, haveOutput));

  stateChanged.stream = 2;  // another stream's
  EXPECT_EQ(-1, sim::FindQueuedEvent(queued, stateChanged));
  stateChanged.stream = 1;
  queued.insert(queued.begin(), sim::kEventWindow, other);
  EXPECT_EQ(-1, sim::FindQueuedEvent(queued, stateChanged));
}

}  // namespace
