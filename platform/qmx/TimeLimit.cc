#include "platform/qmx/TimeLimit.h"

#include <utility>

namespace platform::qmx {

TimeLimit::TimeLimit(RunLoop& loop, std::chrono::nanoseconds limit, std::function<void()> expired)
    : loop_(loop), limit_(limit), expired_(std::move(expired)) {}

TimeLimit::~TimeLimit() {
  if (timer_ != 0) loop_.cancel(timer_);
}

void TimeLimit::start() {
  begun_ = loop_.listeningTime();
  if (timer_ == 0) setTimer(limit_);
}

void TimeLimit::setTimer(std::chrono::nanoseconds delay) {
  timer_ = loop_.after(delay, [this] { fire(); });
}

void TimeLimit::fire() {
  timer_ = 0;
  if (!begun_) return;
  const std::chrono::nanoseconds left = limit_ - (loop_.listeningTime() - *begun_);
  if (left.count() > 0) {
    setTimer(left);
    return;
  }
  begun_.reset();
  const std::function<void()> expired = expired_;
  expired();
}

}  // namespace platform::qmx
