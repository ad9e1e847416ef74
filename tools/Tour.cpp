#include "tools/Tour.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iomanip>
#include <map>
#include <memory>
#include <mutex>
#include <sstream>
#include <thread>
#include <vector>

#include "product/controls/WQ400PrivateProperties.h"
#include "sim/DeviceInfoTable.h"
#include "sim/FrameServerHost.h"

using Microsoft::WRL::ComPtr;

namespace tools {

namespace {

constexpr ULONG kExposureMode = 12;  // KSPROPERTY_CAMERACONTROL_EXTENDED_EXPOSUREMODE
const GUID kDepthControlRecord = {0x482F9B07, 0x3668, 0x43FE, {0xAD, 0x28, 0xE3, 0xDB, 0x34, 0x63, 0xBC, 0xB9}};
const GUID kFisheyeControlRecord = {0x787B705A, 0x5CE2, 0x4030, {0xB5, 0x2B, 0xC2, 0x94, 0x29, 0x52, 0x23, 0xC7}};
constexpr ULONG kFirmwareErrorControl = 7;
constexpr BYTE kHotLaserPowerReduce = 1;

struct ExtendedRequest {
  KSCAMERA_EXTENDEDPROP_HEADER header;
  KSCAMERA_EXTENDEDPROP_VIDEOPROCSETTING setting;
};


std::string Hex(HRESULT hr) {
  char text[16];
  std::snprintf(text, sizeof(text), "0x%08lX", static_cast<unsigned long>(hr));
  return text;
}

// One camera's part of the tour: the host, its streams and the checks made on the way.
class CameraRun {
 public:
  CameraRun(const std::string &cameraName, DllTransformFactory &factory, std::ostream &out)
      : name(cameraName), factory(factory), out(out) {}

  bool Open() {
    if (!sim::CameraByName(name, camera)) return Fail("no simulated " + name + " camera");
    filter = sim::SimulatedCameraFilter::Create(camera);
    ComPtr<IMFDeviceTransform> transform;
    const HRESULT hr = factory.CreateTransform(camera, transform.GetAddressOf());
    if (FAILED(hr)) return Fail("the DLL did not create the " + name + " transform (" + Hex(hr) + ")");
    host = std::make_unique<sim::FrameServerHost>(transform, filter);
    host->SetOutputObserver([this](DWORD stream, IMFSample *sample) { OnFrame(stream, sample); });
    const HRESULT init = host->Initialize();
    if (FAILED(init)) return Fail("InitializeTransform failed (" + Hex(init) + ")");
    return true;
  }

  bool StartAll(UINT32 width, UINT32 height, UINT32 fps) {
    for (const auto &s : host->Stats()) {
      ComPtr<IMFMediaType> type;
      HRESULT hr = host->FindOutputType(s.outputStreamId, width, height, fps, type.GetAddressOf());
      if (SUCCEEDED(hr)) hr = host->StartStream(s.outputStreamId, type.Get());
      if (FAILED(hr)) {
        return Fail("stream " + std::to_string(s.outputStreamId) + " did not start (" + Hex(hr) + ")");
      }
      std::ostringstream label;
      label << (s.outputStreamId < camera.streams.size() ? camera.streams[s.outputStreamId].name : "stream") << " "
            << width << "x" << height << " " << fps << " fps";
      labels[s.outputStreamId] = label.str();
      started.push_back(s.outputStreamId);
    }
    return true;
  }

  // Streams for `seconds` with the live progress line.
  void Stream(double seconds) {
    const auto start = std::chrono::steady_clock::now();
    double elapsed = 0;
    while (elapsed < seconds) {
      std::this_thread::sleep_for(std::chrono::milliseconds(250));
      elapsed = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
      std::ostringstream line;
      line << "  " << std::fixed << std::setprecision(1) << elapsed << " s";
      for (const auto &s : host->Stats()) {
        if (s.framesOut == 0) continue;
        line << " | " << s.outputStreamId << ": " << s.framesOut << " out " << std::setprecision(1) << s.measuredFps
             << " fps";
      }
      out << "\r" << line.str() << "   " << std::flush;
    }
    out << "\n";
  }

  // A KS property request as an application sends it.
  HRESULT Property(void *identifier, ULONG identifierSize, void *data, ULONG size, ULONG *returned = nullptr) {
    ULONG bytes = 0;
    return host->ApplicationKsControl()->KsProperty(static_cast<KSPROPERTY *>(identifier), identifierSize, data,
                                                    size, returned != nullptr ? returned : &bytes);
  }

