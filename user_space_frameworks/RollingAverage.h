#pragma once

#include <array>
#include <cstddef>

namespace user_space_frameworks {

// Average of the last N values added; before N values it averages those added so far (0 when none).
template <typename T, size_t N>
class RollingAverage {
  static_assert(N > 0, "a window of at least one value");

 public:
  void Add(T value) {
    sum -= values[next];
    values[next] = value;
    sum += value;
    next = (next + 1) % N;
    if (count < N) ++count;
  }
  // Once the window is full the divisor is the constant N (a shift for the frame monitors' 32): the
  // frame path asks for the average with every sample.
  T Average() const {
    if (count == N) return static_cast<T>(sum / static_cast<T>(N));
    return count == 0 ? T() : static_cast<T>(sum / static_cast<T>(count));
  }
  size_t Count() const { return count; }
  void Clear() { *this = RollingAverage(); }

 private:
  std::array<T, N> values{};
  T sum{};
  size_t next = 0;
  size_t count = 0;
};

}  // namespace user_space_frameworks
