// The flight recorder: its ring (wrap-around, the overwritten count), the writer's files (one per
// trigger, a storm in one file, the file limit, never an unread file overwritten, the named event),
// the transform's own triggers; and a recording whose process was killed, which replays to the cut.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <thread>

#include "RecordingSupport.h"
#include "device_events/Timeline.h"
#include "mft_core/recorder/DeviceEventsRecorder.h"
#include "mft_core/recorder/RecordRing.h"
#include "sim/ReplaySession.h"

using Microsoft::WRL::ComPtr;
using device_events::DumpTrigger;
using device_events::Record;
using device_events::RecordKind;
using mft_core::EventsFileWriter;
using namespace recorder_tests;

namespace {

TEST(RecordRing, KeepsTheNewestWholeRecordsAndCountsTheOverwrittenOnes) {
  mft_core::RecordRing ring(2 * mft_core::RecordRing::kChunkBytes);
  // Records of varied sizes, each holding its number, well past two chunks.
  uint32_t written = 0;
  for (size_t total = 0; total < 5 * mft_core::RecordRing::kChunkBytes; ++written) {
    std::vector<uint8_t> record(20 + written % 700, static_cast<uint8_t>(written));
    std::memcpy(record.data(), &written, sizeof(written));
    ring.Append(record.data(), record.size());
    total += record.size();
  }
  std::deque<mft_core::RecordChunk> chunks;
  uint64_t overwritten = 0;
  ring.TakeAll(chunks, overwritten);
  ASSERT_LE(chunks.size(), 2u);
  std::vector<uint32_t> kept;
  for (const auto &chunk : chunks) {
    size_t at = 0;
    for (uint64_t i = 0; i < chunk.records; ++i) {
      uint32_t number = 0;
      std::memcpy(&number, &chunk.bytes[at], sizeof(number));
      kept.push_back(number);
      at += 20 + number % 700;
    }
    EXPECT_EQ(chunk.bytes.size(), at);
  }
  ASSERT_FALSE(kept.empty());
  EXPECT_EQ(written - 1, kept.back());
  for (size_t i = 1; i < kept.size(); ++i) ASSERT_EQ(kept[i - 1] + 1, kept[i]);
  EXPECT_EQ(written, overwritten + kept.size());
  // A second round reuses the memory given back and counts from zero again.
  ring.GiveBack(chunks);
  ring.Append(reinterpret_cast<const uint8_t *>(&written), sizeof(written));
  ring.TakeAll(chunks, overwritten);
  EXPECT_EQ(0u, overwritten);
  EXPECT_EQ(1u, chunks.size());
}

class FlightRecorderTest : public ::testing::Test {
 protected:
  void Create(unsigned maxDumps = 8, DWORD quietMs = 400, size_t ringBytes = 2u << 20) {
    mft_core::DeviceEventsRecorderSettings settings;
    settings.enabled = true;
    settings.flightRecorder = true;
    settings.path = path;
    settings.writer.ringBytes = ringBytes;
    settings.writer.maxDumps = maxDumps;
    settings.writer.dumpDelayMs = 50;
    settings.writer.triggerQuietMs = quietMs;
    settings.writer.requestEventName = eventName.c_str();
    ASSERT_EQ(S_OK, mft_core::DeviceEventsRecorder::Create(settings, GUID_NULL, "flight test", recorder));
  }
  // One record that carries `id`.
  void Record(uint32_t id) {
    PROPVARIANT value;
    PropVariantInit(&value);
    value.vt = VT_UI4;
    value.ulVal = id;
    recorder->RecordMediaEvent(MEUnknown, GUID_NULL, S_OK, &value);
  }
  static uint32_t IdOf(const device_events::Record &record) { return static_cast<uint32_t>(record.values[2].number); }
  // The state record that ends the set-up kept aside; the ring's records follow it.
  static size_t StateIndex(const Recording &dump) {
    size_t index = 0;
    while (index < dump.records.size() && dump.records[index].Kind() != RecordKind::State) ++index;
    return index;
  }
  bool FileExists(const std::wstring &file) const { return GetFileAttributesW(file.c_str()) != INVALID_FILE_ATTRIBUTES; }
  std::wstring Dump(unsigned number) const { return EventsFileWriter::DumpPath(path, number); }
  bool WaitForDumps(unsigned count) {
    return WaitFor([&] { return recorder->Writer().DumpsWritten() >= count; });
  }
  void TearDown() override {
    if (recorder) recorder->Close();
    for (unsigned number = 1; number <= 20; ++number) DeleteFileW(Dump(number).c_str());
    DeleteFileW(path.c_str());
  }

