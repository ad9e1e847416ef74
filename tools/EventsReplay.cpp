// Replays a device events recording against a transform and reports where its behaviour differs.
//   events_replay <events.bin> [--dll <path>] [--class {CLSID}] [--wait-ms N] [--repeat N] [--jitter-ms N]
// The module's recorded class (from the recording, its transform name, or --class) is created through
// the class factory of the DLL at --dll, by default the one built beside this program. Recordings of the
// framework's pass-through transform ("Simulated <camera> MFT") replay without --dll against the
// pass-through transform linked into this program. --repeat replays the recording N times, each against a
// fresh transform, and counts the matches (a replay must not depend on the machine's load); --jitter-ms
// delays each replaying thread at random (up to N ms) before each call, as a loaded machine does. Exit code: 0
// when every run matches, 1 at a divergence (printed with the records before it), 2 for bad options or a
// recording that cannot be read.
#include <cstdlib>
#include <iostream>
#include <string>

#include "device_events/EventsReader.h"
#include "mft_core/recorder/MfValues.h"
#include "platform/WindowsSdk.h"
#include "sim/ReplaySession.h"
#include "tools/DllTransformFactory.h"
#include "tools/ToolArguments.h"

namespace {

int Usage() {
  std::cerr << "usage: events_replay <events.bin> [--dll <path>] [--class {CLSID}] [--wait-ms N] [--repeat N] [--jitter-ms N]\n";
  return 2;
}

bool IsSimulatedSessionRecording(const device_events::FileHeader &header) {
  return header.transformName.compare(0, 10, "Simulated ") == 0;
}

}  // namespace

int main(int argc, char **argv) {
  std::string path, dll;
  std::wstring classText;
  sim::ReplayOptions options;
  unsigned long repeat = 1;
  const std::vector<tools::ToolOption> known = {
      {"--dll", true, [&](const std::string &value) { return !(dll = value).empty(); }},
      {"--class", true,
       [&](const std::string &value) {
         classText.assign(value.begin(), value.end());
         return true;
       }},
      {"--wait-ms", true,
       [&](const std::string &value) {
         options.waitMs = static_cast<DWORD>(std::strtoul(value.c_str(), nullptr, 10));
         return options.waitMs > 0;
       }},
      {"--jitter-ms", true,
       [&](const std::string &value) {
         options.laneJitterMs = static_cast<DWORD>(std::strtoul(value.c_str(), nullptr, 10));
         return true;
       }},
      {"--repeat", true,
       [&](const std::string &value) {
         repeat = std::strtoul(value.c_str(), nullptr, 10);
         return repeat > 0;
       }},
  };
  if (!tools::ParseToolArguments(argc, argv, known, path)) return Usage();
  std::vector<uint8_t> bytes;
  std::string error;
  if (!device_events::ReadFileBytes(path, bytes, error)) {
    std::cerr << error << "\n";
    return 2;
  }
  if (FAILED(CoInitializeEx(nullptr, COINIT_MULTITHREADED)) || FAILED(MFStartup(MF_VERSION, MFSTARTUP_FULL))) {
    std::cerr << "Media Foundation did not start\n";
    return 2;
  }

  // Loaded on first use, and kept until every transform it made is gone.
  tools::DllTransformFactory module(dll.empty() ? tools::DllTransformFactory::DefaultModulePath()
                                                : std::wstring(dll.begin(), dll.end()));
  bool setupFailed = false, announced = false;
  auto factory = [&](const device_events::FileHeader &header, IMFDeviceTransform **transform) -> HRESULT {
    if (dll.empty() && classText.empty() && IsSimulatedSessionRecording(header)) {
      return sim::CreateSimulatedSessionTransform(header, transform);
    }
    setupFailed = true;
    CLSID clsid = GUID_NULL;
    if (!classText.empty()) {
      if (FAILED(CLSIDFromString(classText.c_str(), &clsid))) {
        std::cerr << "--class needs a class identifier in braces\n";
        return E_INVALIDARG;
      }
    } else if (!tools::DllTransformFactory::ClassOfRecording(mft_core::FromRecorded(header.transformClass),
                                                            header.transformName, clsid)) {
      std::cerr << "the recording does not name a class of the module: give --class\n";
      return E_INVALIDARG;
    }
    if (!module.Load()) {
      std::cerr << module.Error() << "\n";
      return E_FAIL;
    }
    setupFailed = false;
    if (!announced) std::cout << "Replaying against " << module.Describe() << "\n";
    announced = true;
    return module.CreateClass(clsid, transform);
  };

  int exitCode = 0;
  unsigned long matches = 0;
  for (unsigned long round = 1; round <= repeat; ++round) {
    const sim::ReplayReport report = sim::ReplayRecording(bytes, factory, options);
    if (report.matched) {
      ++matches;
    } else {
      if (repeat > 1) std::cout << "Replay " << round << " of " << repeat << ":\n";
      if (!report.context.empty()) {
        std::cout << "Before it:\n";
        for (const auto &line : report.context) std::cout << "  " << line << "\n";
      }
      std::cout << "First divergence " << report.divergence << "\n";
      exitCode = setupFailed ? 2 : 1;
    }
    if (repeat == 1 || round == repeat || (!report.matched && setupFailed)) std::cout << report.Summary() << "\n";
    if (setupFailed) break;
  }
  if (repeat > 1) std::cout << matches << " of " << repeat << " replays matched\n";
  MFShutdown();
  CoUninitialize();
  return exitCode;
}
