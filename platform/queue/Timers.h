#pragma once

// The timers of a run loop, in order of their time. Any thread.

#include <atomic>
#include <chrono>
#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <unordered_map>

#include "platform/queue/Work.h"

namespace platform {

class Timers {
 public:
  using Clock = std::chrono::steady_clock;
  using Token = uint64_t;

  /// The token, and whether the new timer comes before all others.
  std::pair<Token, bool> add(Clock::time_point time, Work work);
  void remove(Token token);
  /// The time of the first timer; Clock::time_point::max() when there is none. Takes no lock.
  Clock::time_point first() const {
    return Clock::time_point(Clock::duration(first_.load(std::memory_order_seq_cst)));
  }
  /// Takes the first timer that is due at `now`; empty work when none is.
  Work takeDue(Clock::time_point now);

 private:
  void noteFirst();

  std::mutex mutex_;
  // Guarded by mutex_.
  std::map<std::pair<Clock::time_point, Token>, Work> timers_;
  std::unordered_map<Token, Clock::time_point> times_;
  Token lastToken_ = 0;

  std::atomic<Clock::rep> first_{Clock::duration::max().count()};
};

}  // namespace platform
