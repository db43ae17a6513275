#include "platform/queue/RunLoop.h"

#include <pthread.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <limits>
#include <thread>
#include <utility>

#include "platform/log/Failure.h"
#include "platform/queue/RunLoopImplementation.h"

namespace platform {

namespace {

constexpr size_t kSmallestBatch = 64;

int checked(int result, const char* what) {
  if (result < 0) raiseInternalInconsistency("%s: %s", what, std::strerror(errno));
  return result;
}

}  // namespace

RunLoop::Implementation::Implementation()
    : epoll(checked(epoll_create1(EPOLL_CLOEXEC), "epoll_create1")),
      wakeUp(checked(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK), "eventfd")) {
  // Edge-triggered: each write is reported once, and the counter need never be read.
  epoll_event event{.events = EPOLLIN | EPOLLET, .data = {.ptr = nullptr}};
  checked(epoll_ctl(epoll, EPOLL_CTL_ADD, wakeUp, &event), "epoll_ctl");
}

RunLoop::Implementation::~Implementation() {
  // What handlers and work captured may still call the loop when it goes.
  const auto goneRegistrations = std::exchange(registrations, {});
  const auto goneSources = std::exchange(sources, {});
  const auto goneStandingBack = std::exchange(standingBack, {});
  const auto goneServed = std::exchange(served, nullptr);
  const auto goneFinishing = std::exchange(finishing, {});
  const auto goneReady = std::exchange(ready, {});
  const auto goneIncoming = std::exchange(incoming, {});
  close(wakeUp);
  close(epoll);
}

bool RunLoop::Implementation::isCurrent() const {
  return thread.load(std::memory_order_relaxed) == currentThreadMark();
}

void RunLoop::Implementation::submit(Item item) {
  if (isCurrent()) {
    ready.push(std::move(item));
    return;
  }
  {
    const std::lock_guard lock(mutex);
    incoming.push_back(std::move(item));
    hasIncoming.store(true, std::memory_order_seq_cst);
  }
  wake();
}

void RunLoop::Implementation::wake() {
  if (!isSleeping.exchange(false, std::memory_order_seq_cst)) return;
  const uint64_t one = 1;
  // Fails only when the counter is full, and then the loop has a wake-up pending.
  [[maybe_unused]] const ssize_t written = write(wakeUp, &one, sizeof one);
}

void RunLoop::Implementation::run() {
  const void* nobody = nullptr;
  if (!thread.compare_exchange_strong(nobody, currentThreadMark(), std::memory_order_seq_cst))
    raiseInternalInconsistency("a run loop is run by two threads");
  /// Whoever waits for the loop may stop waiting, however the loop ends.
  struct Running {
    Implementation& loop;
    ~Running() {
      loop.isStopping.store(false, std::memory_order_seq_cst);
      std::vector<std::shared_ptr<SerialQueue::Implementation>> queues;
      for (const Item& item : loop.ready) queues.push_back(item.queue);
      loop.thread.store(nullptr, std::memory_order_seq_cst);
      {
        const std::lock_guard lock(loop.mutex);
        for (const Item& item : loop.incoming) queues.push_back(item.queue);
      }
      for (const auto& queue : queues)
        if (queue != nullptr) queue->loopStopped();
    }
  };
  const Running running{*this};
  while (!isStopping.load(std::memory_order_acquire)) turn();
}

void RunLoop::Implementation::turn() {
  wait();
  takeIncoming();
  drain();
  endTurn();
  runTimers();
}

/// Milliseconds for epoll_wait().
int RunLoop::Implementation::timeToWait() {
  if (hasWork() || !finishing.empty() || !endOfTurn.empty()) return 0;
  if (hasIncoming.load(std::memory_order_seq_cst) || isStopping.load(std::memory_order_seq_cst)) return 0;
  const Clock::time_point first = timers.first();
  if (first == Clock::time_point::max()) return -1;
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(first - Clock::now()).count();
  return static_cast<int>(std::clamp<int64_t>(left, 0, std::numeric_limits<int>::max()));
}

