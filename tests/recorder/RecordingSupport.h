// Switching recording on in the registry for a test, and reading a recording back.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "common/Waiting.h"
#include "device_events/EventsReader.h"
#include "platform/WindowsSdk.h"
#include "sim/FrameServerHost.h"

namespace recorder_tests {

// Sets the recording values under HKLM for the test's lifetime and removes them afterwards.
class RecordingSwitch {
 public:
  explicit RecordingSwitch(const std::wstring &file, DWORD enabled = 1, DWORD pixelData = 0, DWORD ringMegabytes = 32);
  ~RecordingSwitch();
  RecordingSwitch(const RecordingSwitch &) = delete;
  RecordingSwitch &operator=(const RecordingSwitch &) = delete;
};

// A file name of this process in the temporary folder.
std::wstring TemporaryRecordingPath(const wchar_t *name);

struct Recording {
  device_events::FileHeader header;
  std::vector<device_events::Record> records;
  std::string error;  // empty when the whole file was read
  std::string cut;    // where and how the file ends inside its last record
};
Recording ReadRecording(const std::wstring &path);
// The file's bytes, the file deleted; false (with `error`) when it cannot be read.
bool TakeFileBytes(const std::wstring &path, std::vector<uint8_t> &bytes, std::string &error);
Recording ParseRecording(const std::vector<uint8_t> &bytes);

// Records of one kind, and call records of one name.
std::vector<const device_events::Record *> OfKind(const Recording &recording, device_events::RecordKind kind);
std::vector<const device_events::Record *> Calls(const Recording &recording, device_events::RecordKind kind,
                                                 const std::string &name);

}  // namespace recorder_tests

namespace recorder_tests {

// The framework's pass-through transform over the simulated depth camera's units, named "Recorded MFT".
Microsoft::WRL::ComPtr<IMFDeviceTransform> CreatePassThrough();
// What one recorded session does: the camera, the output streams it runs (all at one size and rate),
// how many frames the first of them delivers before `during` runs and again after it, and whether
// the camera signals its firmware event before the streams stop.
struct SessionPlan {
  sim::CameraConfig camera = sim::DepthCamera();
  std::vector<DWORD> streams = {0};
  UINT32 width = 848, height = 480, fps = 30;
  uint64_t framesBefore = 5, framesAfter = 0;
  std::function<void(sim::FrameServerHost &host)> during;
  bool signalFirmwareEvent = true;
  // What the streams wait for after the firmware event (200 ms when empty) before they stop.
  std::function<bool()> afterFirmwareEvent;
};
// Runs the plan against `device` and shuts it down; everything is released on return.
void RunSession(Microsoft::WRL::ComPtr<IMFDeviceTransform> device, const SessionPlan &plan);
// Streams depth for a few frames, sends one application KS request, lets the camera signal its
// firmware event, stops and shuts down.
void RunShortSession(Microsoft::WRL::ComPtr<IMFDeviceTransform> device);
// Records `session` into a temporary file (pixel data when asked) and returns the file's bytes once
// the recording is closed.
std::vector<uint8_t> RecordSession(const wchar_t *name, const std::function<void()> &session, DWORD pixelData = 0);
// Polls `predicate` for up to five seconds.
inline bool WaitFor(const std::function<bool()> &predicate) { return test_waiting::WaitFor(predicate, 5000); }

}  // namespace recorder_tests
