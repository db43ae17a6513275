#pragma once

// How often each text may be written to the log: a bucket for every text, which holds kLogBurst entries and
// is refilled with kLogRate a second. A text that has used its bucket up is left out until a second's worth
// is there again. Texts are format literals, so there are few. Time is handed in. Any thread.

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace platform {

class LogRates {
 public:
  using Clock = std::chrono::steady_clock;
  struct LeftOut {
    std::string text;
    uint64_t count;
  };

  enum class Verdict : uint8_t { written, leftOut, firstLeftOut };
  Verdict admit(std::string_view text, Clock::time_point now);
  /// An entry that was written counts for `more` others.
  void charge(std::string_view text, size_t more);
  /// Takes what was left out of texts that may be written again.
  std::vector<LeftOut> takeLeftOut(Clock::time_point now);
  /// Whether entries of some text are being left out.
  bool isLeavingOut() const { return leavingOut_.load(std::memory_order_relaxed) != 0; }

 private:
  struct Bucket {
    double entries;
    Clock::time_point filled;
    uint64_t leftOut = 0;
  };
  struct Hash {
    using is_transparent = void;
    size_t operator()(std::string_view text) const { return std::hash<std::string_view>()(text); }
  };
  static void refill(Bucket& bucket, Clock::time_point now);

  std::mutex mutex_;
  std::unordered_map<std::string, Bucket, Hash, std::equal_to<>> buckets_;  // guarded by mutex_
  std::atomic<size_t> leavingOut_{0};  // buckets that leave out; changed only under mutex_
};

}  // namespace platform