void RunLoop::Implementation::wait() {
  // Room for every descriptor, so that one call tells of all that are ready.
  const size_t room = std::max(registered + 1, kSmallestBatch);
  if (events.size() < room) events.resize(room * 2);
  isSleeping.store(true, std::memory_order_seq_cst);
  // Interrupted, when the process was stopped for a while, it tells nothing of the descriptors; timers that
  // are due by now wait until what came meanwhile was looked at.
  int count = 0;
  do {
    count = epoll_wait(epoll, events.data(), static_cast<int>(events.size()), timeToWait());
  } while (count < 0 && errno == EINTR);
  isSleeping.store(false, std::memory_order_seq_cst);
  if (count > 0) dispatchEvents(static_cast<size_t>(count));
}

void RunLoop::Implementation::dispatchEvents(size_t count) {
  isDispatching = true;
  for (size_t i = 0; i < count; ++i) {
    auto* registration = static_cast<Registration*>(events[i].data.ptr);
    if (registration != nullptr && !registration->isRemoved) registration->handler(events[i].events);
  }
  isDispatching = false;
  // What a handler captured may remove descriptors when it goes.
  while (!retired.empty()) {
    const auto gone = std::move(retired);
    retired.clear();
  }
}

void RunLoop::Implementation::takeIncoming() {
  if (!hasIncoming.load(std::memory_order_acquire)) return;
  std::vector<Item> taken;
  {
    const std::lock_guard lock(mutex);
    taken.swap(incoming);
    hasIncoming.store(false, std::memory_order_relaxed);
  }
  for (Item& item : taken) ready.push(std::move(item));
}

/// Null: there is none.
std::shared_ptr<RunLoop::Source> RunLoop::Implementation::nextSource(Clock::time_point now) {
  while (!sources.empty() && (standingBack.empty() || now - lastOfThose < kLongestDelay)) {
    std::shared_ptr<Source> source = sources.pop();
    if (source == nullptr) continue;
    if (!source->standsBack()) return source;
    standingBack.push(std::move(source));
  }
  while (!standingBack.empty()) {
    std::shared_ptr<Source> source = standingBack.pop();
    if (source == nullptr) continue;
    hadStoodBack = true;
    return source;
  }
  return nullptr;
}

/// The source whose piece it was is told how long it took.
void RunLoop::Implementation::endPiece(Clock::time_point now) {
  if (std::exchange(hadStoodBack, false)) lastOfThose = now;
  const std::shared_ptr<Source> source = std::exchange(served, nullptr);
  if (std::exchange(servedFor, {}) > kLongPiece && source != nullptr) source->tookLong();
}

/// One piece of work; false when there is none. What a source submits belongs to its piece.
bool RunLoop::Implementation::runNext(Clock::time_point now) {
  if (ready.empty()) {
    endPiece(now);
    served = nextSource(now);
    if (served == nullptr) return false;
    if (served->supply()) sources.push(served);
    // What it submitted may stand in a queue that another thread has enlisted meanwhile.
    if (ready.empty()) takeIncoming();
    if (ready.empty()) return true;
  }
  Item item = ready.pop();
  if (item.queue != nullptr)
    item.queue->runFromLoop();
  else
    item.work();
  return true;
}

void RunLoop::Implementation::drain() {
  if (!hasWork()) return;
  const Clock::time_point began = Clock::now();
  drainBegan = began;
  Clock::time_point now = began;
  while (runNext(now)) {
    const Clock::time_point before = std::exchange(now, Clock::now());
    servedFor += now - before;
    if (now - began > kTurnBudget) break;
  }
  if (ready.empty()) endPiece(now);
  busy += now - began;
  drainBegan.reset();
}

void RunLoop::Implementation::endTurn() {
  finishingNow.swap(finishing);
  for (const std::shared_ptr<Source>& source : finishingNow) source->finishTurn();
  finishingNow.clear();
  endOfTurnNow.swap(endOfTurn);
  for (Work& work : endOfTurnNow) work();
  endOfTurnNow.clear();
}

void RunLoop::Implementation::runTimers() {
  if (timers.first() == Clock::time_point::max()) return;
  const Clock::time_point now = Clock::now();
  if (timers.first() > now) return;
  while (Work work = timers.takeDue(now)) work();
}

RunLoop& RunLoop::main() {
  // Never destroyed: other threads may use it until the process ends.
  static RunLoop& loop = *new RunLoop;
  return loop;
}

