// The process's handle count, private memory and CPU time, for leak checks and the soak.
#pragma once

#include <cstdint>
#include <map>

#include "platform/WindowsSdk.h"

namespace tools {

struct ProcessFootprint {
  DWORD handles = 0;
  uint64_t privateBytes = 0;
  double cpuSeconds = 0;     // user and kernel time of every thread so far
  double kernelSeconds = 0;  // of which in the kernel (page faults of fresh frame buffers, waits)
};

ProcessFootprint MeasureProcess();

// User and kernel seconds of each of the process's threads so far, by thread identifier.
struct ThreadTimes {
  double user = 0;
  double kernel = 0;
};
std::map<DWORD, ThreadTimes> MeasureThreads();
// The commit charge alone: cheap, unlike the handle count under Wine.
uint64_t PrivateBytes();

}  // namespace tools
