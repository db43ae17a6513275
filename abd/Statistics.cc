#include "abd/Statistics.h"

#include <algorithm>
#include <bit>
#include <cmath>

namespace abd {

/// The leading bit and the kStepBits bits behind it tell the step; times of no more bits have a step each.
size_t Latencies::stepOf(uint64_t nanoseconds) {
  const uint64_t time = std::min(nanoseconds, (uint64_t{1} << kLongest) - 1);
  const int dropped = std::max(static_cast<int>(std::bit_width(time)) - kStepBits - 1, 0);
  return (static_cast<size_t>(dropped) << kStepBits) + (time >> dropped);
}

/// The longest time of the step.
uint64_t Latencies::endOf(size_t step) {
  constexpr size_t kPerPower = size_t{1} << kStepBits;
  if (step < 2 * kPerPower) return step;
  return ((step % kPerPower + kPerPower + 1) << (step / kPerPower - 1)) - 1;
}

void Latencies::add(std::chrono::nanoseconds time) {
  ++count_;
  total_ += time;
  ++steps_[stepOf(static_cast<uint64_t>(std::max<int64_t>(time.count(), 0)))];
}

std::chrono::nanoseconds Latencies::quantile(double part) const {
  const auto rank = static_cast<uint64_t>(std::ceil(part * static_cast<double>(count_)));
  uint64_t before = 0;
  size_t step = 0;
  while (step < kSteps - 1 && (before += steps_[step]) < rank) ++step;
  return std::chrono::nanoseconds(endOf(step));
}

}  // namespace abd