  const std::wstring path = TemporaryRecordingPath(L"flight");
  const std::wstring eventName = L"Local\\wq-flight-test-" + std::to_wstring(GetCurrentProcessId());
  std::shared_ptr<mft_core::DeviceEventsRecorder> recorder;
};

TEST_F(FlightRecorderTest, WritesNothingUntilATriggerThenTheNewestRecordsAfterTheOverwrittenCount) {
  Create();
  const uint32_t count = 60000;  // about three times the ring
  for (uint32_t id = 1; id <= count; ++id) Record(id);
  std::this_thread::sleep_for(std::chrono::milliseconds(300));
  EXPECT_FALSE(FileExists(path));
  EXPECT_FALSE(FileExists(Dump(1)));

  recorder->Trigger(DumpTrigger::Requested, "by the test");
  ASSERT_TRUE(WaitForDumps(1));
  EXPECT_EQ(Dump(1), recorder->Writer().LastDumpPath());
  const Recording dump = ReadRecording(Dump(1));
  ASSERT_EQ("", dump.error);
  ASSERT_EQ("", dump.cut);
  EXPECT_EQ("flight test", dump.header.transformName);
  ASSERT_GE(dump.records.size(), 3u);
  const device_events::Record &first = dump.records.front();
  ASSERT_EQ(RecordKind::RingDump, first.Kind());
  EXPECT_EQ(static_cast<uint32_t>(DumpTrigger::Requested), first.values[1].number);
  EXPECT_EQ("by the test", first.values[2].bytes);
  ASSERT_EQ(RecordKind::End, dump.records.back().Kind());
  // No frame came in: every record is part of the set-up, kept aside whole before the state record.
  const size_t state = StateIndex(dump);
  ASSERT_EQ(count + 1, state);
  EXPECT_EQ(count, dump.records[state].values[0].number);
  for (size_t i = 1; i < state; ++i) ASSERT_EQ(i, IdOf(dump.records[i]));
  const size_t kept = dump.records.size() - state - 2;
  EXPECT_GT(first.values[0].number, 0u);
  EXPECT_EQ(count, first.values[0].number + kept);
  for (size_t i = 1; i <= kept; ++i) ASSERT_EQ(count - kept + i, IdOf(dump.records[state + i]));
  EXPECT_EQ(dump.records.size(), dump.records.back().values[0].number);

  // The recorder keeps recording; what comes after is in the next file, and nothing before it.
  std::this_thread::sleep_for(std::chrono::milliseconds(450));
  for (uint32_t id = count + 1; id <= count + 10; ++id) Record(id);
  recorder->Trigger(DumpTrigger::Requested, "again");
  ASSERT_TRUE(WaitForDumps(2));
  const Recording next = ReadRecording(Dump(2));
  const size_t nextState = StateIndex(next);
  ASSERT_EQ(nextState + 12, next.records.size());
  EXPECT_EQ(0u, next.records.front().values[0].number);
  EXPECT_EQ(count + 1, IdOf(next.records[nextState + 1]));
}

TEST_F(FlightRecorderTest, ATriggerStormWritesOneFile) {
  Create();
  for (uint32_t id = 1; id <= 100; ++id) Record(id);
  std::vector<std::thread> threads;
  std::atomic<bool> go{false};
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&] {
      while (!go) std::this_thread::yield();
      const auto until = std::chrono::steady_clock::now() + std::chrono::milliseconds(600);
      while (std::chrono::steady_clock::now() < until) {
        recorder->Trigger(DumpTrigger::FailedCall, "storm");
        Record(7);
      }
    });
  }
  go = true;
  for (auto &thread : threads) thread.join();
  ASSERT_TRUE(WaitForDumps(1));
  std::this_thread::sleep_for(std::chrono::milliseconds(300));
  EXPECT_EQ(1u, recorder->Writer().DumpsWritten());
  EXPECT_FALSE(FileExists(Dump(2)));
  const Recording dump = ReadRecording(Dump(1));
  ASSERT_FALSE(dump.records.empty());
  EXPECT_GT(dump.records.front().values[3].number, 1u);  // the triggers that joined it
}

