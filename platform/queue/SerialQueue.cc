#include "platform/queue/SerialQueue.h"

#include "platform/log/Failure.h"
#include "platform/queue/RunLoopImplementation.h"
#include "platform/queue/SerialQueueImplementation.h"

namespace platform {

bool SerialQueue::Implementation::isCurrent() const {
  return owner.load(std::memory_order_relaxed) == currentThreadMark();
}

bool SerialQueue::Implementation::mayRunHere() const {
  return loop.isCurrent() || !loop.isRunning();
}

void SerialQueue::Implementation::async(Work work) {
  const std::lock_guard lock(mutex_);
  if (isClosed_) return;
  items_.push(Item{.work = std::move(work)});  // for which memory may be lacking
  const uint32_t before = state.fetch_or(kQueued, std::memory_order_acq_rel);
  // Whoever has the turn enlists the queue when giving it back.
  if ((before & kBusy) == 0) enlistWithLoop();
}

void SerialQueue::Implementation::enterSlowly() {
  if (isCurrent()) raiseInternalInconsistency("queue \"%s\" was entered from its own work", label);
  Waiter self;
  std::unique_lock lock(mutex_);
  const uint32_t before = state.fetch_or(kQueued, std::memory_order_acq_rel);
  if ((before & kBusy) == 0 && items_.empty()) {
    state.store(kBusy, std::memory_order_relaxed);
    return;
  }
  items_.push(Item{.work = {}, .waiter = &self});
  // `self` is in the list, so an exception of someone else's work must not get past here.
  const auto help = [this, &lock]() noexcept { runFront(lock); };
  while (!self.isGranted) {
    if ((state.load(std::memory_order_relaxed) & kBusy) == 0 && mayRunHere())
      help();
    else
      self.condition.wait(lock);
  }
}

void SerialQueue::Implementation::leave() {
  owner.store(nullptr, std::memory_order_relaxed);
  uint32_t expected = kBusy;
  if (state.compare_exchange_strong(expected, 0, std::memory_order_release, std::memory_order_relaxed))
    return;
  const std::lock_guard lock(mutex_);
  handOver();
}

/// Gives the turn to whoever is next. REQUIRES: the calling thread has the turn and the mutex.
void SerialQueue::Implementation::handOver() {
  if (items_.empty()) {
    state.store(0, std::memory_order_release);
    if (isClosed_) idle_.notify_all();
    return;
  }
  if (Waiter* next = items_.front().waiter) {
    items_.pop();
    state.store(items_.empty() ? kBusy : kBusy | kQueued, std::memory_order_release);
    next->isGranted = true;
    next->condition.notify_one();
    return;
  }
  state.store(kQueued, std::memory_order_release);
  enlistWithLoop();
  wakeWaiters();
}

void SerialQueue::Implementation::wakeWaiters() {
  for (Item& item : items_)
    if (item.waiter != nullptr) item.waiter->condition.notify_one();
}

void SerialQueue::Implementation::enlistWithLoop() {
  if (isEnlisted_) return;
  loop.implementation_->submit({.work = {}, .queue = shared_from_this()});
  isEnlisted_ = true;
}

/// Runs the first item, asynchronous work. REQUIRES: nobody has the turn; `lock` holds the mutex.
void SerialQueue::Implementation::runFront(std::unique_lock<std::mutex>& lock) {
  /// Gives the turn back whatever the work throws.
  struct Turn {
    Implementation& queue;
    std::unique_lock<std::mutex>& lock;
    ~Turn() {
      queue.owner.store(nullptr, std::memory_order_relaxed);
      lock.lock();
      queue.handOver();
    }
  };
  Item item = items_.pop();
  state.store(items_.empty() ? kBusy : kBusy | kQueued, std::memory_order_relaxed);
  owner.store(currentThreadMark(), std::memory_order_relaxed);
  lock.unlock();
  const Turn turn{*this, lock};
  item.work();
  item.work = {};  // what it captured goes within the turn
}

void SerialQueue::Implementation::runFromLoop() {
  std::unique_lock lock(mutex_);
  isEnlisted_ = false;
  if ((state.load(std::memory_order_relaxed) & kBusy) == 0 && !items_.empty()) runFront(lock);
}

void SerialQueue::Implementation::loopStopped() {
  const std::lock_guard lock(mutex_);
  wakeWaiters();
}

void SerialQueue::Implementation::close() {
  Fifo<Item> dropped;
  std::unique_lock lock(mutex_);
  isClosed_ = true;
  std::swap(dropped, items_);
  // Makes whoever has the turn come by the mutex when giving it back.
  const uint32_t before = state.fetch_or(kQueued, std::memory_order_acq_rel);
  if ((before & kBusy) == 0) {
    state.store(0, std::memory_order_relaxed);
  } else if (!isCurrent()) {
    idle_.wait(lock, [this] { return (state.load(std::memory_order_relaxed) & kBusy) == 0; });
  }
  lock.unlock();
}

SerialQueue::SerialQueue(const char* label, RunLoop& loop, QualityOfService quality)
    : implementation_(std::make_shared<Implementation>(label, loop, quality)) {}
SerialQueue::~SerialQueue() {
  implementation_->close();
}

const char* SerialQueue::label() const {
  return implementation_->label;
}
QualityOfService SerialQueue::qualityOfService() const {
  return implementation_->quality;
}
RunLoop& SerialQueue::loop() const {
  return implementation_->loop;
}
bool SerialQueue::isCurrent() const {
  return implementation_->isCurrent();
}
void SerialQueue::async(Work work) {
  implementation_->async(std::move(work));
}

SerialQueue::Entry::Entry(SerialQueue& queue) : queue_(queue) {
  Implementation& implementation = *queue_.implementation_;
  uint32_t expected = 0;
  if (!implementation.state.compare_exchange_strong(expected, Implementation::kBusy,
                                                    std::memory_order_acquire, std::memory_order_relaxed))
    implementation.enterSlowly();
  implementation.owner.store(currentThreadMark(), std::memory_order_relaxed);
}

SerialQueue::Entry::~Entry() {
  queue_.implementation_->leave();
}

}  // namespace platform
