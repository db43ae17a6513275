#pragma once

// The inside of a run loop, shared with the serial queues that are bound to it.

#include <sys/epoll.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <vector>

#include "platform/queue/Fifo.h"
#include "platform/queue/RunLoop.h"
#include "platform/queue/SerialQueueImplementation.h"
#include "platform/queue/Timers.h"

namespace platform {

struct RunLoop::Implementation {
  using Clock = Timers::Clock;

  /// Work of the loop itself, or a queue that has some.
  struct Item {
    Work work;
    std::shared_ptr<SerialQueue::Implementation> queue;
  };
  struct Registration {
    int fd;
    bool isRemoved = false;
    std::function<void(Events)> handler;
  };

  Implementation();
  ~Implementation();
  Implementation(const Implementation&) = delete;
  Implementation& operator=(const Implementation&) = delete;

  bool isCurrent() const;
  /// Any thread.
  void submit(Item item);
  void wake();

  void run();
  void turn();
  void wait();
  int timeToWait();
  void dispatchEvents(size_t count);
  void takeIncoming();
  void drain();
  bool hasWork() const { return !ready.empty() || !sources.empty() || !standingBack.empty(); }
  std::shared_ptr<Source> nextSource(Clock::time_point now);
  void endPiece(Clock::time_point now);
  bool runNext(Clock::time_point now);
  void endTurn();
  void runTimers();

  // Set once. The descriptors are owned.
  const int epoll;
  const int wakeUp;  // eventfd(2)

  // The loop's thread only.
  std::vector<std::unique_ptr<Registration>> registrations;  // by descriptor
  size_t registered = 0;
  /// Removed while events were being handled: one of them may be executing.
  std::vector<std::unique_ptr<Registration>> retired;
  bool isDispatching = false;
  std::vector<epoll_event> events;
  Fifo<Item> ready;
  // In the order of their turns; null: withdrawn. Who stands back is put aside when its turn comes.
  Fifo<std::shared_ptr<Source>> sources, standingBack;
  /// Whose piece is under way, for how long it has run, and whether its source stood back; when the last
  /// such piece ended.
  std::shared_ptr<Source> served;
  Clock::duration servedFor{0};
  bool hadStoodBack = false;
  Clock::time_point lastOfThose;
  std::vector<std::shared_ptr<Source>> finishing, finishingNow;
  std::vector<Work> endOfTurn, endOfTurnNow;
  /// All the time that was spent in drain(), and since when the current one runs.
  Clock::duration busy{0};
  std::optional<Clock::time_point> drainBegan;

  Timers timers;

  // Any thread.
  std::atomic<const void*> thread{nullptr};  // inside run()
  std::atomic<bool> isStopping{false};
  /// The loop is in epoll_wait() or about to be: whoever brings something clears it and wakes the loop.
  std::atomic<bool> isSleeping{false};
  std::atomic<bool> hasIncoming{false};
  std::mutex mutex;
  std::vector<Item> incoming;  // guarded by mutex
};

}  // namespace platform