TEST_F(FlightRecorderTest, KeepsAtMostItsFileLimitAndNeverOverwritesAFileNotTakenAway) {
  Create(2, 0);
  auto triggerAndWait = [&](const char *what) {
    const unsigned before = recorder->Writer().DumpsWritten();
    Record(1);
    recorder->Trigger(DumpTrigger::Requested, what);
    WaitFor([&] { return recorder->Writer().DumpsWritten() > before; });
  };
  triggerAndWait("one");
  triggerAndWait("two");
  ASSERT_EQ(2u, recorder->Writer().DumpsWritten());
  triggerAndWait("three");  // two files wait to be read: none is written
  EXPECT_EQ(2u, recorder->Writer().DumpsWritten());
  EXPECT_FALSE(FileExists(Dump(3)));
  // Once the first is taken away there is room, and the new file takes the next number.
  ASSERT_TRUE(DeleteFileW(Dump(1).c_str()));
  triggerAndWait("four");
  EXPECT_EQ(3u, recorder->Writer().DumpsWritten());
  EXPECT_EQ(Dump(3), recorder->Writer().LastDumpPath());
  EXPECT_EQ("two", ReadRecording(Dump(2)).records.front().values[2].bytes);
  EXPECT_EQ("four", ReadRecording(Dump(3)).records.front().values[2].bytes);
}

TEST_F(FlightRecorderTest, TheNamedEventAsksForAFile) {
  Create();
  Record(1);
  HANDLE event = CreateEventW(nullptr, TRUE, FALSE, eventName.c_str());
  ASSERT_NE(nullptr, event);
  SetEvent(event);
  EXPECT_TRUE(WaitForDumps(1));
  ResetEvent(event);
  CloseHandle(event);
  const Recording dump = ReadRecording(Dump(1));
  ASSERT_FALSE(dump.records.empty());
  EXPECT_EQ(static_cast<uint32_t>(DumpTrigger::Requested), dump.records.front().values[1].number);
}

// The transform's own triggers, each in a transform of its own; a healthy session writes nothing.
TEST(FlightRecorderTriggers, AFailedCallTheFirmwareEventAndAFailedDriverRequestEachWriteAFile) {
  const std::wstring path = TemporaryRecordingPath(L"triggers");
  RecordingSwitch on(path, mft_core::DeviceEventsRecorderSettings::kFlightRecorderMode);
  // The trigger of the one file written, which is then taken away (so the next is number 1 again).
  auto takeTrigger = [&]() -> uint64_t {
    const std::wstring file = EventsFileWriter::DumpPath(path, 1);
    if (!WaitFor([&] { return GetFileAttributesW(file.c_str()) != INVALID_FILE_ATTRIBUTES; })) return 0;
    const Recording dump = ReadRecording(file);
    DeleteFileW(file.c_str());
    return dump.records.empty() ? 0 : dump.records.front().values[1].number;
  };

  SessionPlan healthy;
  healthy.signalFirmwareEvent = false;
  RunSession(CreatePassThrough(), healthy);
  std::this_thread::sleep_for(std::chrono::milliseconds(400));
  EXPECT_EQ(INVALID_FILE_ATTRIBUTES, GetFileAttributesW(EventsFileWriter::DumpPath(path, 1).c_str()));

  SessionPlan firmware;
  RunSession(CreatePassThrough(), firmware);
  EXPECT_EQ(static_cast<uint64_t>(DumpTrigger::FirmwareEvent), takeTrigger());

  {
    ComPtr<IMFDeviceTransform> device = CreatePassThrough();
    ComPtr<IMFMediaType> type;
    EXPECT_TRUE(FAILED(device->GetOutputCurrentType(99, &type)));
    ComPtr<IMFShutdown> shutdown;
    device.As(&shutdown);
    shutdown->Shutdown();
  }
  EXPECT_EQ(static_cast<uint64_t>(DumpTrigger::FailedCall), takeTrigger());

  SessionPlan badRequest;
  badRequest.signalFirmwareEvent = false;
  badRequest.during = [](sim::FrameServerHost &host) {
    // A property set the driver does not have: the transform passes it on and the driver refuses it.
    KSPROPERTY property{};
    property.Set = {0x1D0A1E55, 0x0B0B, 0x4C4C, {1, 2, 3, 4, 5, 6, 7, 8}};
    property.Flags = KSPROPERTY_TYPE_GET;
    ULONG value = 0, returned = 0;
    EXPECT_TRUE(FAILED(host.ApplicationKsControl()->KsProperty(&property, sizeof(property), &value, sizeof(value), &returned)));
  };
  RunSession(CreatePassThrough(), badRequest);
  EXPECT_EQ(static_cast<uint64_t>(DumpTrigger::DriverRequest), takeTrigger());
}

