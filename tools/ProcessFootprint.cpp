#include "tools/ProcessFootprint.h"

#include <psapi.h>

namespace tools {

namespace {

// Wine answers GetProcessHandleCount with 0: there the open handles are counted one by one. Handle
// values are multiples of 4 handed out lowest first, so a long run of unused values ends the table.
DWORD HandleCount() {
  DWORD count = 0;
  if (GetProcessHandleCount(GetCurrentProcess(), &count) && count != 0) return count;
  DWORD misses = 0;
  for (ULONG_PTR value = 4; misses < 4096; value += 4) {
    DWORD flags = 0;
    if (GetHandleInformation(reinterpret_cast<HANDLE>(value), &flags)) {
      ++count;
      misses = 0;
    } else {
      ++misses;
    }
  }
  return count;
}

}  // namespace

uint64_t PrivateBytes() {
  PROCESS_MEMORY_COUNTERS_EX counters = {};
  counters.cb = sizeof(counters);
  if (!GetProcessMemoryInfo(GetCurrentProcess(), reinterpret_cast<PROCESS_MEMORY_COUNTERS *>(&counters),
                            sizeof(counters))) {
    return 0;
  }
  // Wine leaves PrivateUsage 0 and reports the charge as PagefileUsage, which Windows keeps equal to it.
  return counters.PrivateUsage != 0 ? counters.PrivateUsage : counters.PagefileUsage;
}

ProcessFootprint MeasureProcess() {
  ProcessFootprint footprint;
  footprint.handles = HandleCount();
  footprint.privateBytes = PrivateBytes();
  FILETIME created, exited, kernel, user;
  if (GetProcessTimes(GetCurrentProcess(), &created, &exited, &kernel, &user)) {
    auto seconds = [](const FILETIME &time) {
      return static_cast<double>((static_cast<uint64_t>(time.dwHighDateTime) << 32) | time.dwLowDateTime) / 1e7;
    };
    footprint.cpuSeconds = seconds(kernel) + seconds(user);
    footprint.kernelSeconds = seconds(kernel);
  }
  return footprint;
}

}  // namespace tools
