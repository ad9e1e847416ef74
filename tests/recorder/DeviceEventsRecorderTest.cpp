// The recorder switched on in the registry, recording the pass-through transform over the simulated
// camera; and its writer under a full queue and a full file.
#include <gtest/gtest.h>

#include "RecordingSupport.h"
#include "device_events/AttributeStore.h"
#include "device_events/Timeline.h"
#include "mft_core/recorder/DeviceEventsRecorder.h"
#include "mft_core/transform/PassThroughDeviceMft.h"
#include "sim/FrameServerHost.h"
#include "user_space_frameworks/ComObject.h"

using Microsoft::WRL::ComPtr;
using device_events::Record;
using device_events::RecordKind;
using device_events::ValueTag;
using namespace recorder_tests;

namespace {

TEST(DeviceEventsRecorder, IsOffUnlessTheRegistrySwitchesItOn) {
  const auto settings = mft_core::DeviceEventsRecorderSettings::FromRegistry();
  EXPECT_FALSE(settings.enabled);
  EXPECT_EQ(std::wstring(L"c:\\VeldaraLogs\\events.bin"), settings.path);
  EXPECT_EQ(256ull << 20, settings.writer.maxFileBytes);
  EXPECT_EQ(nullptr, mft_core::DeviceEventsRecorder::CreateIfEnabled(GUID_NULL, "off"));
  {
    RecordingSwitch off(TemporaryRecordingPath(L"off"), 0);
    EXPECT_EQ(nullptr, mft_core::DeviceEventsRecorder::CreateIfEnabled(GUID_NULL, "off"));
  }
}

// The calls, media events, driver requests and driver events of this session are matched one by one
// by its replay (ReplayTest); here, what the replay does not look at.
TEST(DeviceEventsRecorder, RecordsTheFilterTheSamplesMetadataAndTheApplicationsRequestOfASession) {
  const std::wstring path = TemporaryRecordingPath(L"session");
  {
    RecordingSwitch on(path);
    RunShortSession(CreatePassThrough());
  }
  // The recording closes when the last owner of the transform's members lets go.
  Recording recording;
  EXPECT_TRUE(WaitFor([&] {
    recording = ReadRecording(path);
    return !recording.records.empty() && recording.records.back().Kind() == RecordKind::End;
  }));
  DeleteFileW(path.c_str());
  ASSERT_EQ("", recording.error);
  EXPECT_EQ("Recorded MFT", recording.header.transformName);
  EXPECT_FALSE(recording.header.moduleVersion.empty());
  ASSERT_FALSE(recording.records.empty());
  EXPECT_EQ(RecordKind::End, recording.records.back().Kind());
  EXPECT_TRUE(OfKind(recording, RecordKind::Dropped).empty());

  // The filter as found at initialisation: its streams with their types, and its nodes.
  const auto filters = OfKind(recording, RecordKind::Filter);
  ASSERT_EQ(1u, filters.size());
  EXPECT_EQ(sim::DepthCamera().streams.size(), filters[0]->values[1].number);

  // Input samples keep their time and the camera's raw metadata, not their pixels.
  const auto inputs = Calls(recording, RecordKind::CallEntry, "ProcessInput");
  ASSERT_GE(inputs.size(), 5u);
  ASSERT_EQ(ValueTag::Sample, inputs[0]->values[2].tag);
  const auto &sample = *inputs[0]->values[2].sample;
  EXPECT_TRUE(sample.present & device_events::kSampleHasTime);
  EXPECT_EQ(848u * 480 * 2, sample.totalLength);
  EXPECT_FALSE(sample.rawMetadata.IsNull());
  EXPECT_GT(sample.rawMetadata.bytes.size(), 16u);
  EXPECT_TRUE(sample.pixels.IsNull());

  // The application's request, with its identifier, buffer and answer.
  const auto application = OfKind(recording, RecordKind::ApplicationKsRequest);
  ASSERT_EQ(1u, application.size());
  EXPECT_EQ(1u, application[0]->values[0].number);
  EXPECT_EQ(sizeof(KSPROPERTY), application[0]->values[1].bytes.size());
  EXPECT_EQ(40u, application[0]->values[3].number);
}

TEST(DeviceEventsRecorder, RecordingChangesNoResultOfTheTransform) {
  // The same calls against a transform with and without recording, failing ones above all (the types
  // handed out in a session are matched by its replay): the results match.
  auto run = [](std::vector<HRESULT> &results) {
    auto filter = sim::SimulatedCameraFilter::Create(sim::DepthCamera());
    ComPtr<IMFDeviceTransform> device = CreatePassThrough();
    ComPtr<IMFAttributes> filterAttributes;
    ASSERT_EQ(S_OK, filter->CreateFilterAttributes(filterAttributes.GetAddressOf()));
    results.push_back(device->InitializeTransform(filterAttributes.Get()));
    DWORD inputs = 0, outputs = 0;
    results.push_back(device->GetStreamCount(&inputs, &outputs));
    std::vector<DWORD> ids(outputs);
    results.push_back(device->GetStreamIDs(0, nullptr, outputs, ids.data()));
    results.push_back(device->GetStreamIDs(0, ids.data(), 0, nullptr));
    ComPtr<IMFMediaType> type;
    results.push_back(device->GetOutputAvailableType(0, 0, &type));
    results.push_back(device->GetOutputAvailableType(0, 999, &type));
    DeviceStreamState state = DeviceStreamState_Disabled;
    results.push_back(device->GetOutputStreamState(0, &state));
    results.push_back(device->GetOutputStreamState(0, nullptr));
    results.push_back(device->SetOutputStreamState(99, nullptr, DeviceStreamState_Run, 0));
    results.push_back(device->SetOutputStreamState(0, nullptr, DeviceStreamState_Pause, 0));
    DWORD status = 7;
    results.push_back(device->ProcessOutput(0, 0, nullptr, &status));
    ComPtr<IMFTransform> transform;
    device.As(&transform);
    results.push_back(transform->GetAttributes(nullptr));
    ComPtr<IKsControl> ksControl;
    device.As(&ksControl);
    KSPROPERTY property{};
    property.Set = sim::kDepthXuSet;
    property.Id = 1;
    property.Flags = KSPROPERTY_TYPE_GET;
    ULONG returned = 0;
    results.push_back(ksControl->KsProperty(&property, sizeof(property), nullptr, 0, &returned));
    results.push_back(device->ProcessInput(0, nullptr, 0));
    ComPtr<IMFShutdown> shutdown;
    device.As(&shutdown);
    results.push_back(shutdown->Shutdown());
    results.push_back(shutdown->Shutdown());
    results.push_back(device->GetStreamCount(&inputs, &outputs));
  };
  std::vector<HRESULT> plainResults, recordedResults;
  run(plainResults);
  const std::wstring path = TemporaryRecordingPath(L"unchanged");
  {
    RecordingSwitch on(path);
    run(recordedResults);
  }
  EXPECT_EQ(plainResults, recordedResults);
  // And the recording holds those results.
  const Recording recording = ReadRecording(path);
  DeleteFileW(path.c_str());
  ASSERT_EQ("", recording.error);
  std::vector<HRESULT> returns;
  for (const Record *exit : OfKind(recording, RecordKind::CallExit)) returns.push_back(static_cast<HRESULT>(exit->result));
  // Every result but the KS request's (fifth from the end) is a call's; that one is an application request.
  std::vector<HRESULT> callResults = recordedResults;
  const HRESULT ksResult = callResults[callResults.size() - 5];
  callResults.erase(callResults.end() - 5);
  EXPECT_EQ(callResults, returns);
  const auto application = OfKind(recording, RecordKind::ApplicationKsRequest);
  ASSERT_EQ(1u, application.size());
  EXPECT_EQ(static_cast<uint32_t>(ksResult), application[0]->result);
}

class RecorderWriterTest : public ::testing::Test {
 protected:
  void Create(size_t queueRecords, uint64_t maxFileBytes) {
    mft_core::DeviceEventsRecorderSettings settings;
    settings.enabled = true;
    settings.path = path;
    settings.writer.queueRecords = queueRecords;
    settings.writer.maxFileBytes = maxFileBytes;
    ASSERT_EQ(S_OK, mft_core::DeviceEventsRecorder::Create(settings, GUID_NULL, "writer test", recorder));
  }
  void TearDown() override { DeleteFileW(path.c_str()); }

