// Latencies in microseconds, counted in 1 us buckets up to 20 ms (and the largest seen), so that a
// long run measures its percentiles without allocating as it goes.
#pragma once

#include <algorithm>
#include <cstdint>
#include <vector>

namespace sim {

class LatencyHistogram {
 public:
  static constexpr uint32_t kBuckets = 20000;

  LatencyHistogram() : buckets(kBuckets + 1, 0) {}

  // `when`: the clock reading the value was taken at, kept for the largest (to line a stall up with
  // what else happened then).
  void Add(int64_t microseconds, int64_t when = 0) {
    const uint64_t value = microseconds < 0 ? 0 : static_cast<uint64_t>(microseconds);
    ++buckets[std::min<uint64_t>(value, kBuckets)];
    if (value >= largest) {
      largest = value;
      largestAt = when;
    }
    ++count;
  }
  void Clear() {
    std::fill(buckets.begin(), buckets.end(), 0);
    largest = 0;
    largestAt = 0;
    count = 0;
  }
  uint64_t Count() const { return count; }
  uint64_t Max() const { return largest; }
  int64_t MaxAt() const { return largestAt; }
  // The smallest latency that `fraction` of the values do not exceed (the last bucket: the largest).
  uint64_t Percentile(double fraction) const {
    if (count == 0) return 0;
    const auto wanted = static_cast<uint64_t>(fraction * static_cast<double>(count) + 0.999999);
    uint64_t seen = 0;
    for (uint32_t bucket = 0; bucket < kBuckets; ++bucket) {
      seen += buckets[bucket];
      if (seen >= std::max<uint64_t>(1, wanted)) return bucket;
    }
    return largest;
  }

 private:
  std::vector<uint64_t> buckets;
  uint64_t largest = 0;
  int64_t largestAt = 0;
  uint64_t count = 0;
};

}  // namespace sim
