// Sessions of the module's three transforms, created through the built DLL as the frame server
// creates them, recorded and replayed against the same DLL; a replay under another exposure tuning
// and one with an altered driver answer, each reported at the call where the difference shows; and
// the timeline's names from the module's translators.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <map>

#include "RecordingSupport.h"
#include "common/BuiltModule.h"
#include "common/SystemStateGuards.h"
#include "device_events/Timeline.h"
#include "mft_core/recorder/MfValues.h"
#include "product/controls/WQ400DepthExtendedExposureControl.h"
#include "sim/CameraConfig.h"
#include "sim/ReplaySession.h"
#include "tools/DllTransformFactory.h"
#include "tools/EventNames.h"

using Microsoft::WRL::ComPtr;
using device_events::Record;
using device_events::RecordKind;
using namespace recorder_tests;

namespace {

ComPtr<IMFDeviceTransform> CreateFromDll(const sim::CameraConfig &camera) {
  ComPtr<IMFDeviceTransform> device;
  EXPECT_EQ(S_OK, test_module::KeptModule().CreateTransform(camera, &device));
  return device;
}

// Keeps a recording whose replay failed, for events_dump and events_replay.
void KeepRecording(const std::vector<uint8_t> &bytes, const wchar_t *name) {
  const std::wstring path = TemporaryRecordingPath(name);
  HANDLE file = CreateFileW(path.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, 0, nullptr);
  DWORD written = 0;
  if (file != INVALID_HANDLE_VALUE) {
    WriteFile(file, bytes.data(), static_cast<DWORD>(bytes.size()), &written, nullptr);
    CloseHandle(file);
  }
  std::printf("the recording is kept in %ls\n", path.c_str());
}

sim::ReplayReport ReplayThroughDll(const std::vector<uint8_t> &bytes, const std::string &transformName,
                                   const sim::ReplayOptions &options = {}) {
  return sim::ReplayRecording(bytes, [&](const device_events::FileHeader &header, IMFDeviceTransform **transform) {
    EXPECT_EQ(transformName, header.transformName);
    // The recording names the class the module created.
    GUID clsid = GUID_NULL;
    if (!tools::DllTransformFactory::ClassOfTransform(header.transformName, clsid)) return CLASS_E_CLASSNOTAVAILABLE;
    EXPECT_TRUE(IsEqualGUID(clsid, mft_core::FromRecorded(header.transformClass)));
    return test_module::KeptModule().CreateClass(mft_core::FromRecorded(header.transformClass), transform);
  }, options);
}

HRESULT ExposureMode(sim::FrameServerHost &host, ULONG requestFlags, ULONGLONG modeFlags) {
  BYTE data[sizeof(KSCAMERA_EXTENDEDPROP_HEADER) + sizeof(KSCAMERA_EXTENDEDPROP_VIDEOPROCSETTING)] = {};
  auto *header = reinterpret_cast<KSCAMERA_EXTENDEDPROP_HEADER *>(data);
  header->Version = 1;
  header->PinId = KSCAMERA_EXTENDEDPROP_FILTERSCOPE;
  header->Size = sizeof(data);
  header->Flags = modeFlags;
  KSPROPERTY property{};
  property.Set = KSPROPERTYSETID_ExtendedCameraControl;
  property.Id = KSPROPERTY_CAMERACONTROL_EXTENDED_EXPOSUREMODE;
  property.Flags = requestFlags;
  ULONG returned = 0;
  return host.ApplicationKsControl()->KsProperty(&property, sizeof(property), data, sizeof(data), &returned);
}

struct ProductCase {
  const char *label;
  sim::CameraConfig (*camera)();
  std::vector<DWORD> streams;
  UINT32 width, height;
  DWORD pixelData;  // the fisheye exposure engine works on the pixels
  bool firmwareEvent;
  const char *transformName;
};

void PrintTo(const ProductCase &product, std::ostream *out) { *out << product.label; }

SessionPlan PlanOf(const ProductCase &product) {
  SessionPlan plan;
  plan.camera = product.camera();
  plan.streams = product.streams;
  plan.width = product.width;
  plan.height = product.height;
  plan.framesBefore = 10;
  plan.framesAfter = 20;
  plan.signalFirmwareEvent = product.firmwareEvent;
  plan.during = [](sim::FrameServerHost &host) { ExposureMode(host, KSPROPERTY_TYPE_GET, 0); };
  return plan;
}

class ProductReplay : public ::testing::TestWithParam<ProductCase> {};

TEST_P(ProductReplay, ARecordedSessionReplaysAgainstTheSameDllWithoutDivergence) {
  const ProductCase &product = GetParam();
  const SessionPlan plan = PlanOf(product);
  const std::vector<uint8_t> bytes =
      RecordSession(L"dll-product", [&] { RunSession(CreateFromDll(plan.camera), plan); }, product.pixelData);
  ASSERT_FALSE(bytes.empty());
  sim::ReplayReport report = ReplayThroughDll(bytes, product.transformName);
  // Then with every replaying thread delayed at random before each call, as on a loaded machine: the
  // recording proves the cross-thread order (a pull after the frame it hands out, a pull that found a
  // stream stopped after the stop, a pull that found it running before it), and the replay keeps it.
  sim::ReplayOptions loaded;
  loaded.laneJitterMs = 4;
  for (int round = 0; round < 3 && report.matched; ++round) report = ReplayThroughDll(bytes, product.transformName, loaded);
  if (!report.matched) KeepRecording(bytes, L"diverged");
  EXPECT_TRUE(report.matched) << report.divergence;
  EXPECT_GE(report.calls, 2u * 30);  // every frame of the first stream in and out
  EXPECT_EQ(1u, report.applicationRequests);
  EXPECT_GT(report.driverRequests, 0u);
  EXPECT_EQ(product.firmwareEvent ? 1u : 0u, report.driverEvents);
}

INSTANTIATE_TEST_SUITE_P(
    Dll, ProductReplay,
    ::testing::Values(ProductCase{"Depth", sim::DepthCamera, {0, 1, 2}, 848, 480, 0, true, "WQ400 Depth Device MFT"},
                      ProductCase{"Color", sim::ColorCamera, {0}, 640, 480, 0, false, "WQ400 Color Device MFT"},
                      ProductCase{"Fisheye", sim::FisheyeCamera, {0}, 640, 480, 1, false, "WQ400 FishEye Device MFT"}),
    [](const ::testing::TestParamInfo<ProductCase> &info) { return std::string(info.param.label); });

// A DWORD tuning value of the depth exposure control for the test's lifetime.
struct DepthTuning : test_support::RegistryValueGuard {
  DepthTuning(const wchar_t *name, DWORD value)
      : RegistryValueGuard(mft_core::WQ400DepthExtendedExposureControl::kRegistryKey, name) {
    SetDword(value);
  }
};

class DepthLockReplay : public ::testing::Test {
 protected:
  // Depth streams; an application asks for auto exposure with lock, and the control locks the
  // settled exposure a few frames later from within a frame's ProcessInput.
  static void SetUpTestSuite() {
    SessionPlan plan;
    plan.framesBefore = 5;
    plan.framesAfter = 20;
    plan.signalFirmwareEvent = false;
    plan.during = [](sim::FrameServerHost &host) {
      EXPECT_EQ(S_OK, ExposureMode(host, KSPROPERTY_TYPE_SET,
                                   KSCAMERA_EXTENDEDPROP_VIDEOPROCFLAG_AUTO | KSCAMERA_EXTENDEDPROP_VIDEOPROCFLAG_LOCK));
    };
    *bytes = RecordSession(L"dll-lock", [&] { RunSession(CreateFromDll(plan.camera), plan); });
  }
  static void TearDownTestSuite() { bytes->clear(); }