  const std::wstring path = TemporaryRecordingPath(L"writer");
  std::shared_ptr<mft_core::DeviceEventsRecorder> recorder;
};

TEST_F(RecorderWriterTest, AFullQueueDropsRecordsAndSaysHowManyWhereTheyWentMissing) {
  Create(8, 256ull << 20);
  recorder->Writer().PauseForTest(true);
  for (ULONG id = 1; id <= 20; ++id) recorder->RecordDriverEvent(sim::kAutoUpdateEventSet, id);
  EXPECT_EQ(12u, recorder->Writer().DroppedRecords());
  recorder->Writer().PauseForTest(false);
  ASSERT_TRUE(WaitFor([&] { return recorder->Writer().QueuedRecords() == 0; }));
  recorder->RecordDriverEvent(sim::kAutoUpdateEventSet, 21);
  recorder->Close();

  const Recording recording = ReadRecording(path);
  ASSERT_EQ("", recording.error);
  ASSERT_EQ(11u, recording.records.size());
  for (size_t i = 0; i < 8; ++i) EXPECT_EQ(i + 1, recording.records[i].values[1].number);
  const Record &dropped = recording.records[8];
  ASSERT_EQ(RecordKind::Dropped, dropped.Kind());
  EXPECT_EQ(12u, dropped.values[0].number);
  EXPECT_EQ(static_cast<uint32_t>(device_events::DropReason::QueueFull), dropped.values[1].number);
  EXPECT_EQ(21u, recording.records[9].values[1].number);
  EXPECT_EQ(RecordKind::End, recording.records[10].Kind());
  EXPECT_EQ(12u, recording.records[10].values[1].number);
}

TEST_F(RecorderWriterTest, AFullFileKeepsItsCapAndCountsWhatDidNotFit) {
  const uint64_t cap = 2048;
  Create(1024, cap);
  for (ULONG id = 1; id <= 100; ++id) recorder->RecordDriverEvent(sim::kAutoUpdateEventSet, id);
  recorder->Close();
  recorder->RecordDriverEvent(sim::kAutoUpdateEventSet, 101);  // after closing: not kept, no harm

  WIN32_FILE_ATTRIBUTE_DATA data{};
  ASSERT_TRUE(GetFileAttributesExW(path.c_str(), GetFileExInfoStandard, &data));
  EXPECT_LE(data.nFileSizeLow, cap);
  const Recording recording = ReadRecording(path);
  ASSERT_EQ("", recording.error);
  ASSERT_GE(recording.records.size(), 3u);
  const Record &dropped = recording.records[recording.records.size() - 2];
  ASSERT_EQ(RecordKind::Dropped, dropped.Kind());
  EXPECT_EQ(static_cast<uint32_t>(device_events::DropReason::SizeCap), dropped.values[1].number);
  const size_t kept = recording.records.size() - 2;
  EXPECT_EQ(100u, kept + dropped.values[0].number);
  for (size_t i = 0; i < kept; ++i) EXPECT_EQ(i + 1, recording.records[i].values[1].number);
}

}  // namespace
