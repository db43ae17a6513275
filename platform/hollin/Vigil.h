#pragma once

// What was seen of the disk once and is known to be so still, because somebody watches. A place that is
// watched as a whole (an entry of an "Applications" directory, a bundle registered by path) has one vigil. It
// ends with the first sign that something happens there, and the next begins when the scan which that leads
// to has renewed the watches. What is seen during a vigil holds as long as it lasts; without one everything
// is looked at each time. So nothing is trusted while somebody writes, and nothing is asked while nobody
// does.

#include <atomic>
#include <cstdint>
#include <optional>

#include "platform/security/Sandbox.h"

namespace platform::hollin {

/// Begun and ended by the monitor's thread; asked by any.
class Vigil {
 public:
  /// The number of the vigil, never the same again; 0 while there is none. Asked before looking at the disk.
  uint64_t number() const { return number_.load(std::memory_order_acquire); }
  void begin() { number_.store(++last_, std::memory_order_release); }
  void end() { number_.store(0, std::memory_order_release); }

 private:
  std::atomic<uint64_t> number_{0};
  uint64_t last_ = 0;
};

/// Something that is so or not. Any thread.
class SeenAnswer {
 public:
  /// As it was seen during the vigil, or as `look` says now.
  template <typename Look>
  bool get(const Vigil& vigil, const Look& look) {
    const uint64_t number = vigil.number();
    const uint64_t seen = seen_.load(std::memory_order_relaxed);
    if (number != 0 && seen >> 1 == number) return (seen & 1) != 0;
    const bool answer = look();
    if (number != 0) seen_.store(number << 1 | static_cast<uint64_t>(answer), std::memory_order_relaxed);
    return answer;
  }

 private:
  std::atomic<uint64_t> seen_{0};  // in which vigil, and the answer
};

/// Where a file lies. Any thread; nobody waits.
class SeenPlace {
 public:
  /// As it was seen during the vigil, or as `look` says now; only what is there is kept.
  template <typename Look>
  std::optional<FilePlace> get(const Vigil& vigil, const Look& look) {
    const uint64_t number = vigil.number();
    if (const auto known = during(number)) return known;
    const std::optional<FilePlace> place = look();
    if (number != 0 && place) keep(number, *place);
    return place;
  }

 private:
  static constexpr uint64_t kChanging = UINT64_MAX;

  std::optional<FilePlace> during(uint64_t number) const {
    if (number == 0 || seen_.load(std::memory_order_acquire) != number) return std::nullopt;
    const FilePlace place{device_.load(std::memory_order_acquire), inode_.load(std::memory_order_acquire)};
    // Nobody changed it in between.
    return seen_.load(std::memory_order_relaxed) == number ? std::optional(place) : std::nullopt;
  }
  void keep(uint64_t number, const FilePlace& place) {
    uint64_t before = seen_.load(std::memory_order_relaxed);
    if (before == kChanging || !seen_.compare_exchange_strong(before, kChanging, std::memory_order_acquire))
      return;  // somebody else keeps what he saw
    device_.store(place.device, std::memory_order_release);
    inode_.store(place.inode, std::memory_order_release);
    seen_.store(number, std::memory_order_release);
  }

  std::atomic<uint64_t> seen_{0};  // in which vigil
  std::atomic<uint64_t> device_{0}, inode_{0};
};

}  // namespace platform::hollin
