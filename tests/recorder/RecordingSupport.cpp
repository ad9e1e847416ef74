#include "RecordingSupport.h"

#include <atomic>

#include "device_events/Timeline.h"
#include "mft_core/recorder/DeviceEventsRecorder.h"

namespace recorder_tests {

using mft_core::DeviceEventsRecorderSettings;

RecordingSwitch::RecordingSwitch(const std::wstring &file, DWORD enabled, DWORD pixelData, DWORD ringMegabytes) {
  DeviceEventsRecorderSettings settings;
  settings.enabled = enabled != 0;
  settings.flightRecorder = enabled == DeviceEventsRecorderSettings::kFlightRecorderMode;
  if (settings.flightRecorder) settings.writer.ringBytes = size_t{ringMegabytes} << 20;
  settings.pixelData = pixelData != 0;
  settings.path = file;
  settings.StoreInRegistry();
}

RecordingSwitch::~RecordingSwitch() { DeviceEventsRecorderSettings::RemoveFromRegistry(); }

std::wstring TemporaryRecordingPath(const wchar_t *name) {
  wchar_t folder[MAX_PATH] = {};
  GetTempPathW(MAX_PATH, folder);
  // The process identifier alone repeats from one run to the next (a fresh Wine server hands out the
  // same ones), and a file an earlier run left (a flight recorder's numbered file) would be taken for
  // this run's: the process's start joins it.
  static const std::wstring run = std::to_wstring(GetCurrentProcessId()) + L"-" + std::to_wstring(GetTickCount64());
  return std::wstring(folder) + L"wq-" + run + L"-" + name + L".bin";
}

Recording ReadRecording(const std::wstring &path) {
  std::vector<uint8_t> bytes;
  Recording recording;
  if (!device_events::ReadFileBytes(std::string(path.begin(), path.end()), bytes, recording.error)) return recording;
  return ParseRecording(bytes);
}

Recording ParseRecording(const std::vector<uint8_t> &bytes) {
  Recording recording;
  device_events::EventsReader reader(bytes.data(), bytes.size());
  device_events::ReadError error;
  if (!reader.ReadHeader(recording.header, error)) {
    recording.error = error.Text();
    return recording;
  }
  device_events::Record record;
  for (;;) {
    const auto status = reader.Next(record, error);
    if (status == device_events::EventsReader::Status::End) break;
    if (status == device_events::EventsReader::Status::Cut) {
      recording.cut = error.Text();
      break;
    }
    if (status == device_events::EventsReader::Status::Error) {
      recording.error = error.Text();
      break;
    }
    recording.records.push_back(record);
  }
  return recording;
}

std::vector<const device_events::Record *> OfKind(const Recording &recording, device_events::RecordKind kind) {
  std::vector<const device_events::Record *> found;
  for (const auto &record : recording.records) {
    if (record.Kind() == kind) found.push_back(&record);
  }
  return found;
}

std::vector<const device_events::Record *> Calls(const Recording &recording, device_events::RecordKind kind,
                                                 const std::string &name) {
  std::vector<const device_events::Record *> found;
  for (const auto *record : OfKind(recording, kind)) {
    if (device_events::CallName(*record) == name) found.push_back(record);
  }
  return found;
}

}  // namespace recorder_tests

#include <gtest/gtest.h>

#include <chrono>
#include <thread>

#include "mft_core/transform/PassThroughDeviceMft.h"
#include "sim/FrameServerHost.h"
#include "user_space_frameworks/ComObject.h"

namespace recorder_tests {

using Microsoft::WRL::ComPtr;

ComPtr<IMFDeviceTransform> CreatePassThrough() {
  const mft_core::DeviceExtensionUnits units{sim::kDepthXuSet, 1, 7};
  auto object = user_space_frameworks::MakeComObject<mft_core::PassThroughDeviceMft>("Recorded MFT", units);
  ComPtr<IMFDeviceTransform> device;
  object.As(&device);
  return device;
}

void RunSession(ComPtr<IMFDeviceTransform> device, const SessionPlan &plan) {
  auto filter = sim::SimulatedCameraFilter::Create(plan.camera);
  ASSERT_TRUE(filter);
  ASSERT_TRUE(device);
  sim::FrameServerHost host(device, filter);
  device.Reset();
  ASSERT_EQ(S_OK, host.Initialize());
  for (DWORD stream : plan.streams) {
    ComPtr<IMFMediaType> type;
    ASSERT_EQ(S_OK, host.FindOutputType(stream, plan.width, plan.height, plan.fps, type.GetAddressOf()));
    ASSERT_EQ(S_OK, host.StartStream(stream, type.Get()));
  }
  auto framesOut = [&] { return test_waiting::FramesOut(host, plan.streams.front()); };
  ASSERT_TRUE(WaitFor([&] { return framesOut() >= plan.framesBefore; }));
  if (plan.during) plan.during(host);
  const uint64_t target = framesOut() + plan.framesAfter;
  ASSERT_TRUE(WaitFor([&] { return framesOut() >= target; }));
  if (plan.signalFirmwareEvent) {
    EXPECT_EQ(1u, filter->SignalAutoUpdate());
    if (plan.afterFirmwareEvent) {
      EXPECT_TRUE(WaitFor(plan.afterFirmwareEvent));
    } else {
      std::this_thread::sleep_for(std::chrono::milliseconds(200));
    }
  }
  for (DWORD stream : plan.streams) EXPECT_EQ(S_OK, host.StopStream(stream));
  EXPECT_EQ(S_OK, host.Shutdown());
}

void RunShortSession(ComPtr<IMFDeviceTransform> device) {
  SessionPlan plan;
  plan.during = [](sim::FrameServerHost &host) {
    KSPROPERTY property{};
    property.Set = PROPSETID_VIDCAP_VIDEOPROCAMP;
    property.Id = 0;
    property.Flags = KSPROPERTY_TYPE_GET;
    BYTE value[40] = {};
    ULONG returned = 0;
    host.ApplicationKsControl()->KsProperty(&property, sizeof(property), value, sizeof(value), &returned);
  };
  RunSession(std::move(device), plan);
}

std::vector<uint8_t> RecordSession(const wchar_t *name, const std::function<void()> &session, DWORD pixelData) {
  // A file of its own each time: a transform of an earlier session that the platform still holds may
  // write its closing records late.
  static std::atomic<unsigned> sessions{0};
  const std::wstring path = TemporaryRecordingPath((std::wstring(name) + L"-" + std::to_wstring(++sessions)).c_str());
  {
    RecordingSwitch on(path, 1, pixelData);
    session();
  }
  // The recording closes when the last owner of the transform's members lets go.
  EXPECT_TRUE(WaitFor([&] {
    const Recording recording = ReadRecording(path);
    return !recording.records.empty() && recording.records.back().Kind() == device_events::RecordKind::End;
  }));
  std::vector<uint8_t> bytes;
  std::string error;
  EXPECT_TRUE(TakeFileBytes(path, bytes, error)) << error;
  return bytes;
}

bool TakeFileBytes(const std::wstring &path, std::vector<uint8_t> &bytes, std::string &error) {
  const bool read = device_events::ReadFileBytes(std::string(path.begin(), path.end()), bytes, error);
  DeleteFileW(path.c_str());
  return read;
}

}  // namespace recorder_tests
