// What every program here sets up first and takes down last: tracing as the environment asks, COM
// (multithreaded apartment) and Media Foundation.
#pragma once

#include <cstdio>

#include "platform/WindowsSdk.h"
#include "user_space_frameworks/Trace.h"

namespace tools {

class PlatformScope {
 public:
  PlatformScope()
      : com((user_space_frameworks::trace::ConfigureFromEnvironment(),
             SUCCEEDED(CoInitializeEx(nullptr, COINIT_MULTITHREADED)))),
        mediaFoundation(com && SUCCEEDED(MFStartup(MF_VERSION, MFSTARTUP_FULL))) {
    if (!mediaFoundation) std::fprintf(stderr, "Media Foundation did not start\n");
  }
  ~PlatformScope() {
    if (mediaFoundation) MFShutdown();
    if (com) CoUninitialize();
  }
  PlatformScope(const PlatformScope &) = delete;
  PlatformScope &operator=(const PlatformScope &) = delete;
  bool Started() const { return mediaFoundation; }

 private:
  const bool com;
  const bool mediaFoundation;
};

}  // namespace tools