RunLoop& RunLoop::background() {
  static RunLoop& loop = []() -> RunLoop& {
    auto& created = *new RunLoop;
    // Signals belong to the program's own threads.
    sigset_t all, before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    std::thread thread([&created] { created.run(); });
    pthread_setname_np(thread.native_handle(), "background");
    thread.detach();
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    while (!created.isRunning()) std::this_thread::yield();
    return created;
  }();
  return loop;
}

RunLoop::RunLoop() : implementation_(std::make_unique<Implementation>()) {}
RunLoop::~RunLoop() = default;

void RunLoop::run() {
  implementation_->run();
}

void RunLoop::stop() {
  implementation_->isStopping.store(true, std::memory_order_seq_cst);
  implementation_->wake();
}

bool RunLoop::isCurrent() const {
  return implementation_->isCurrent();
}

bool RunLoop::isRunning() const {
  return implementation_->thread.load(std::memory_order_seq_cst) != nullptr;
}

bool RunLoop::add(int fd, Events interest, std::function<void(Events)> handler) {
  auto& registrations = implementation_->registrations;
  const auto index = static_cast<size_t>(fd);
  if (registrations.size() <= index) registrations.resize(index + 1);
  auto registration = std::make_unique<Implementation::Registration>();
  registration->fd = fd;
  registration->handler = std::move(handler);
  epoll_event event{.events = interest, .data = {.ptr = registration.get()}};
  if (epoll_ctl(implementation_->epoll, EPOLL_CTL_ADD, fd, &event) != 0) return false;
  registrations[index] = std::move(registration);
  ++implementation_->registered;
  return true;
}

void RunLoop::change(int fd, Events interest) {
  const auto index = static_cast<size_t>(fd);
  epoll_event event{.events = interest, .data = {.ptr = implementation_->registrations.at(index).get()}};
  checked(epoll_ctl(implementation_->epoll, EPOLL_CTL_MOD, fd, &event), "epoll_ctl");
}

void RunLoop::remove(int fd) {
  auto& registrations = implementation_->registrations;
  const auto index = static_cast<size_t>(fd);
  if (fd < 0 || index >= registrations.size() || registrations[index] == nullptr) return;
  checked(epoll_ctl(implementation_->epoll, EPOLL_CTL_DEL, fd, nullptr), "epoll_ctl");
  auto registration = std::move(registrations[index]);
  registration->isRemoved = true;
  --implementation_->registered;
  if (implementation_->isDispatching) implementation_->retired.push_back(std::move(registration));
}

void RunLoop::async(Work work) {
  implementation_->submit({.work = std::move(work), .queue = nullptr});
}

void RunLoop::atEndOfTurn(Work work) {
  implementation_->endOfTurn.push_back(std::move(work));
}

void RunLoop::enlist(std::shared_ptr<Source> source) {
  implementation_->sources.push(std::move(source));
}

void RunLoop::withdraw(const Source& source) {
  for (auto* list : {&implementation_->sources, &implementation_->standingBack})
    for (std::shared_ptr<Source>& each : *list)
      if (each.get() == &source) each = nullptr;
}

bool RunLoop::hasOthers(const Source& source) const {
  const auto isOther = [&](const std::shared_ptr<Source>& each) {
    return each != nullptr && each.get() != &source && !each->isOrphaned();
  };
  return std::ranges::any_of(implementation_->sources, isOther) ||
         std::ranges::any_of(implementation_->standingBack, isOther);
}

void RunLoop::tellEndOfTurn(std::shared_ptr<Source> source) {
  implementation_->finishing.push_back(std::move(source));
}

std::chrono::nanoseconds RunLoop::listeningTime() const {
  const auto now = implementation_->drainBegan.value_or(Implementation::Clock::now());
  return now.time_since_epoch() - implementation_->busy;
}

RunLoop::TimerToken RunLoop::after(std::chrono::nanoseconds delay, Work work) {
  const auto time = Implementation::Clock::now() + std::max(delay, std::chrono::nanoseconds(0));
  const auto [token, isFirst] = implementation_->timers.add(time, std::move(work));
  if (isFirst && !isCurrent()) implementation_->wake();
  return token;
}

void RunLoop::cancel(TimerToken token) {
  implementation_->timers.remove(token);
}

}  // namespace platform
