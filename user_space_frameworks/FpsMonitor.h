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

  // A change worth a camera engineer's attention, relative to the reported rate: large enough that a
  // stream pulled in bursts (a transform whose streams the frame server pulls together in one call) does
  // not swing across it as whole bursts enter and leave the 32-interval average.
  static constexpr double kThresholdFraction = 0.1;
  static constexpr double kMinimumThreshold = 0.5;

  FpsMonitor(std::string name, uint64_t reportPeriodMs, double fps);

  // Re-initialises for a nominal rate, with a threshold that follows the reported rate; throws
  // std::invalid_argument("FPS must be > 0") for 0.
  void Reset(double fps);
  void OnSample(uint64_t timeUs);

  void SetCallback(std::shared_ptr<ChangeCallback> callback) { this->callback = std::move(callback); }
  // A fixed threshold, whatever the reported rate (until the next Reset).
  void SetThreshold(double value) {
    threshold = value;
    thresholdFraction = 0;
  }
  double GetThreshold() const { return threshold; }
  double GetCurrentFps() const { return currentFps; }
  double GetMeasuredFps() const;
  const std::string &GetName() const { return name; }
  const char *GetTraceName() const override { return name.c_str(); }

 private:
  void Notify();
  void FollowReportedRate();

  std::string name;
  uint64_t reportPeriod;
  double nominalFps;
  uint64_t nextReportTime = 0;
  double threshold = 0;
  double thresholdFraction = 0;  // of the reported rate; 0 for a fixed threshold
  double currentFps = 0;
  uint64_t lastTimestamp = 0;
  bool isFirstSample = true;
  RollingAverage<uint64_t, 32> intervals;
  std::shared_ptr<ChangeCallback> callback;
};

}  // namespace user_space_frameworks
