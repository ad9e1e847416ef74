// The DLL under test as a Windows program sees its path: WQ400_MODULE_FILE from the environment when
// set (the test command points it at the release build's DLL for a second run of the DLL-level suites),
// else the one this build made, WQ_MODULE_FILE (defined by the test target).
#pragma once

#include <cstdio>
#include <cstdlib>
#include <string>

#include "tools/DllTransformFactory.h"

namespace test_module {

inline std::wstring BuiltModulePath() {
  const char *chosen = std::getenv("WQ400_MODULE_FILE");
  std::string path = chosen != nullptr && *chosen != '\0' ? chosen : WQ_MODULE_FILE;
  if (!path.empty() && path[0] == '/') path = "Z:" + path;  // the build tree through Wine's root drive
  for (char &c : path) {
    if (c == '/') c = '\\';
  }
  return std::wstring(path.begin(), path.end());
}

// The built DLL, loaded once and kept for the whole program as the frame server's process keeps it
// (never unloaded: transforms' late work items may still run inside it at process exit). A DLL that
// cannot be loaded ends the program.
inline tools::DllTransformFactory &KeptModule() {
  static tools::DllTransformFactory *const module = [] {
    auto *factory = new tools::DllTransformFactory(BuiltModulePath());
    if (!factory->Load()) {
      std::fprintf(stderr, "%s\n", factory->Error().c_str());
      std::abort();
    }
    return factory;
  }();
  return *module;
}

}  // namespace test_module
