#include "user_space_frameworks/FpsMonitor.h"

#include "user_space_frameworks/TraceScope.h"

#include <algorithm>
#include <cmath>
#include <stdexcept>

namespace user_space_frameworks {

FpsMonitor::FpsMonitor(std::string name, uint64_t reportPeriodMs, double fps)
    : name(std::move(name)), reportPeriod(reportPeriodMs), nominalFps(fps) {}

void FpsMonitor::Reset(double fps) {
  WQ_SCOPE();
  if (!(fps > 0)) throw std::invalid_argument("FPS must be > 0");
  nominalFps = fps;
  currentFps = fps;
  thresholdFraction = kThresholdFraction;
  FollowReportedRate();
  isFirstSample = true;
  lastTimestamp = 0;
  nextReportTime = 0;
  intervals.Clear();
}

double FpsMonitor::GetMeasuredFps() const {
  WQ_SCOPE();
  const uint64_t average = intervals.Average();
  return average == 0 ? 0.0 : 1000000.0 / static_cast<double>(average);
}

// A real change is reported at once and followed in steps of a tenth of the rate reported so far.
void FpsMonitor::FollowReportedRate() {
  if (thresholdFraction > 0) threshold = std::max(kMinimumThreshold, currentFps * thresholdFraction);
}

void FpsMonitor::Notify() {
  if (callback) callback->Invoke(*this);
}

void FpsMonitor::OnSample(uint64_t timeUs) {
  WQ_SCOPE();
  const uint64_t nowMs = timeUs / 1000;
  if (isFirstSample) {
    lastTimestamp = timeUs;
    isFirstSample = false;
    nextReportTime = nowMs + reportPeriod;
    return;
  }
  if (timeUs < lastTimestamp) {
    // The clock stepped back: no interval can be measured across it, so measuring starts again here.
    lastTimestamp = timeUs;
    return;
  }
  intervals.Add(timeUs - lastTimestamp);
  lastTimestamp = timeUs;
  const double measured = GetMeasuredFps();
  if (std::fabs(currentFps - measured) > threshold) {
    nextReportTime += reportPeriod;
    Notify();
    currentFps += measured > currentFps ? threshold : -threshold;
    FollowReportedRate();
    return;
  }
  if (reportPeriod != 0 && nowMs >= nextReportTime) {
    nextReportTime += reportPeriod;
    Notify();
  }
}

}  // namespace user_space_frameworks
