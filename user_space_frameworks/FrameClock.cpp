#include "user_space_frameworks/FrameClock.h"

#include <cmath>

#include "platform/WindowsSdk.h"

#if defined(_M_X64) || defined(__x86_64__)
#include <intrin.h>
#define WQ_HAVE_TSC 1
#endif

namespace user_space_frameworks {
namespace {

uint64_t SystemTimeUs() {
  FILETIME now;
  GetSystemTimePreciseAsFileTime(&now);
  return ((static_cast<uint64_t>(now.dwHighDateTime) << 32) | now.dwLowDateTime) / 10;
}

#if WQ_HAVE_TSC
struct TscScale {
  bool usable = false;
  uint64_t baseTicks = 0;
  uint64_t baseUs = 0;
  // Microseconds per tick as a 0.64 fixed-point fraction: one integer multiply per read instead of
  // conversions to and from double.
  uint64_t usPerTickFraction = 0;
};

// The upper 64 bits of a * b.
uint64_t HighProduct(uint64_t a, uint64_t b) {
#if defined(_MSC_VER)
  return __umulh(a, b);
#else
  return static_cast<uint64_t>((static_cast<unsigned __int128>(a) * b) >> 64);
#endif
}

bool HasInvariantTsc() {
  int registers[4] = {};
  __cpuid(registers, static_cast<int>(0x80000000u));
  if (static_cast<unsigned>(registers[0]) < 0x80000007u) return false;
  __cpuid(registers, static_cast<int>(0x80000007u));
  return (registers[3] & (1 << 8)) != 0;
}

// About 2 ms against the performance counter: well under a frame, and a rate error of a few parts in
// a million.
TscScale Calibrate() {
  TscScale scale;
  LARGE_INTEGER frequency, start, end;
  if (!HasInvariantTsc() || !QueryPerformanceFrequency(&frequency) || frequency.QuadPart <= 0) return scale;
  QueryPerformanceCounter(&start);
  const uint64_t startTicks = __rdtsc();
  do {
    QueryPerformanceCounter(&end);
  } while (end.QuadPart - start.QuadPart < frequency.QuadPart / 500);
  const uint64_t endTicks = __rdtsc();
  if (endTicks <= startTicks) return scale;
  const double elapsedUs = static_cast<double>(end.QuadPart - start.QuadPart) * 1e6 / static_cast<double>(frequency.QuadPart);
  const double usPerTick = elapsedUs / static_cast<double>(endTicks - startTicks);
  // The fraction holds less than a microsecond per tick; a counter under 1 MHz uses the system clock.
  if (!(usPerTick > 0 && usPerTick < 1)) return scale;
  scale.usPerTickFraction = static_cast<uint64_t>(std::ldexp(usPerTick, 64));
  scale.baseUs = SystemTimeUs();
  scale.baseTicks = __rdtsc();
  scale.usable = true;
  return scale;
}
#endif

}  // namespace

uint64_t FrameClock::NowUs() {
#if WQ_HAVE_TSC
  static const TscScale scale = Calibrate();
  if (scale.usable) {
    return scale.baseUs + HighProduct(__rdtsc() - scale.baseTicks, scale.usPerTickFraction);
  }
#endif
  return SystemTimeUs();
}

}  // namespace user_space_frameworks
