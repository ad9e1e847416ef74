// COM and Media Foundation for the lifetime of a benchmark's main.
#pragma once

#include <cstdio>

#include "platform/WindowsSdk.h"

namespace bench {

class MediaFoundationSession {
 public:
  MediaFoundationSession() {
    com = SUCCEEDED(CoInitializeEx(nullptr, COINIT_MULTITHREADED));
    mf = com && SUCCEEDED(MFStartup(MF_VERSION, MFSTARTUP_FULL));
    if (!mf) std::fprintf(stderr, "Media Foundation did not start\n");
  }
  ~MediaFoundationSession() {
    if (mf) MFShutdown();
    if (com) CoUninitialize();
  }
  MediaFoundationSession(const MediaFoundationSession &) = delete;
  MediaFoundationSession &operator=(const MediaFoundationSession &) = delete;

  bool Started() const { return mf; }

 private:
  bool com = false;
  bool mf = false;
};

}  // namespace bench
