#include "RecordingSupport.h"

#include "device_events/Timeline.h"
#include "mft_core/recorder/DeviceEventsRecorder.h"

namespace recorder_tests {

using mft_core::DeviceEventsRecorderSettings;

RecordingSwitch::RecordingSwitch(const std::wstring &file, DWORD enabled, DWORD pixelData) {
  DeviceEventsRecorderSettings settings;
  settings.enabled = enabled != 0;
  settings.pixelData = pixelData != 0;
  settings.path = file;
  settings.StoreInRegistry();
}

RecordingSwitch::~RecordingSwitch() { DeviceEventsRecorderSettings::RemoveFromRegistry(); }

std::wstring TemporaryRecordingPath(const wchar_t *name) {
  wchar_t folder[MAX_PATH] = {};
  GetTempPathW(MAX_PATH, folder);
  return std::wstring(folder) + L"wq-" + std::to_wstring(GetCurrentProcessId()) + L"-" + name + L".bin";
}

Recording ReadRecording(const std::wstring &path) {
  Recording recording;
  std::vector<uint8_t> bytes;
  HANDLE file = CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING, 0,
                            nullptr);
  if (file == INVALID_HANDLE_VALUE) {
    recording.error = "cannot open the recording";
    return recording;
  }
  LARGE_INTEGER size{};
  GetFileSizeEx(file, &size);
  bytes.resize(static_cast<size_t>(size.QuadPart));
  DWORD read = 0;
  if (!bytes.empty()) ReadFile(file, bytes.data(), static_cast<DWORD>(bytes.size()), &read, nullptr);
  CloseHandle(file);
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
