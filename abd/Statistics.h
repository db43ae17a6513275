#pragma once

// What the daemon counts of the requests that it serves, for "status" of the diagnostics service. Counting is
// an increment or two per request: no lock, nothing is allocated. Only on the service queue.

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>

namespace abd {

/// Times as a histogram of fixed size whose steps grow with the times: eight in each power of two.
class Latencies {
 public:
  void add(std::chrono::nanoseconds time);
  uint64_t count() const { return count_; }
  /// Their sum.
  std::chrono::nanoseconds total() const { return total_; }
  /// The time that `part` (0 to 1) of them took at most, an eighth too long at most; 0 when there are none.
  std::chrono::nanoseconds quantile(double part) const;

 private:
  static constexpr int kStepBits = 3;
  static constexpr int kLongest = 40;  // bits of nanoseconds, 18 minutes; what is longer counts as this long
  static constexpr size_t kSteps = size_t{kLongest - kStepBits + 1} << kStepBits;
  static size_t stepOf(uint64_t nanoseconds);
  static uint64_t endOf(size_t step);

  uint64_t count_ = 0;
  std::chrono::nanoseconds total_{0};
  std::array<uint64_t, kSteps> steps_{};
};

struct Statistics {
  using Clock = std::chrono::steady_clock;
  /// Requests of one name that came to their end, from their first turn to their reply; turns that others had
  /// meanwhile are included.
  struct Requests {
    Latencies latencies;
    uint64_t failed = 0;
  };
  static constexpr size_t kMostNames = 16;

  const Clock::time_point started = Clock::now();
  std::array<Requests, kMostNames> requests;  // the transaction's table gives the names
};

}  // namespace abd
