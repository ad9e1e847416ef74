#include <gtest/gtest.h>

#include <cstring>
#include <thread>
#include <string>
#include <vector>

#include "user_space_frameworks/EtwProviders.h"
#include "user_space_frameworks/Trace.h"

namespace user_space_frameworks {
namespace {

// What the platform would have been handed: the descriptor and a copy of every data block.
struct WrittenEvent {
  EVENT_DESCRIPTOR descriptor;
  bool hasActivity;
  GUID activity;
  std::vector<std::vector<uint8_t>> blocks;
  std::vector<ULONG> types;
};
std::vector<WrittenEvent> written;

ULONG WINAPI CaptureWrite(REGHANDLE, PCEVENT_DESCRIPTOR descriptor, LPCGUID activity, LPCGUID, ULONG count,
                          PEVENT_DATA_DESCRIPTOR data) {
  WrittenEvent event{*descriptor, activity != nullptr, activity ? *activity : GUID_NULL, {}, {}};
  for (ULONG i = 0; i < count; ++i) {
    const auto *bytes = reinterpret_cast<const uint8_t *>(static_cast<uintptr_t>(data[i].Ptr));
    event.blocks.emplace_back(bytes, bytes + data[i].Size);
    event.types.push_back(data[i].Reserved & 0xFF);
  }
  written.push_back(event);
  return ERROR_SUCCESS;
}

std::vector<uint8_t> Bytes(std::initializer_list<int> values) {
  std::vector<uint8_t> bytes;
  for (int v : values) bytes.push_back(static_cast<uint8_t>(v));
  return bytes;
}

void AppendText(std::vector<uint8_t> &bytes, const char *text) {
  bytes.insert(bytes.end(), text, text + std::strlen(text) + 1);
}

std::vector<uint8_t> Sized(std::vector<uint8_t> body) {
  const size_t size = body.size() + 2;
  body.insert(body.begin(), {static_cast<uint8_t>(size & 0xFF), static_cast<uint8_t>(size >> 8)});
  return body;
}

const GUID kTestProvider = {0x01020304, 0x0506, 0x0708, {1, 2, 3, 4, 5, 6, 7, 8}};

class StructuredProviderTest : public ::testing::Test {
 protected:
  void SetUp() override {
    written.clear();
    provider.SetWriteTransfer(&CaptureWrite);
  }
  StructuredEventProvider provider{"Test.Provider", kTestProvider, nullptr};
};

TEST_F(StructuredProviderTest, EncodesTraitsMetadataAndValuesInTheSelfDescribingLayout) {
  provider.OnEnable(EVENT_CONTROL_CODE_ENABLE_PROVIDER, TRACE_LEVEL_VERBOSE, 0x1, 0);
  const GUID activity = {0xAABBCCDD, 0x1122, 0x3344, {9, 8, 7, 6, 5, 4, 3, 2}};
  const int64_t sampleTime = 0x0102030405060708;
  const uint32_t stream = 7;
  const char label[] = "depth";
  const tracelogging::Field fields[] = {
      {"SampleTime", tracelogging::InInt64, 0, &sampleTime, sizeof(sampleTime)},
      {"Stream", tracelogging::InUInt32, 0, &stream, sizeof(stream)},
      {"Label", tracelogging::InAnsiString, tracelogging::kOutTypeUtf8, label, sizeof(label)},
  };
  provider.Write("Frame", TRACE_LEVEL_VERBOSE, 0x1, tracelogging::OpcodeStart, &activity, fields, 3);

  ASSERT_EQ(1u, written.size());
  const WrittenEvent &event = written[0];
  EXPECT_EQ(0, event.descriptor.Id);
  EXPECT_EQ(0, event.descriptor.Version);
  EXPECT_EQ(11, event.descriptor.Channel);
  EXPECT_EQ(5, event.descriptor.Level);
  EXPECT_EQ(1, event.descriptor.Opcode);
  EXPECT_EQ(0, event.descriptor.Task);
  EXPECT_EQ(0x1u, event.descriptor.Keyword);
  ASSERT_TRUE(event.hasActivity);
  EXPECT_EQ(activity, event.activity);

  ASSERT_EQ(5u, event.blocks.size());
  EXPECT_EQ((std::vector<ULONG>{2, 1, 0, 0, 0}), event.types);
  std::vector<uint8_t> traits;
  AppendText(traits, "Test.Provider");
  EXPECT_EQ(Sized(traits), event.blocks[0]);
  EXPECT_EQ(Bytes({16, 0}), std::vector<uint8_t>(event.blocks[0].begin(), event.blocks[0].begin() + 2));

  std::vector<uint8_t> metadata = {0};
  AppendText(metadata, "Frame");
  AppendText(metadata, "SampleTime");
  metadata.push_back(9);
  AppendText(metadata, "Stream");
  metadata.push_back(8);
  AppendText(metadata, "Label");
  metadata.push_back(0x82);  // ANSI string with an out-type: UTF-8
  metadata.push_back(35);
  EXPECT_EQ(Sized(metadata), event.blocks[1]);

  EXPECT_EQ(Bytes({8, 7, 6, 5, 4, 3, 2, 1}), event.blocks[2]);
  EXPECT_EQ(Bytes({7, 0, 0, 0}), event.blocks[3]);
  EXPECT_EQ(Bytes({'d', 'e', 'p', 't', 'h', 0}), event.blocks[4]);
}

TEST_F(StructuredProviderTest, WritesOnlyWhatASessionAskedFor) {
  const uint32_t value = 1;
  const tracelogging::Field field = {"Value", tracelogging::InUInt32, 0, &value, sizeof(value)};
  auto write = [&](UCHAR level, ULONGLONG keyword) {
    provider.Write("E", level, keyword, tracelogging::OpcodeInfo, nullptr, &field, 1);
  };
  write(TRACE_LEVEL_ERROR, 0x1);
  EXPECT_TRUE(written.empty()) << "nobody listens yet";

  provider.OnEnable(EVENT_CONTROL_CODE_ENABLE_PROVIDER, TRACE_LEVEL_INFORMATION, 0x2, 0);
  write(TRACE_LEVEL_VERBOSE, 0x2);  // level above the session's
  write(TRACE_LEVEL_ERROR, 0x1);    // keyword the session did not ask for
  EXPECT_TRUE(written.empty());
  write(TRACE_LEVEL_INFORMATION, 0x2);
  EXPECT_EQ(1u, written.size());

  provider.OnEnable(EVENT_CONTROL_CODE_ENABLE_PROVIDER, 0, 0, 0);  // level 0, no keywords: everything
  write(TRACE_LEVEL_VERBOSE, 0x40);
  EXPECT_EQ(2u, written.size());
  provider.OnEnable(EVENT_CONTROL_CODE_ENABLE_PROVIDER, TRACE_LEVEL_VERBOSE, 0x3, 0x3);  // all of 1 and 2
  write(TRACE_LEVEL_VERBOSE, 0x1);
  EXPECT_EQ(2u, written.size());
  provider.OnEnable(EVENT_CONTROL_CODE_CAPTURE_STATE, 0, 0, 0);  // a rundown request changes nothing
  write(TRACE_LEVEL_VERBOSE, 0x3);
  EXPECT_EQ(3u, written.size());
  provider.OnEnable(EVENT_CONTROL_CODE_DISABLE_PROVIDER, 0, 0, 0);
  write(TRACE_LEVEL_CRITICAL, 0x3);
  EXPECT_EQ(3u, written.size());
}

TEST_F(StructuredProviderTest, AnEventTooLargeToDescribeIsNotWritten) {
  provider.OnEnable(EVENT_CONTROL_CODE_ENABLE_PROVIDER, 0, 0, 0);
  const std::string longName(300, 'n');
  const uint32_t value = 1;
  const tracelogging::Field field = {longName.c_str(), tracelogging::InUInt32, 0, &value, sizeof(value)};
  provider.Write("E", TRACE_LEVEL_VERBOSE, 1, tracelogging::OpcodeInfo, nullptr, &field, 1);
  EXPECT_TRUE(written.empty());
}

// The process-wide providers feed the same trace points as the text sink.
struct ClassicMessage {
  USHORT number;
  std::string function;
  LONG line;
  std::string message;
};
std::vector<ClassicMessage> messages;

ULONG CaptureMessage(TRACEHANDLE, const GUID &, USHORT number, const char *function, LONG line, const char *message) {
  messages.push_back({number, function, line, message});
  return ERROR_SUCCESS;
}

class PlatformProvidersTest : public ::testing::Test {
 protected:
  void SetUp() override {
    written.clear();
    messages.clear();
    trace::EventProvider().SetWriteTransfer(&CaptureWrite);
    trace::ClassicProvider().SetMessageWriter(&CaptureMessage);
  }
  void TearDown() override {
    trace::EventProvider().OnEnable(EVENT_CONTROL_CODE_DISABLE_PROVIDER, 0, 0, 0);
    trace::ClassicProvider().OnControl(false, 0, 0);
    trace::EventProvider().SetWriteTransfer(&::EventWriteTransfer);
  }
  trace::ScopedSink noSink{nullptr, TraceLevel::Off};
};

constexpr int kInfoLine = __LINE__ + 3;
void TraceAtEachLevel() {
  WQ_TRACE(Error, "error line");
  WQ_TRACE(Info, "info line");
  WQ_TRACE(Verbose, "verbose line");
}

TEST_F(PlatformProvidersTest, ASessionSwitchesTraceLinesOnToItsLevelAndOffAgain) {
  EXPECT_FALSE(trace::IsEnabled(TraceLevel::Error));
  trace::ClassicProvider().OnControl(true, 0x1234, TRACE_LEVEL_INFORMATION);
  EXPECT_TRUE(trace::IsEnabled(TraceLevel::Info));
  EXPECT_FALSE(trace::IsEnabled(TraceLevel::Verbose));
  TraceAtEachLevel();
  ASSERT_EQ(2u, messages.size());
  EXPECT_EQ(ClassicTraceProvider::ErrorMessage, messages[0].number);
  EXPECT_EQ(ClassicTraceProvider::InfoMessage, messages[1].number);
  EXPECT_EQ("user_space_frameworks::{anonymous}::TraceAtEachLevel", messages[1].function);
  EXPECT_EQ(kInfoLine, messages[1].line);
  EXPECT_EQ("info line", messages[1].message);

  trace::ClassicProvider().OnControl(false, 0, 0);
  EXPECT_FALSE(trace::IsEnabled(TraceLevel::Error));
  TraceAtEachLevel();
  EXPECT_EQ(2u, messages.size());
}

TEST_F(PlatformProvidersTest, FrameEventsReachTheSessionWithoutATextSink) {
  EXPECT_FALSE(trace::EventsEnabled());
  trace::EventProvider().OnEnable(EVENT_CONTROL_CODE_ENABLE_PROVIDER, TRACE_LEVEL_INFORMATION, 0, 0);
  EXPECT_FALSE(trace::EventsEnabled()) << "frame events are verbose";
  trace::EventProvider().OnEnable(EVENT_CONTROL_CODE_ENABLE_PROVIDER, TRACE_LEVEL_VERBOSE, trace::kFrameEventsKeyword, 0);
  ASSERT_TRUE(trace::EventsEnabled());

  const GUID activity = trace::NewActivityId();
  EXPECT_NE(GUID_NULL, activity);
  EXPECT_NE(activity, trace::NewActivityId());
  const int64_t time = -5;
  trace::WriteEvent("SampleTime", trace::EventOpcode::Stop, &activity, {trace::Int64Field("SampleTime", time)});
  ASSERT_EQ(1u, written.size());
  EXPECT_EQ(2, written[0].descriptor.Opcode);
  EXPECT_EQ(activity, written[0].activity);
  EXPECT_EQ(Bytes({0xFB, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF}), written[0].blocks[2]);
  std::vector<uint8_t> traits;
  AppendText(traits, trace::kEventProviderName);
  EXPECT_EQ(Sized(traits), written[0].blocks[0]);

  trace::EventProvider().OnEnable(EVENT_CONTROL_CODE_DISABLE_PROVIDER, 0, 0, 0);
  EXPECT_FALSE(trace::EventsEnabled());
}

TEST_F(PlatformProvidersTest, RegisterWithThePlatformAndUnregister) {
  ASSERT_EQ(static_cast<ULONG>(ERROR_SUCCESS), trace::RegisterPlatformProviders());
  EXPECT_NE(0u, trace::EventProvider().Handle());
  EXPECT_EQ(static_cast<ULONG>(ERROR_SUCCESS), trace::RegisterPlatformProviders()) << "a second attach is harmless";
  trace::UnregisterPlatformProviders();
  EXPECT_EQ(0u, trace::EventProvider().Handle());
}

// A session that starts while the text sink changes on another thread: the platform's callback and the
// sink setter both work out the trace level, and the one that stores last must have seen both changes.
std::thread sessionStarter;
void StartSessionMidway() {
  trace::SetRecomputeProbe(nullptr);
  sessionStarter = std::thread([] { trace::ClassicProvider().OnControl(true, 0x1234, TRACE_LEVEL_VERBOSE); });
  Sleep(100);  // the session's callback runs now, unless it has to wait for the setter
}

TEST_F(PlatformProvidersTest, ASessionStartingWhileTheSinkChangesLeavesTracingOn) {
  trace::SetRecomputeProbe(&StartSessionMidway);
  trace::SetSink(nullptr, TraceLevel::Off, false);
  sessionStarter.join();
  EXPECT_TRUE(trace::IsEnabled(TraceLevel::Verbose)) << "tracing is off while a session listens";
}

}  // namespace
}  // namespace user_space_frameworks
