// Measures a stream's frame rate from sample arrival times and tells its owner when the rate moves by
// more than `threshold`, or every `reportPeriod` milliseconds.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "user_space_frameworks/Callback.h"
#include "user_space_frameworks/Object.h"
#include "user_space_frameworks/RollingAverage.h"

namespace user_space_frameworks {

class FpsMonitor : public Object {
 public:
  using ChangeCallback = ICallback<const FpsMonitor &, void>;

  static constexpr double kThresholdFraction = 0.05;
  static constexpr double kMinimumThreshold = 0.5;

  FpsMonitor(std::string name, uint64_t reportPeriodMs, double fps);

  // Re-initialises for a nominal rate and sets the threshold from it; throws
  // std::invalid_argument("FPS must be > 0") for 0.
  void Reset(double fps);
  void OnSample(uint64_t timeUs);

  void SetCallback(std::shared_ptr<ChangeCallback> callback) { this->callback = std::move(callback); }
  void SetThreshold(double value) { threshold = value; }
  double GetThreshold() const { return threshold; }
  double GetCurrentFps() const { return currentFps; }
  double GetMeasuredFps() const;
  const std::string &GetName() const { return name; }
  const char *GetTraceName() const override { return name.c_str(); }

 private:
  void Notify();

  std::string name;
  uint64_t reportPeriod;
  double nominalFps;
  uint64_t nextReportTime = 0;
  double threshold = 0;
  double currentFps = 0;
  uint64_t lastTimestamp = 0;
  bool isFirstSample = true;
  RollingAverage<uint64_t, 32> intervals;
  std::shared_ptr<ChangeCallback> callback;
};

}  // namespace user_space_frameworks