// A dump whose ring wrapped long after the streams started: the replay sets the transform up from the
// records kept aside (initialisation, stream starts, an application's property set while streaming)
// and plays the ring from its first quiet point, as it would a whole recording.
TEST(FlightRecorderReplay, ADumpWhoseRingWrappedReplaysFromItsStateRecord) {
  const std::wstring path = TemporaryRecordingPath(L"wrapped");
  const std::wstring file = EventsFileWriter::DumpPath(path, 1);
  {
    RecordingSwitch on(path, mft_core::DeviceEventsRecorderSettings::kFlightRecorderMode, 0, 1);
    SessionPlan plan;
    plan.streams = {0, 1, 2};
    plan.fps = 90;
    plan.framesAfter = 20;
    plan.during = [](sim::FrameServerHost &host) {
      KSPROPERTY property{};
      property.Set = PROPSETID_VIDCAP_VIDEOPROCAMP;
      property.Id = KSPROPERTY_VIDEOPROCAMP_GAIN;
      property.Flags = KSPROPERTY_TYPE_SET;
      KSPROPERTY_VIDEOPROCAMP_S value{};
      value.Property = property;
      value.Value = 32;
      value.Flags = KSPROPERTY_VIDEOPROCAMP_FLAGS_MANUAL;
      ULONG returned = 0;
      host.ApplicationKsControl()->KsProperty(&property, sizeof(property), &value, sizeof(value), &returned);
      Sleep(7000);  // the ring of two 1 MiB chunks turns over (some 360 KB a second)
    };
    // The file is written while the streams run (a loaded machine may take longer than a moment to
    // pass the camera's event to the transform).
    plan.afterFirmwareEvent = [&] { return GetFileAttributesW(file.c_str()) != INVALID_FILE_ATTRIBUTES; };
    RunSession(CreatePassThrough(), plan);
    ASSERT_TRUE(WaitFor([&] { return GetFileAttributesW(file.c_str()) != INVALID_FILE_ATTRIBUTES; }));
  }
  std::vector<uint8_t> bytes;
  std::string error;
  ASSERT_TRUE(TakeFileBytes(file, bytes, error)) << error;
  const Recording dump = ParseRecording(bytes);
  ASSERT_EQ("", dump.error);
  ASSERT_EQ(RecordKind::RingDump, dump.records.front().Kind());
  EXPECT_GT(dump.records.front().values[0].number, 0u) << "the ring did not wrap: " << bytes.size() << " bytes, " << dump.records.size() << " records";
  const auto states = OfKind(dump, RecordKind::State);
  ASSERT_EQ(1u, states.size());
  EXPECT_EQ(1u, states.front()->values[1].number);
  // It says how the three streams were when the dump was written (running with their types, or, the
  // dump being written a moment after the trigger, already stopped by the session's end) and the gain
  // the application set.
  const Record &state = *states.front();
  ASSERT_EQ(3u + 3 * 3 + 1 + 2, state.values.size());
  EXPECT_EQ(3u, state.values[2].number);
  for (uint32_t stream = 0; stream < 3; ++stream) {
    EXPECT_EQ(stream, state.values[3 + 3 * stream].number);
    const bool running = state.values[4 + 3 * stream].number == DeviceStreamState_Run;
    EXPECT_TRUE(running || state.values[4 + 3 * stream].number == DeviceStreamState_Stop);
    EXPECT_EQ(running ? device_events::ValueTag::MediaType : device_events::ValueTag::Null, state.values[5 + 3 * stream].tag);
  }
  EXPECT_EQ(1u, state.values[12].number);
  ASSERT_EQ(sizeof(KSPROPERTY_VIDEOPROCAMP_S), state.values[14].bytes.size());
  EXPECT_EQ(32, reinterpret_cast<const KSPROPERTY_VIDEOPROCAMP_S *>(state.values[14].bytes.data())->Value);
  const std::string text = device_events::FormatRecord(state, device_events::Names());
  EXPECT_NE(std::string::npos, text.find("output streams: 0 ")) << text;
  EXPECT_NE(std::string::npos, text.find("controls as last set: ")) << text;
  // The set-up kept aside holds the initialisation, not the frame path.
  size_t setUpInputs = 0;
  for (const Record &record : dump.records) {
    if (&record == states.front()) break;
    if (record.Kind() == RecordKind::CallEntry && device_events::CallName(record) == "ProcessInput") ++setUpInputs;
  }
  EXPECT_EQ(0u, setUpInputs);
  EXPECT_FALSE(Calls(dump, RecordKind::CallEntry, "InitializeTransform").empty());

  const sim::ReplayReport report = sim::ReplayRecording(bytes, [](const device_events::FileHeader &, IMFDeviceTransform **transform) {
    return CreatePassThrough().CopyTo(transform);
  });
  EXPECT_TRUE(report.matched) << report.Summary() << "\n" << report.divergence;
  EXPECT_NE(std::string::npos, report.start.find("set-up records kept aside")) << report.Summary();
  EXPECT_GT(report.calls, 100u);
  EXPECT_GT(report.applicationRequests, 0u);
}

