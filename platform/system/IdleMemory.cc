#include "platform/system/IdleMemory.h"

#include <malloc.h>

#include <atomic>
#include <chrono>

#include "platform/queue/RunLoop.h"

namespace platform {

namespace {

constexpr size_t kWorthLooking = 16u << 20;
constexpr std::chrono::seconds kDelay{4};

}  // namespace

void noteFreedMemory(size_t bytes) {
  static std::atomic<size_t> freed{0};
  static std::atomic<bool> isPlanned{false};
  if (freed.fetch_add(bytes, std::memory_order_relaxed) + bytes < kWorthLooking) return;
  if (isPlanned.exchange(true, std::memory_order_relaxed)) return;
  RunLoop::background().after(kDelay, [] {
    freed.store(0, std::memory_order_relaxed);
    isPlanned.store(false, std::memory_order_relaxed);
    malloc_trim(0);
  });
}

}  // namespace platform
