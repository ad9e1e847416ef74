#include "sim/Session.h"

#include <chrono>
#include <cstdio>
#include <iomanip>
#include <sstream>
#include <thread>

#include "mft_core/transform/PassThroughDeviceMft.h"
#include "user_space_frameworks/ComObject.h"

using Microsoft::WRL::ComPtr;

namespace sim {

namespace {

std::string Hex(HRESULT hr) {
  char text[16];
  std::snprintf(text, sizeof(text), "0x%08lX", static_cast<unsigned long>(hr));
  return text;
}

std::string ProgressLine(double elapsed, const std::vector<HostStreamStats> &stats) {
  std::ostringstream line;
  line << std::fixed << std::setprecision(1) << elapsed << " s";
  for (const auto &s : stats) {
    if (s.framesIn == 0 && s.framesOut == 0) continue;
    line << " | " << s.outputStreamId << ": " << s.framesOut << " out " << std::setprecision(1) << s.measuredFps
         << " fps";
  }
  return line.str();
}

}  // namespace

HRESULT PassThroughTransformFactory::CreateTransform(const CameraConfig &camera, IMFDeviceTransform **transform) {
  if (transform == nullptr) return E_POINTER;
  mft_core::DeviceExtensionUnits units;
  if (!camera.extensionUnits.empty()) {
    units.deviceXuSetId = camera.extensionUnits.front().set;
    units.deviceXuKnownId = camera.extensionUnits.front().controls.empty() ? 0 : camera.extensionUnits.front().controls.front().id;
  }
  auto object = user_space_frameworks::MakeComObject<mft_core::PassThroughDeviceMft>("Simulated " + camera.name + " MFT", units);
  return object.CopyTo(transform);
}

SessionResult RunSession(const SessionOptions &options, ITransformFactory &factory, std::ostream &progress) {
  SessionResult result;
  result.transform = factory.Describe();
  result.camera = options.camera;
  CameraConfig camera;
  if (!CameraByName(options.camera, camera)) {
    result.ending = "unknown camera \"" + options.camera + "\"";
    result.result = E_INVALIDARG;
    return result;
  }
  ComPtr<SimulatedCameraFilter> filter = SimulatedCameraFilter::Create(camera);
  ComPtr<IMFDeviceTransform> transform;
  HRESULT hr = filter ? factory.CreateTransform(camera, transform.GetAddressOf()) : E_OUTOFMEMORY;
  if (FAILED(hr)) {
    result.ending = "the transform could not be created (" + Hex(hr) + ")";
    result.result = hr;
    return result;
  }
  FrameServerHost host(transform, filter);
  hr = host.Initialize();
  if (FAILED(hr)) {
    result.ending = "InitializeTransform failed (" + Hex(hr) + ")";
    result.result = hr;
    return result;
  }

  std::vector<DWORD> streams = options.streams;
  if (streams.empty()) {
    for (const auto &s : host.Stats()) streams.push_back(s.outputStreamId);
  }
  for (DWORD id : streams) {
    ComPtr<IMFMediaType> type;
    hr = host.FindOutputType(id, options.width, options.height, options.fps, type.GetAddressOf());
    if (SUCCEEDED(hr)) hr = host.StartStream(id, type.Get());
    if (SUCCEEDED(hr)) {
      std::ostringstream label;
      label << (id < camera.streams.size() ? camera.streams[id].name : "stream") << " " << options.width << "x"
            << options.height << " " << options.fps << " fps";
      result.streamLabels[id] = label.str();
    }
    if (FAILED(hr)) {
      std::ostringstream ending;
      ending << "stream " << id << " did not start at " << options.width << "x" << options.height << " " << options.fps
             << " fps (" << Hex(hr) << ")";
      result.ending = ending.str();
      result.result = hr;
      break;
    }
  }

  const auto start = std::chrono::steady_clock::now();
  auto elapsed = [&] { return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count(); };
  bool firmwareErrorRaised = options.firmwareErrorCode < 0 || options.firmwareErrorCode > 255 ||
                             camera.extensionUnits.empty();
  while (SUCCEEDED(result.result) && elapsed() < options.seconds) {
    std::this_thread::sleep_for(std::chrono::milliseconds(250));
    if (!firmwareErrorRaised && elapsed() >= options.seconds / 2) {
      firmwareErrorRaised = true;
      filter->SetControlValue(camera.extensionUnits.front().set, kDepthErrorCodeId,
                              {static_cast<BYTE>(options.firmwareErrorCode)});
      const size_t listeners = filter->SignalAutoUpdate();
      std::ostringstream text;
      text << "firmware error code " << options.firmwareErrorCode << " raised at " << std::fixed
           << std::setprecision(1) << elapsed() << " s, " << listeners << " listener(s) told";
      result.firmwareEvent = text.str();
    }
    if (options.progress) progress << "\r" << ProgressLine(elapsed(), host.Stats()) << "   " << std::flush;
    if (FAILED(host.LastPumpError())) {
      result.ending = "the frame server met an error (" + Hex(host.LastPumpError()) + ")";
      result.result = host.LastPumpError();
    }
  }
  if (options.progress) progress << "\n";
  result.seconds = elapsed();

  for (DWORD id : streams) host.StopStream(id);
  result.streams = host.Stats();
  const HRESULT shutdown = host.Shutdown();
  if (SUCCEEDED(result.result)) {
    std::ostringstream ending;
    ending << "completed after " << std::fixed << std::setprecision(1) << result.seconds << " s, streams stopped, ";
    if (SUCCEEDED(shutdown)) {
      ending << "transform shut down";
    } else {
      ending << "Shutdown failed (" << Hex(shutdown) << ")";
      result.result = shutdown;
    }
    result.ending = ending.str();
  }
  return result;
}

std::string FormatSummary(const SessionResult &result) {
  std::ostringstream out;
  out << "Session: " << result.transform << " over the simulated " << result.camera << " camera\n";
  out << std::left << std::setw(32) << "stream" << std::right << std::setw(10) << "in" << std::setw(10) << "out"
      << std::setw(10) << "fps" << std::setw(8) << "lost" << std::setw(10) << "refused" << std::setw(11)
      << "max queue" << "\n";
  for (const auto &s : result.streams) {
    if (s.framesIn == 0 && s.framesOut == 0 && s.rejected == 0) continue;
    const uint64_t lost = s.framesIn > s.framesOut ? s.framesIn - s.framesOut : 0;
    auto label = result.streamLabels.find(s.outputStreamId);
    out << std::left << std::setw(32)
        << (std::to_string(s.outputStreamId) + " " + (label == result.streamLabels.end() ? "" : label->second))
        << std::right << std::setw(10) << s.framesIn << std::setw(10)
        << s.framesOut << std::setw(10) << std::fixed << std::setprecision(2) << s.measuredFps << std::setw(8) << lost
        << std::setw(10) << s.rejected << std::setw(11) << s.largestQueue << "\n";
  }
  if (!result.firmwareEvent.empty()) out << "Firmware: " << result.firmwareEvent << "\n";
  out << "Ended: " << result.ending << (SUCCEEDED(result.result) ? "" : " [" + Hex(result.result) + "]") << "\n";
  return out.str();
}

}  // namespace sim