// Run by the next test in a process of its own, which it kills while the transform records.
TEST(KilledRecording, ChildRecordsUntilKilled) {
  const char *file = std::getenv("WQ_RECORDING_CHILD");
  if (file == nullptr) GTEST_SKIP() << "the recording process of AProcessKilledWhileRecordingLeavesAFileThatReplays";
  const std::string narrow(file);
  RecordingSwitch on(std::wstring(narrow.begin(), narrow.end()), 1);
  SessionPlan plan;
  plan.streams = {0, 1, 2};
  plan.framesBefore = ~uint64_t{0};
  plan.during = nullptr;
  auto filter = sim::SimulatedCameraFilter::Create(plan.camera);
  sim::FrameServerHost host(CreatePassThrough(), filter);
  ASSERT_EQ(S_OK, host.Initialize());
  for (DWORD stream : plan.streams) {
    ComPtr<IMFMediaType> type;
    ASSERT_EQ(S_OK, host.FindOutputType(stream, plan.width, plan.height, plan.fps, type.GetAddressOf()));
    ASSERT_EQ(S_OK, host.StartStream(stream, type.Get()));
  }
  Sleep(120000);
}

TEST(KilledRecording, AProcessKilledWhileRecordingLeavesAFileThatReplays) {
  const std::wstring path = TemporaryRecordingPath(L"killed");
  wchar_t self[MAX_PATH] = {};
  GetModuleFileNameW(nullptr, self, MAX_PATH);
  std::wstring command = L"\"" + std::wstring(self) + L"\" --gtest_filter=KilledRecording.ChildRecordsUntilKilled";
  SetEnvironmentVariableW(L"WQ_RECORDING_CHILD", path.c_str());
  STARTUPINFOW startup{};
  startup.cb = sizeof(startup);
  PROCESS_INFORMATION child{};
  const BOOL started = CreateProcessW(nullptr, &command[0], nullptr, nullptr, FALSE, 0, nullptr, nullptr, &startup, &child);
  SetEnvironmentVariableW(L"WQ_RECORDING_CHILD", nullptr);
  ASSERT_TRUE(started);
  // Killed while its three streams run and the writer has written several times.
  auto size = [&] {
    WIN32_FILE_ATTRIBUTE_DATA data{};
    return GetFileAttributesExW(path.c_str(), GetFileExInfoStandard, &data) ? data.nFileSizeLow : 0ul;
  };
  bool grew = false;
  for (int waited = 0; waited < 30000 && !grew; waited += 50) {
    Sleep(50);
    grew = size() > 200 * 1024;
  }
  TerminateProcess(child.hProcess, 9);
  WaitForSingleObject(child.hProcess, 10000);
  CloseHandle(child.hProcess);
  CloseHandle(child.hThread);
  mft_core::DeviceEventsRecorderSettings::RemoveFromRegistry();
  ASSERT_TRUE(grew);

  std::vector<uint8_t> bytes;
  std::string error;
  ASSERT_TRUE(TakeFileBytes(path, bytes, error)) << error;
  const Recording recording = ParseRecording(bytes);
  ASSERT_EQ("", recording.error);
  ASSERT_FALSE(recording.records.empty());
  EXPECT_NE(RecordKind::End, recording.records.back().Kind());
  const sim::ReplayReport report = sim::ReplayRecording(bytes, [](const device_events::FileHeader &, IMFDeviceTransform **transform) {
    return CreatePassThrough().CopyTo(transform);
  });
  EXPECT_TRUE(report.matched) << report.divergence;
  EXPECT_GT(report.calls, 100u);
  EXPECT_NE(std::string::npos, report.ending.find("replayed up to")) << report.Summary();
}

}  // namespace