  static std::vector<Record> Records() { return ParseRecording(*bytes).records; }

  // The position of the return of the first ProcessInput that made driver requests after the lock
  // request, and the position of its first driver request; 0 when there is none.
  static void FindLockingFrame(const std::vector<Record> &records, size_t &exitIndex, size_t &requestIndex) {
    exitIndex = requestIndex = 0;
    std::map<uint32_t, std::vector<std::string>> open;
    bool lockRequested = false;
    uint32_t lockingThread = 0;
    for (size_t i = 0; i < records.size(); ++i) {
      const Record &r = records[i];
      if (r.Kind() == RecordKind::ApplicationKsRequest) lockRequested = true;
      if (r.Kind() == RecordKind::CallEntry) open[r.threadId].push_back(device_events::CallName(r));
      if (r.Kind() == RecordKind::CallExit) {
        if (requestIndex != 0 && r.threadId == lockingThread && open[r.threadId].size() == 1) {
          exitIndex = i;
          return;
        }
        open[r.threadId].pop_back();
      }
      if (r.Kind() == RecordKind::DriverKsRequest && lockRequested && requestIndex == 0 &&
          !open[r.threadId].empty() && open[r.threadId].back() == "ProcessInput") {
        requestIndex = i;
        lockingThread = r.threadId;
      }
    }
  }

