#include "tools/ProcessFootprint.h"

#include <psapi.h>
#include <tlhelp32.h>

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

double Seconds(const FILETIME &time) {
  return static_cast<double>((static_cast<uint64_t>(time.dwHighDateTime) << 32) | time.dwLowDateTime) / 1e7;
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
    footprint.cpuSeconds = Seconds(kernel) + Seconds(user);
    footprint.kernelSeconds = Seconds(kernel);
  }
  return footprint;
}

std::map<DWORD, ThreadTimes> MeasureThreads() {
  std::map<DWORD, ThreadTimes> times;
  HANDLE snapshot = CreateToolhelp32Snapshot(TH32CS_SNAPTHREAD, 0);
  if (snapshot == INVALID_HANDLE_VALUE) return times;
  THREADENTRY32 entry = {};
  entry.dwSize = sizeof(entry);
  const DWORD process = GetCurrentProcessId();
  for (BOOL more = Thread32First(snapshot, &entry); more; more = Thread32Next(snapshot, &entry)) {
    if (entry.th32OwnerProcessID != process) continue;
    HANDLE thread = OpenThread(THREAD_QUERY_LIMITED_INFORMATION, FALSE, entry.th32ThreadID);
    if (thread == nullptr) continue;
    FILETIME created, exited, kernel, user;
    if (GetThreadTimes(thread, &created, &exited, &kernel, &user)) {
      times[entry.th32ThreadID] = {Seconds(user), Seconds(kernel)};
    }
    CloseHandle(thread);
  }
  CloseHandle(snapshot);
  return times;
}

}  // namespace tools
