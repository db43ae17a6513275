#pragma once

// The inside of a serial queue, shared with the run loop that drains it; lives as long as either refers to
// it.
//
// The turn is the right to run a piece of the queue's work. `state` tells whether somebody has it (kBusy) and
// whether somebody waits (kQueued). While nobody waits, taking and giving back the turn is one compare and
// exchange each. kQueued is set only under the mutex, and while it is set the turn changes hands only under
// the mutex:
// - kQueued is set exactly while `items` is not empty (and once more when the queue is being destroyed).
// - When nobody has the turn, the first item is asynchronous: a waiting thread is given the turn by whoever
//   gives it back. Such a queue is enlisted with its loop.

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>

#include "platform/queue/Fifo.h"
#include "platform/queue/SerialQueue.h"

namespace platform {

struct SerialQueue::Implementation : std::enable_shared_from_this<SerialQueue::Implementation> {
  static constexpr uint32_t kBusy = 1, kQueued = 2;

  /// A thread that waits inside sync().
  struct Waiter {
    std::condition_variable condition;
    bool isGranted = false;
  };
  /// Asynchronous work, or a place in the order for a waiting thread.
  struct Item {
    Work work;
    Waiter* waiter = nullptr;
  };

  Implementation(const char* label_, RunLoop& loop_, QualityOfService quality_)
      : label(label_), loop(loop_), quality(quality_) {}

  void async(Work work);
  /// The turn when it is not free for the taking.
  void enterSlowly();
  void leave();
  /// One piece of asynchronous work, on the loop's thread.
  void runFromLoop();
  /// Nobody runs the loop any more: threads that waited for it help themselves.
  void loopStopped();
  void close();

  bool isCurrent() const;

  const char* const label;
  RunLoop& loop;
  const QualityOfService quality;

  std::atomic<uint32_t> state{0};
  /// Names the thread that has the turn.
  std::atomic<const void*> owner{nullptr};

 private:
  friend class SerialQueue::Entry;
  void runFront(std::unique_lock<std::mutex>& lock);
  void handOver();
  void wakeWaiters();
  void enlistWithLoop();
  bool mayRunHere() const;

  std::mutex mutex_;
  // Guarded by mutex_.
  Fifo<Item> items_;
  bool isEnlisted_ = false;
  bool isClosed_ = false;
  std::condition_variable idle_;
};

/// Names the calling thread, for comparing only.
inline const void* currentThreadMark() {
  static thread_local char mark;
  return &mark;
}

}  // namespace platform
