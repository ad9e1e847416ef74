#pragma once

#include <cstdint>

namespace user_space_frameworks {

// Microseconds of system time for frame-rate measurement, read several times per frame on every
// stream. Where the CPU has an invariant time-stamp counter it is read instead of the system clock
// (a few nanoseconds against tens); its rate is measured once against the performance counter.
class FrameClock {
 public:
  static uint64_t NowUs();
};

}  // namespace user_space_frameworks
