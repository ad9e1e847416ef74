// Replays a device events recording against a transform and reports where its behaviour differs.
//   events_replay <events.bin> [--dll <path>] [--class {CLSID}] [--wait-ms N]
// Without --dll the framework's pass-through transform linked into this program stands in, as the
// simulated session makes it. With --dll the module's class factory creates the recorded class (from
// the recording, its transform name, or --class). Exit code: 0 when the run matches, 1 at the first
// divergence (printed with the records before it), 2 for bad options or a recording that cannot be read.
#include <iostream>
#include <string>

#include "device_events/EventsReader.h"
#include "mft_core/recorder/MfValues.h"
#include "platform/WindowsSdk.h"
#include "sim/ReplaySession.h"

using Microsoft::WRL::ComPtr;

namespace {

int Usage() {
  std::cerr << "usage: events_replay <events.bin> [--dll <path>] [--class {CLSID}] [--wait-ms N]\n";
  return 2;
}

// The transforms' class identifiers by their names.
bool ClassByName(const std::string &name, CLSID &clsid) {
  struct Known {
    const char *name;
    const wchar_t *clsid;
  };
  const Known known[] = {{"WQ400 Depth Device MFT", L"{E365CD7E-B3A0-47B2-AA49-E045AA4E77BF}"},
                         {"WQ400 Color Device MFT", L"{5B45BF9D-C4BF-4F8B-81C8-407ABFAAAEA8}"},
                         {"WQ400 FishEye Device MFT", L"{42547A62-2335-4325-83A3-217D4F96594D}"}};
  for (const Known &k : known) {
    if (name == k.name) return SUCCEEDED(CLSIDFromString(k.clsid, &clsid));
  }
  return false;
}

}  // namespace

int main(int argc, char **argv) {
  std::string path, dll;
  std::wstring classText;
  sim::ReplayOptions options;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg == "--dll" && i + 1 < argc) {
      dll = argv[++i];
    } else if (arg == "--class" && i + 1 < argc) {
      const std::string text = argv[++i];
      classText.assign(text.begin(), text.end());
    } else if (arg == "--wait-ms" && i + 1 < argc) {
      options.waitMs = static_cast<DWORD>(std::strtoul(argv[++i], nullptr, 10));
    } else if (path.empty() && !arg.empty() && arg[0] != '-') {
      path = arg;
    } else {
      return Usage();
    }
  }
  if (path.empty()) return Usage();
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

  HMODULE module = nullptr;
  sim::ReplayTransformFactory factory = sim::CreateSimulatedSessionTransform;
  if (!dll.empty()) {
    const std::wstring dllPath(dll.begin(), dll.end());
    module = LoadLibraryW(dllPath.c_str());
    if (module == nullptr) {
      std::cerr << "cannot load " << dll << "\n";
      return 2;
    }
    using GetClassObject = HRESULT(STDAPICALLTYPE *)(REFCLSID, REFIID, void **);
    auto getClassObject = reinterpret_cast<GetClassObject>(reinterpret_cast<void *>(GetProcAddress(module, "DllGetClassObject")));
    if (getClassObject == nullptr) {
      std::cerr << dll << " exports no DllGetClassObject\n";
      return 2;
    }
    factory = [getClassObject, classText](const device_events::FileHeader &header, IMFDeviceTransform **transform) {
      CLSID clsid = mft_core::FromRecorded(header.transformClass);
      if (!classText.empty()) {
        if (FAILED(CLSIDFromString(classText.c_str(), &clsid))) return E_INVALIDARG;
      } else if (clsid == GUID_NULL && !ClassByName(header.transformName, clsid)) {
        std::cerr << "the recording does not name a class of the module: give --class\n";
        return E_INVALIDARG;
      }
      ComPtr<IClassFactory> classFactory;
      HRESULT hr = getClassObject(clsid, IID_PPV_ARGS(&classFactory));
      if (FAILED(hr)) return hr;
      return classFactory->CreateInstance(nullptr, __uuidof(IMFDeviceTransform), reinterpret_cast<void **>(transform));
    };
  }

  int exitCode = 0;
  {
    const sim::ReplayReport report = sim::ReplayRecording(bytes, factory, options);
    if (!report.matched) {
      if (!report.context.empty()) {
        std::cout << "Before it:\n";
        for (const auto &line : report.context) std::cout << "  " << line << "\n";
      }
      std::cout << "First divergence " << report.divergence << "\n";
    }
    std::cout << report.Summary() << "\n";
    exitCode = report.matched ? 0 : 1;
  }
  MFShutdown();
  CoUninitialize();
  return exitCode;
}