  // Sets the extended exposure mode and waits for its completion event; returns the frames it took.
  bool SetExposure(ULONGLONG flags, ULONGLONG exposure, const char *what, uint64_t &frames) {
    HANDLE completion = CreateEventW(nullptr, FALSE, FALSE, nullptr);
    KSEVENT event = {KSEVENTSETID_ExtendedCameraControl, kExposureMode, KSEVENT_TYPE_ONESHOT};
    KSEVENTDATA eventData = {};
    eventData.NotificationType = KSEVENTF_EVENT_HANDLE;
    eventData.EventHandle.Event = completion;
    ULONG bytes = 0;
    HRESULT hr = host->ApplicationKsControl()->KsEvent(&event, sizeof(event), &eventData, sizeof(eventData), &bytes);
    ExtendedRequest request = {};
    request.header.Version = 1;
    request.header.PinId = 0xFFFFFFFF;
    request.header.Size = sizeof(request);
    request.header.Flags = flags;
    request.setting.VideoProc.Value.ull = exposure;
    KSPROPERTY property = {KSPROPERTYSETID_ExtendedCameraControl, kExposureMode, KSPROPERTY_TYPE_SET};
    const uint64_t before = FramesOf(0);
    {
      std::lock_guard<std::mutex> hold(mutex);
      requested = exposure;
    }
    if (SUCCEEDED(hr)) hr = Property(&property, sizeof(property), &request, sizeof(request));
    const bool done = SUCCEEDED(hr) && WaitForSingleObject(completion, 10000) == WAIT_OBJECT_0;
    frames = FramesOf(0) - before;
    CloseHandle(completion);
    if (!done) return Fail(std::string(what) + " did not complete (" + Hex(hr) + ")");
    return true;
  }

  uint64_t FramesOf(DWORD stream) {
    for (const auto &s : host->Stats()) {
      if (s.outputStreamId == stream) return s.framesOut;
    }
    return 0;
  }

  bool Fail(const std::string &what) {
    out << "  FAILED: " << what << "\n";
    failures.push_back(what);
    return false;
  }
  void Note(const std::string &what) { out << "  " << what << "\n"; }

  // Stops, shuts down and prints one line per stream; a stream that delivered nothing fails the tour.
  void Close() {
    if (!host) return;
    for (DWORD id : started) host->StopStream(id);
    const auto stats = host->Stats();
    const HRESULT shutdown = host->Shutdown();
    out << "  " << std::left << std::setw(30) << "stream" << std::right << std::setw(8) << "in" << std::setw(8)
        << "out" << std::setw(8) << "fps" << std::setw(7) << "lost" << std::setw(11) << "max queue" << "\n";
    for (const auto &s : stats) {
      if (std::find(started.begin(), started.end(), s.outputStreamId) == started.end()) continue;
      const uint64_t lost = s.framesIn > s.framesOut ? s.framesIn - s.framesOut : 0;
      out << "  " << std::left << std::setw(30) << (std::to_string(s.outputStreamId) + " " + labels[s.outputStreamId])
          << std::right << std::setw(8) << s.framesIn << std::setw(8) << s.framesOut << std::setw(8) << std::fixed
          << std::setprecision(1) << s.measuredFps << std::setw(7) << lost << std::setw(11) << s.largestQueue << "\n";
      if (s.framesOut == 0) Fail("stream " + std::to_string(s.outputStreamId) + " delivered no frame");
    }
    if (FAILED(shutdown)) Fail("Shutdown failed (" + Hex(shutdown) + ")");
    if (FAILED(host->LastPumpError())) Fail("the frame server met an error (" + Hex(host->LastPumpError()) + ")");
    host.reset();
  }

  std::string name;
  DllTransformFactory &factory;
  std::ostream &out;
  sim::CameraConfig camera;
  ComPtr<sim::SimulatedCameraFilter> filter;
  std::unique_ptr<sim::FrameServerHost> host;
  std::vector<DWORD> started;
  std::map<DWORD, std::string> labels;
  std::vector<std::string> failures;

  // Per-frame values of stream 0, written as CSV: frame, exposure (100 ns), gain, mean level, requested.
  struct FrameRow {
    uint64_t frame;
    double exposure;
    double gain;
    double brightness;
    double requested;
  };
  std::mutex mutex;
  std::vector<FrameRow> rows;
  ULONGLONG requested = 0;

