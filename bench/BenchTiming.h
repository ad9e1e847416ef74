// Timing shared by the benchmarks: a measured step and its baseline run in interleaved rounds of one
// process, so that machine noise falls on both alike, and the medians of the rounds are compared. On a
// shared machine keep rounds short (well under a scheduler time slice, a few hundred microseconds) and
// many: a preempted round then lands in the tail instead of moving the median.
#pragma once

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <vector>

namespace bench {

inline double NowNs() {
  return std::chrono::duration<double, std::nano>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

inline double Median(std::vector<double> values) {
  if (values.empty()) return 0;
  std::sort(values.begin(), values.end());
  const size_t middle = values.size() / 2;
  return values.size() % 2 != 0 ? values[middle] : 0.5 * (values[middle - 1] + values[middle]);
}

// Nanoseconds per step over `batch` steps.
template <typename Step>
double MeasureRound(int batch, Step &&step) {
  const double start = NowNs();
  for (int i = 0; i < batch; ++i) step();
  return (NowNs() - start) / batch;
}

struct Plan {
  int rounds = 21;
  int batch = 1000;
  int warmupRounds = 1;
};

struct Comparison {
  double medianNs = 0;
  double baselineNs = 0;
  double Ratio() const { return baselineNs > 0 ? medianNs / baselineNs : 0; }
};

struct NoPause {
  void operator()() const {}
};

// Warms both up, then alternates a round of each; `pause` runs after every measured pair.
template <typename Measured, typename Baseline, typename Pause = NoPause>
Comparison Compare(const Plan &plan, Measured &&measured, Baseline &&baseline, Pause &&pause = Pause()) {
  for (int i = 0; i < plan.warmupRounds; ++i) {
    MeasureRound(plan.batch, measured);
    MeasureRound(plan.batch, baseline);
  }
  std::vector<double> measuredNs, baselineNs;
  for (int round = 0; round < plan.rounds; ++round) {
    measuredNs.push_back(MeasureRound(plan.batch, measured));
    baselineNs.push_back(MeasureRound(plan.batch, baseline));
    pause();
  }
  return {Median(measuredNs), Median(baselineNs)};
}

enum class Unit { Nanoseconds, Microseconds };

// The summary line every benchmark ends with.
inline void Print(const char *name, const Comparison &result, Unit unit = Unit::Nanoseconds) {
  if (unit == Unit::Microseconds) {
    std::printf("BENCH %s: median %.3f us, baseline %.3f us, ratio %.2f\n", name, result.medianNs / 1000,
                result.baselineNs / 1000, result.Ratio());
  } else {
    std::printf("BENCH %s: median %.0f ns, baseline %.0f ns, ratio %.2f\n", name, result.medianNs, result.baselineNs,
                result.Ratio());
  }
  std::fflush(stdout);
}

}  // namespace bench
