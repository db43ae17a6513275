#pragma once

// A limit on something that a peer has to do in time, counted on the loop's listening clock. Restarting is
// cheap: the timer behind it is set at most once per period. Only on the loop's thread.

#include <chrono>
#include <functional>
#include <optional>

#include "platform/queue/RunLoop.h"

namespace platform::qmx {

class TimeLimit {
 public:
  /// `expired` is called once each time that `limit` passes after start() without stop() or another start();
  /// it may destroy this object.
  TimeLimit(RunLoop& loop, std::chrono::nanoseconds limit, std::function<void()> expired);
  ~TimeLimit();
  TimeLimit(const TimeLimit&) = delete;
  TimeLimit& operator=(const TimeLimit&) = delete;

  void start();
  void stop() { begun_.reset(); }
  bool isRunning() const { return begun_.has_value(); }

 private:
  void setTimer(std::chrono::nanoseconds delay);
  void fire();

  RunLoop& loop_;
  const std::chrono::nanoseconds limit_;
  const std::function<void()> expired_;
  std::optional<std::chrono::nanoseconds> begun_;
  /// 0: no timer is set.
  RunLoop::TimerToken timer_ = 0;
};

}  // namespace platform::qmx
