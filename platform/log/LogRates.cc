#include "platform/log/LogRates.h"

#include <algorithm>
#include <utility>

#include "platform/log/Log.h"

namespace platform {

void LogRates::refill(Bucket& bucket, Clock::time_point now) {
  const double seconds = std::chrono::duration<double>(now - bucket.filled).count();
  if (seconds <= 0) return;
  bucket.entries = std::min<double>(kLogBurst, bucket.entries + seconds * kLogRate);
  bucket.filled = now;
}

LogRates::Verdict LogRates::admit(std::string_view text, Clock::time_point now) {
  const std::lock_guard lock(mutex_);
  auto found = buckets_.find(text);
  if (found == buckets_.end())
    found = buckets_.emplace(text, Bucket{.entries = kLogBurst, .filled = now}).first;
  Bucket& bucket = found->second;
  if (bucket.leftOut > 0) {
    ++bucket.leftOut;
    return Verdict::leftOut;
  }
  refill(bucket, now);
  if (bucket.entries >= 1) {
    bucket.entries -= 1;
    return Verdict::written;
  }
  bucket.leftOut = 1;
  return leavingOut_.fetch_add(1, std::memory_order_relaxed) == 0 ? Verdict::firstLeftOut : Verdict::leftOut;
}

void LogRates::charge(std::string_view text, size_t more) {
  const std::lock_guard lock(mutex_);
  if (const auto found = buckets_.find(text); found != buckets_.end())
    found->second.entries -= static_cast<double>(more);
}

std::vector<LogRates::LeftOut> LogRates::takeLeftOut(Clock::time_point now) {
  std::vector<LeftOut> taken;
  const std::lock_guard lock(mutex_);
  for (auto& [text, bucket] : buckets_) {
    if (bucket.leftOut == 0) continue;
    refill(bucket, now);
    if (bucket.entries < kLogRate) continue;
    taken.push_back({text, std::exchange(bucket.leftOut, 0)});
    leavingOut_.fetch_sub(1, std::memory_order_relaxed);
  }
  return taken;
}

}  // namespace platform
