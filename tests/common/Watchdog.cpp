#include "common/Watchdog.h"

#include <cstdio>

#include "platform/WindowsSdk.h"

namespace test_support {

RoundWatchdog::RoundWatchdog(std::string what, std::chrono::seconds limit)
    : what(std::move(what)), limit(limit), thread([this] { Run(); }) {}

RoundWatchdog::~RoundWatchdog() {
  {
    std::lock_guard<std::mutex> lock(mutex);
    done = true;
  }
  wake.notify_all();
  thread.join();
}

void RoundWatchdog::BeginRound(const std::string &name) {
  std::lock_guard<std::mutex> lock(mutex);
  round = name;
  phase = "";
  started = std::chrono::steady_clock::now();
}

void RoundWatchdog::Phase(const char *name) {
  std::lock_guard<std::mutex> lock(mutex);
  phase = name;
}

void RoundWatchdog::Run() {
  std::unique_lock<std::mutex> lock(mutex);
  while (!wake.wait_for(lock, std::chrono::milliseconds(200), [this] { return done; })) {
    if (std::chrono::steady_clock::now() - started > limit) {
      std::fprintf(stderr, "FAILED: %s, %s did not end within %lld s (%s)\n", what.c_str(), round.c_str(),
                   static_cast<long long>(limit.count()), phase);
      std::fflush(stderr);
      TerminateProcess(GetCurrentProcess(), 3);
    }
  }
}

}  // namespace test_support
