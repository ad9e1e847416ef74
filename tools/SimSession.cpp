// Streams the product DLL's transforms over the simulated cameras: with no options the tour of the three
// cameras and their controls, with options one session of one camera. The transforms come from the
// built DLL, through DllGetClassObject and IClassFactory only.
//   sim_session [--camera depth|color|fisheye] [--streams 0,1,2] [--size 848x480] [--fps 30] [--seconds 5]
//               [--fw-error CODE] [--quiet] [--record [--pixels]] [--dll path\WQ400DeviceMft.dll]
// --record switches the device events recording on (as the registry does in the field) for the
// transforms the session creates; the recording goes to c:\VeldaraLogs\events.bin.
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <sstream>
#include <string>

#include "platform/WindowsSdk.h"
#include "mft_core/recorder/DeviceEventsRecorder.h"
#include "sim/Session.h"
#include "tools/DllTransformFactory.h"
#include "tools/PlatformScope.h"
#include "tools/Tour.h"

namespace {

void Usage() {
  std::cerr << "usage: sim_session [--camera depth|color|fisheye] [--streams 0,1,2] [--size WxH] [--fps N]\n"
               "                   [--seconds S] [--fw-error CODE] [--quiet] [--record [--pixels]] [--dll PATH]\n";
}

struct Recording {
  bool on = false;
  bool pixels = false;
};

// Without session options the program runs the tour of the three cameras.
bool ParseOptions(int argc, char **argv, sim::SessionOptions &options, Recording &recording, std::wstring &modulePath,
                  bool &tour) {
  tour = true;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg != "--dll") tour = false;
    auto value = [&]() -> std::string { return i + 1 < argc ? argv[++i] : std::string(); };
    if (arg == "--camera") {
      options.camera = value();
    } else if (arg == "--streams") {
      std::stringstream list(value());
      std::string item;
      while (std::getline(list, item, ',')) {
        if (!item.empty()) options.streams.push_back(static_cast<DWORD>(std::stoul(item)));
      }
    } else if (arg == "--size") {
      if (std::sscanf(value().c_str(), "%ux%u", &options.width, &options.height) != 2) return false;
    } else if (arg == "--fps") {
      options.fps = static_cast<UINT32>(std::stoul(value()));
    } else if (arg == "--seconds") {
      options.seconds = std::stod(value());
    } else if (arg == "--dll") {
      const std::string path = value();
      if (path.empty()) return false;
      modulePath.assign(path.begin(), path.end());
    } else if (arg == "--fw-error") {
      options.firmwareErrorCode = std::stoi(value());
      if (options.firmwareErrorCode < 0 || options.firmwareErrorCode > 255) return false;
    } else if (arg == "--quiet") {
      options.progress = false;
    } else if (arg == "--record") {
      recording.on = true;
    } else if (arg == "--pixels") {
      recording.pixels = true;
    } else {
      return false;
    }
  }
  return true;
}

}  // namespace

int main(int argc, char **argv) {
  sim::SessionOptions options;
  Recording recording;
  std::wstring modulePath;
  bool tour = true;
  try {
    if (!ParseOptions(argc, argv, options, recording, modulePath, tour)) {
      Usage();
      return 2;
    }
  } catch (const std::exception &) {
    Usage();
    return 2;
  }
  const tools::PlatformScope platform;
  if (!platform.Started()) return 1;
  int exitCode = 0;
  mft_core::DeviceEventsRecorderSettings recordingSettings;
  if (recording.on) {
    recordingSettings.enabled = true;
    recordingSettings.pixelData = recording.pixels;
    recordingSettings.path = mft_core::DeviceEventsRecorderSettings::kDefaultFile;
    if (FAILED(recordingSettings.StoreInRegistry())) {
      std::cerr << "cannot switch the recording on in the registry\n";
      return 1;
    }
  }
  {
    tools::DllTransformFactory factory(modulePath.empty() ? tools::DllTransformFactory::DefaultModulePath()
                                                          : modulePath);
    if (!factory.Load()) {
      std::cerr << factory.Error() << "\n";
      return 1;
    }
    if (tour) {
      exitCode = tools::RunTour(factory, tools::TourOptions(), std::cout);
    } else {
      const sim::SessionResult result = sim::RunSession(options, factory, std::cout);
      std::cout << sim::FormatSummary(result);
      exitCode = SUCCEEDED(result.result) ? 0 : 1;
    }
  }
  if (recording.on) {
    mft_core::DeviceEventsRecorderSettings::RemoveFromRegistry();
    std::cout << "Recorded to c:\\VeldaraLogs\\events.bin\n";
  }
  return exitCode;
}
