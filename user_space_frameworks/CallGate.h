// Counts the calls running inside an object so that its shutdown can refuse new calls and then wait for
// the ones already inside before it releases what they use. A call holds a CallGate::Pass for its whole
// body; once the gate is closed, a new pass is refused. Passing costs two atomic operations (it sits on
// every frame); only a call that leaves a closed gate touches the mutex, to wake the shutdown.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <mutex>

namespace user_space_frameworks {

class CallGate {
 public:
  class Pass {
   public:
    explicit Pass(CallGate &gate) : gate(gate), admitted(gate.Enter()) {}
    ~Pass() {
      if (admitted) gate.Leave();
    }
    Pass(const Pass &) = delete;
    Pass &operator=(const Pass &) = delete;
    // False when the gate was already closed: the call must not touch what shutdown releases.
    bool Admitted() const { return admitted; }

   private:
    CallGate &gate;
    const bool admitted;
  };

  // Refuses every later pass. Only the first caller gets true: it owns the shutdown.
  bool Close() { return (state.fetch_or(kClosed, std::memory_order_acq_rel) & kClosed) == 0; }
  bool IsClosed() const { return (state.load(std::memory_order_acquire) & kClosed) != 0; }
  // Waits until no pass is out but the `own` ones the caller itself holds. Calls inside may block in
  // their own documented waits; whoever closes the gate wakes those first.
  void Drain(uint64_t own) {
    std::unique_lock<std::mutex> lock(mutex);
    drained.wait(lock, [&] { return Inside() <= own; });
  }
  uint64_t Inside() const { return state.load(std::memory_order_acquire) & ~kClosed; }

 private:
  static constexpr uint64_t kClosed = uint64_t(1) << 63;

  bool Enter() {
    if ((state.fetch_add(1, std::memory_order_acq_rel) & kClosed) == 0) return true;
    Leave();
    return false;
  }
  void Leave() {
    if ((state.fetch_sub(1, std::memory_order_acq_rel) & kClosed) == 0) return;
    // Taking the mutex orders this wake-up after a Drain that is about to wait.
    std::lock_guard<std::mutex> lock(mutex);
    drained.notify_all();
  }

  std::atomic<uint64_t> state{0};
  std::mutex mutex;
  std::condition_variable drained;
};

}  // namespace user_space_frameworks