  static std::unique_ptr<std::vector<uint8_t>> bytes;
};
std::unique_ptr<std::vector<uint8_t>> DepthLockReplay::bytes = std::make_unique<std::vector<uint8_t>>();

TEST_F(DepthLockReplay, ReplaysWithoutDivergenceUnderTheRecordedTuning) {
  const sim::ReplayReport report = ReplayThroughDll(*bytes, "WQ400 Depth Device MFT");
  EXPECT_TRUE(report.matched) << report.divergence;
}

TEST_F(DepthLockReplay, MoreFramesForTheLockAtReplayAreReportedAtTheFrameThatLockedWhenRecorded) {
  size_t exitIndex = 0, requestIndex = 0;
  FindLockingFrame(Records(), exitIndex, requestIndex);
  ASSERT_NE(0u, exitIndex) << "the recorded session never locked its exposure";
  sim::ReplayReport report;
  {
    DepthTuning slowLock(L"NumConvergedSamplesForLock", 1000);
    report = ReplayThroughDll(*bytes, "WQ400 Depth Device MFT");
  }
  ASSERT_FALSE(report.matched);
  EXPECT_EQ(exitIndex, report.divergenceRecord) << report.divergence;
  EXPECT_EQ(static_cast<uint16_t>(RecordKind::CallExit), report.divergenceKind);
  EXPECT_EQ("ProcessInput", report.divergenceCall);
  EXPECT_NE(std::string::npos, report.divergence.find("did not make the driver request")) << report.divergence;
}

TEST_F(DepthLockReplay, FewerFramesForTheLockAtReplayAreReportedAtTheFrameThatLocksTooEarly) {
  sim::ReplayReport report;
  {
    DepthTuning quickLock(L"NumConvergedSamplesForLock", 0);
    report = ReplayThroughDll(*bytes, "WQ400 Depth Device MFT");
  }
  size_t exitIndex = 0, requestIndex = 0;
  FindLockingFrame(Records(), exitIndex, requestIndex);
  ASSERT_FALSE(report.matched);
  EXPECT_LT(report.divergenceRecord, exitIndex) << report.divergence;
  EXPECT_EQ("ProcessInput", report.divergenceCall) << report.divergence;
  EXPECT_NE(std::string::npos, report.divergence.find("made earlier than recorded")) << report.divergence;
}

TEST_F(DepthLockReplay, AnAlteredDriverAnswerIsReportedAtTheApplicationRequestThatSeesIt) {
  // The driver now fails the first request the lock request sent it: the application's answer changes.
  std::vector<uint8_t> altered = *bytes;
  const std::vector<Record> records = Records();
  size_t applicationIndex = 0;
  for (size_t i = 0; i < records.size() && applicationIndex == 0; ++i) {
    if (records[i].Kind() == RecordKind::ApplicationKsRequest) applicationIndex = i;
  }
  ASSERT_NE(0u, applicationIndex);
  const Record *answer = nullptr;
  for (size_t i = applicationIndex; i > 0 && answer == nullptr; --i) {
    // The driver requests a request causes come before its own record, on its thread.
    if (records[i - 1].Kind() == RecordKind::DriverKsRequest && records[i - 1].threadId == records[applicationIndex].threadId) {
      answer = &records[i - 1];
    }
  }
  ASSERT_NE(nullptr, answer);
  const uint32_t failure = 0x8007001F;  // a device attached to the system is not functioning
  std::memcpy(&altered[answer->offset + 4 + 2 + 8 + 4], &failure, 4);
  const sim::ReplayReport report = ReplayThroughDll(altered, "WQ400 Depth Device MFT");
  ASSERT_FALSE(report.matched);
  EXPECT_EQ(applicationIndex, report.divergenceRecord) << report.divergence;
  EXPECT_EQ(static_cast<uint16_t>(RecordKind::ApplicationKsRequest), report.divergenceKind);
  EXPECT_NE(std::string::npos, report.divergence.find("recorded S_OK, now ")) << report.divergence;
}

TEST(DllRecordingTimeline, NamesSubtypesKsRequestsAndEventsWithTheModulesTranslators) {
  SessionPlan plan;
  plan.camera = sim::ColorCamera();
  plan.width = 640;
  plan.framesBefore = 3;
  plan.signalFirmwareEvent = false;
  plan.during = [](sim::FrameServerHost &host) { ExposureMode(host, KSPROPERTY_TYPE_GET, 0); };
  const Recording recording =
      ParseRecording(RecordSession(L"dll-names", [&] { RunSession(CreateFromDll(plan.camera), plan); }));
  ASSERT_EQ("", recording.error);
  const auto names = tools::CreateEventNames();
  const device_events::Names plain;
  bool typeNamed = false, typePlain = false;
  std::string requestLine, eventLine;
  for (const Record &record : recording.records) {
    if (device_events::CallName(record) == "GetOutputAvailableType" && record.Kind() == RecordKind::CallExit) {
      typeNamed |= device_events::FormatRecord(record, *names).find("type{YUY2 640x480 ") != std::string::npos;
      typePlain |= device_events::FormatRecord(record, plain).find("type{'YUY2' 640x480 ") != std::string::npos;
    }
    if (requestLine.empty() && record.Kind() == RecordKind::ApplicationKsRequest) {
      requestLine = device_events::FormatRecord(record, *names);
    }
    if (eventLine.empty() && record.Kind() == RecordKind::MediaEvent && record.values[0].number == METransformHaveOutput) {
      eventLine = device_events::FormatRecord(record, *names);
    }
  }
  EXPECT_TRUE(typeNamed);
  EXPECT_TRUE(typePlain);
  EXPECT_NE(std::string::npos,
            requestLine.find("Set: KSPROPERTYSETID_ExtendedCameraControl, Id: KSPROPERTY_CAMERACONTROL_EXTENDED_EXPOSUREMODE, "
                             "Flags: KSPROPERTY_TYPE_GET"))
      << requestLine;
  EXPECT_NE(std::string::npos, eventLine.find("METransformHaveOutput status S_OK")) << eventLine;
}

}  // namespace
