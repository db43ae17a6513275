#pragma once

// A reactor: one thread that waits with epoll(7) for descriptors and timers and drains the serial queues that
// are bound to it. RunLoop::main() is the process's main thread; RunLoop::background() is one thread of the
// platform's own, started on first use, for what no request waits for and for the client library.
//
// One turn runs to completion: first the handlers of the descriptors that became ready, then the work of the
// bound queues, then the end-of-turn handlers (which write each connection's replies with one call), then due
// timers.

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>

namespace platform {

class SerialQueue;

class RunLoop {
 public:
  /// Bits of a descriptor's interest and readiness, those of epoll_ctl(2): EPOLLIN, EPOLLOUT, EPOLLRDHUP...
  using Events = uint32_t;
  using Work = std::function<void()>;

  static RunLoop& main();
  static RunLoop& background();

  RunLoop();
  ~RunLoop();
  RunLoop(const RunLoop&) = delete;
  RunLoop& operator=(const RunLoop&) = delete;

  /// Runs turns on the calling thread until stop(). Only one thread runs a loop at a time.
  void run();
  /// Ends run() after the current turn; any thread.
  void stop();
  bool isCurrent() const;

  // Descriptors. The caller keeps ownership of `fd` and removes it before closing it. A handler may add,
  // change and remove descriptors, its own included; after remove() returns on the loop's own thread the
  // handler is not called again. From other threads, use async().
  void add(int fd, Events interest, std::function<void(Events)> handler);
  void change(int fd, Events interest);
  void remove(int fd);

  /// Runs `work` once on the loop's thread in a coming turn, in order; any thread.
  void async(Work work);
  /// Runs `work` at the end of the current turn (only on the loop's thread).
  void atEndOfTurn(Work work);

  using TimerToken = uint64_t;
  /// Runs `work` once on the loop's thread when `delay` has passed. Any thread.
  TimerToken after(std::chrono::nanoseconds delay, Work work);
  /// Any thread. Work that has begun is not waited for.
  void cancel(TimerToken token);

 private:
  friend class SerialQueue;
  struct Implementation;
  std::unique_ptr<Implementation> implementation_;
};

}  // namespace platform
