#include "platform/queue/Timers.h"

namespace platform {

void Timers::noteFirst() {
  const Clock::time_point time = timers_.empty() ? Clock::time_point::max() : timers_.begin()->first.first;
  first_.store(time.time_since_epoch().count(), std::memory_order_seq_cst);
}

std::pair<Timers::Token, bool> Timers::add(Clock::time_point time, Work work) {
  const std::lock_guard lock(mutex_);
  const Token token = ++lastToken_;
  const auto place = timers_.emplace(std::pair(time, token), std::move(work)).first;
  times_.emplace(token, time);
  noteFirst();
  return {token, place == timers_.begin()};
}

void Timers::remove(Token token) {
  Work dropped;  // what it captured goes after the lock
  const std::lock_guard lock(mutex_);
  const auto time = times_.find(token);
  if (time == times_.end()) return;
  const auto timer = timers_.find(std::pair(time->second, token));
  dropped = std::move(timer->second);
  timers_.erase(timer);
  times_.erase(time);
  noteFirst();
}

Work Timers::takeDue(Clock::time_point now) {
  const std::lock_guard lock(mutex_);
  if (timers_.empty() || timers_.begin()->first.first > now) return {};
  Work work = std::move(timers_.begin()->second);
  times_.erase(timers_.begin()->first.second);
  timers_.erase(timers_.begin());
  noteFirst();
  return work;
}

}  // namespace platform
