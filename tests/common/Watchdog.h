// Ends the program with a message naming the round when a round outlives its limit: a hang cannot be
// failed from the hung thread, and a stalled program would only stall CI.
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>

namespace test_support {

class RoundWatchdog {
 public:
  RoundWatchdog(std::string what, std::chrono::seconds limit);
  ~RoundWatchdog();
  RoundWatchdog(const RoundWatchdog &) = delete;
  RoundWatchdog &operator=(const RoundWatchdog &) = delete;
  void BeginRound(const std::string &round);
  void Phase(const char *phase);  // what the round is doing now, for the message

 private:
  void Run();
  std::string what;
  std::chrono::seconds limit;
  std::mutex mutex;
  std::condition_variable wake;
  std::string round = "before the first round";
  const char *phase = "";
  std::chrono::steady_clock::time_point started = std::chrono::steady_clock::now();
  bool done = false;
  std::thread thread;
};

}  // namespace test_support