 private:
  void OnFrame(DWORD stream, IMFSample *sample) {
    if (stream != 0 || sample == nullptr) return;
    FrameRow row = {};
    BYTE record[72] = {};
    UINT32 size = 0;
    if (SUCCEEDED(sample->GetBlob(kDepthControlRecord, record, sizeof(record), &size)) && size >= 16) {
      uint32_t exposure = 0;
      std::memcpy(&exposure, record + 12, 4);
      row.exposure = exposure * 10.0;  // device units of 10 x 100 ns
    } else if (SUCCEEDED(sample->GetBlob(kFisheyeControlRecord, record, sizeof(record), &size)) && size >= 16) {
      uint32_t gain = 0, exposure = 0;
      std::memcpy(&gain, record + 8, 4);
      std::memcpy(&exposure, record + 12, 4);
      row.gain = gain;
      row.exposure = (exposure & 0xFFFF) * 10.0;  // microseconds
      row.brightness = MeanLevel(sample);
    } else {
      return;
    }
    std::lock_guard<std::mutex> hold(mutex);
    row.frame = rows.size();
    row.requested = static_cast<double>(requested);
    rows.push_back(row);
  }

  static double MeanLevel(IMFSample *sample) {
    ComPtr<IMFMediaBuffer> buffer;
    if (FAILED(sample->GetBufferByIndex(0, &buffer))) return 0;
    BYTE *data = nullptr;
    DWORD length = 0;
    if (FAILED(buffer->Lock(&data, nullptr, &length))) return 0;
    uint64_t sum = 0;
    const DWORD step = 7;  // a sparse sample of the image is enough for its mean
    DWORD count = 0;
    for (DWORD i = 0; i < length; i += step, ++count) sum += data[i];
    buffer->Unlock();
    return count != 0 ? static_cast<double>(sum) / count : 0;
  }
};

bool WriteCsv(const std::string &path, const char *header, const std::vector<CameraRun::FrameRow> &rows,
              bool fisheye) {
  std::ofstream file(path);
  if (!file) return false;
  file << header << "\n";
  for (const auto &row : rows) {
    if (fisheye) {
      file << row.frame << "," << row.exposure << "," << row.gain << "," << std::fixed << std::setprecision(1)
           << row.brightness << "\n";
    } else {
      file << row.frame << "," << row.requested << "," << row.exposure << "\n";
    }
  }
  return static_cast<bool>(file);
}

void DepthPart(CameraRun &run, double seconds) {
  if (!run.Open() || !run.StartAll(848, 480, 30)) return;
  run.Stream(seconds / 2);

  // The product's private interface version.
  KSPROPERTY apiVersion = {mft_core::PROPSETID_WQ400_PRIVATE, mft_core::KSPROPERTY_WQ400_API_VERSION_ID,
                           KSPROPERTY_TYPE_GET};
  mft_core::KSPROPERTY_WQ400_API_VERSION version = {};
  HRESULT hr = run.Property(&apiVersion, sizeof(apiVersion), &version, sizeof(version));
  if (SUCCEEDED(hr) && version.major == 2 && version.minor == 3) {
    run.Note("API version: 2.3");
  } else {
    run.Fail("API version not answered as 2.3 (" + Hex(hr) + ", " + std::to_string(version.major) + "." +
             std::to_string(version.minor) + ")");
  }

  // The device-information table, read by a raw hardware command.
  mft_core::KSPROPERTY_WQ400_CONTROL_HW_COMMAND command = {
      {mft_core::PROPSETID_WQ400_PRIVATE, mft_core::KSPROPERTY_WQ400_CONTROL_HW_COMMAND_ID, KSPROPERTY_TYPE_GET},
      sim::kFirmwareOpcodeDeviceInfo, 0, 0, 0, 0};
  std::vector<BYTE> table(sim::kDeviceInfoTableSize);
  hr = run.Property(&command, sizeof(command), table.data(), static_cast<ULONG>(table.size()));
  const std::vector<BYTE> expected = sim::DeviceInfoTable(run.camera.deviceInfo);
  if (SUCCEEDED(hr) && table == expected) {
    const auto &version = run.camera.deviceInfo.functionalPayloadVersion;
    std::ostringstream note;
    note << "device information: " << table.size() << " bytes by hardware command 0x10, firmware "
         << int(version[3]) << "." << int(version[2]) << "." << int(version[1]) << "." << int(version[0]);
    run.Note(note.str());
  } else {
    run.Fail("device information not read by hardware command (" + Hex(hr) + ")");
  }

  // Depth exposure: manual, converged on the frames; then auto with lock.
  uint64_t frames = 0;
  if (run.SetExposure(KSCAMERA_EXTENDEDPROP_VIDEOPROCFLAG_MANUAL, 50000, "manual exposure 5 ms", frames)) {
    run.Note("depth exposure manual 5 ms: converged after " + std::to_string(frames) + " frames");
  }
  run.Stream(1.0);  // the frames settle on the manual value before auto takes over again
  if (run.SetExposure(KSCAMERA_EXTENDEDPROP_VIDEOPROCFLAG_AUTO | KSCAMERA_EXTENDEDPROP_VIDEOPROCFLAG_LOCK, 0,
                      "auto-lock", frames)) {
    run.Note("depth exposure auto-lock: locked after " + std::to_string(frames) + " frames");
  }

  // A firmware error raised by the camera arrives as a thermal event.
  const uint64_t thermalBefore = run.host->EventCount(MEDeviceThermalStateChanged);
  run.filter->SetControlValue(sim::kDepthXuSet, kFirmwareErrorControl, {kHotLaserPowerReduce});
  run.filter->SignalAutoUpdate();
  bool thermal = false;
  for (int i = 0; i < 200 && !thermal; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
    thermal = run.host->EventCount(MEDeviceThermalStateChanged) > thermalBefore;
  }
  run.filter->SetControlValue(sim::kDepthXuSet, kFirmwareErrorControl, {0});
  if (thermal) {
    run.Note("firmware error \"laser hot, power reduced\": thermal event raised");
  } else {
    run.Fail("the camera's firmware error raised no thermal event");
  }
  run.Stream(seconds / 2);
}

void FisheyePart(CameraRun &run, double seconds) {
  if (!run.Open() || !run.StartAll(640, 480, 30)) return;
  // Auto exposure from the camera's dark default.
  uint64_t frames = 0;
  if (run.SetExposure(KSCAMERA_EXTENDEDPROP_VIDEOPROCFLAG_AUTO, 0, "fisheye auto exposure", frames)) {
    run.Note("fisheye auto exposure on");
  }
  run.Stream(seconds);
  std::vector<CameraRun::FrameRow> rows;
  {
    std::lock_guard<std::mutex> hold(run.mutex);
    rows = run.rows;
  }
  if (rows.size() < 10) {
    run.Fail("too few fisheye frames carried exposure metadata");
    return;
  }
  const double first = rows.front().brightness;
  double last = 0;
  const size_t tail = std::min<size_t>(10, rows.size());
  for (size_t i = rows.size() - tail; i < rows.size(); ++i) last += rows[i].brightness / tail;
  std::ostringstream note;
  note << std::fixed << std::setprecision(0) << "fisheye mean level " << first << " -> " << last << " over "
       << rows.size() << " frames";
  if (last > first + 20) {
    run.Note(note.str());
  } else {
    run.Fail(note.str() + ": auto exposure did not brighten the dark start");
  }
}

}  // namespace

int RunTour(DllTransformFactory &factory, const TourOptions &options, std::ostream &out) {
  out << "Tour of " << factory.Describe() << " over the simulated cameras\n";
  std::vector<std::string> failures;
  CreateDirectoryA("build", nullptr);
  CreateDirectoryA(options.outputFolder.c_str(), nullptr);
  const std::string depthCsv = options.outputFolder + "\\depth_exposure.csv";
  const std::string fisheyeCsv = options.outputFolder + "\\fisheye_exposure.csv";

  out << "\n== depth camera: depth and both infrared streams ==\n";
  {
    CameraRun run("depth", factory, out);
    DepthPart(run, options.secondsPerCamera);
    std::vector<CameraRun::FrameRow> rows;
    {
      std::lock_guard<std::mutex> hold(run.mutex);
      rows = run.rows;
    }
    run.Close();
    if (!WriteCsv(depthCsv, "frame,requested_100ns,frame_exposure_100ns", rows, false)) {
      run.Fail("cannot write " + depthCsv);
    }
    failures.insert(failures.end(), run.failures.begin(), run.failures.end());
  }

  out << "\n== color camera ==\n";
  {
    CameraRun run("color", factory, out);
    if (run.Open() && run.StartAll(1280, 720, 30)) run.Stream(options.secondsPerCamera / 2);
    run.Close();
    failures.insert(failures.end(), run.failures.begin(), run.failures.end());
  }

  out << "\n== fisheye camera ==\n";
  {
    CameraRun run("fisheye", factory, out);
    FisheyePart(run, options.secondsPerCamera);
    std::vector<CameraRun::FrameRow> rows;
    {
      std::lock_guard<std::mutex> hold(run.mutex);
      rows = run.rows;
    }
    run.Close();
    if (!WriteCsv(fisheyeCsv, "frame,exposure_100ns,gain,mean_level", rows, true)) {
      run.Fail("cannot write " + fisheyeCsv);
    }
    failures.insert(failures.end(), run.failures.begin(), run.failures.end());
  }

  out << "\nPer-frame values: " << depthCsv << ", " << fisheyeCsv << "\n";
  if (failures.empty()) {
    out << "Tour passed: every stream delivered and every control answered as expected.\n";
    return 0;
  }
  out << "Tour FAILED (" << failures.size() << "):\n";
  for (const auto &failure : failures) out << "  - " << failure << "\n";
  return 1;
}

}  // namespace tools
