#pragma once

// A reactor: one thread that waits with epoll(7) for descriptors and timers and drains the serial queues that
// are bound to it. RunLoop::main() is the process's main thread; RunLoop::background() is one thread of the
// platform's own, started on first use, for what no request waits for and for the client library.
//
// One turn runs to completion: first the handlers of the descriptors that became ready, then the work of the
// bound queues and of async(), then what the sources supply, then the end-of-turn handlers (which write each
// connection's replies with one call), then due timers. Work that is submitted on the loop's own thread
// during a turn still runs in that turn, without any system call. A turn whose work has taken longer than
// kTurnBudget ends early; the rest is kept in order for the next one, which begins with the descriptors.

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>

#include "platform/queue/Work.h"

#pragma GCC visibility push(default)

namespace platform {

class SerialQueue;

class RunLoop {
 public:
  /// Bits of a descriptor's interest and readiness, those of epoll_ctl(2): EPOLLIN, EPOLLOUT, EPOLLRDHUP...
  using Events = uint32_t;
  using Work = platform::Work;

  /// After a piece of work that took longer, or several that did together, replies are written and
  /// descriptors are looked at before the next piece runs: a reply does not wait behind somebody else's long
  /// request.
  static constexpr std::chrono::microseconds kTurnBudget{50};
  /// Sources that stand back let those go first that do not, but not for longer than this at a time.
  static constexpr std::chrono::milliseconds kLongestDelay{1};
  /// A piece of work that takes longer is remembered of its source.
  static constexpr std::chrono::microseconds kLongPiece{250};

  /// What has pieces of work waiting, or something to do when a turn ends, and takes part in turns without a
  /// closure for each.
  class Source {
   public:
    /// Hands over one piece of work, by running it or by submitting it to a queue, which then runs it in the
    /// same turn. Called when the queues of the loop have run empty; the sources take turns, those first that
    /// do not stand back. False: nothing is left, and the source is dropped from the list.
    virtual bool supply() = 0;
    /// Whether the next piece is, or may be, one of many or a long one.
    virtual bool standsBack() const { return false; }
    /// The piece that was supplied took longer than kLongPiece.
    virtual void tookLong() {}
    /// The turn ends.
    virtual void finishTurn() = 0;
    /// Whether whoever brought the work is gone already: it has its turns, but stands in nobody's way.
    virtual bool isOrphaned() const { return false; }

   protected:
    ~Source() = default;
  };

  static RunLoop& main();
  static RunLoop& background();

  RunLoop();
  /// REQUIRES: not running, and no queue is bound any more. Work that has not begun is dropped.
  ~RunLoop();
  RunLoop(const RunLoop&) = delete;
  RunLoop& operator=(const RunLoop&) = delete;

  /// Runs turns on the calling thread until stop(). Only one thread runs a loop at a time.
  void run();
  /// Ends run() after the current turn; any thread.
  void stop();
  bool isCurrent() const;
  /// Whether some thread is inside run().
  bool isRunning() const;

  // Descriptors. The caller keeps ownership of `fd` and removes it before closing it. A handler may add,
  // change and remove descriptors, its own included; after remove() returns on the loop's own thread the
  // handler is not called again. From other threads, use async().

  /// False: the system refused (errno), and `handler` is never called.
  bool add(int fd, Events interest, std::function<void(Events)> handler);
  void change(int fd, Events interest);
  void remove(int fd);

  /// Runs `work` once on the loop's thread in a coming turn (the current one, when called on the loop's own
  /// thread while it works), in order; any thread.
  void async(Work work);
  /// Runs `work` at the end of the current turn (only on the loop's thread).
  void atEndOfTurn(Work work);

  /// Asks `source` for work in this turn and the coming ones until it has none; only on the loop's thread,
  /// and once until then.
  void enlist(std::shared_ptr<Source> source);
  /// Lets go of an enlisted source; only on the loop's thread.
  void withdraw(const Source& source);
  /// Whether a source other than `source`, and not orphaned, has work waiting; only on the loop's thread.
  bool hasOthers(const Source& source) const;
  /// Tells `source` when the current turn ends; only on the loop's thread, and once a turn.
  void tellEndOfTurn(std::shared_ptr<Source> source);

  /// A clock that stands still while this loop is busy with work: time limits of peers are counted on it, so
  /// that a peer is not blamed for what the loop did not read. Only on the loop's thread.
  std::chrono::nanoseconds listeningTime() const;

  using TimerToken = uint64_t;
  /// Runs `work` once on the loop's thread when `delay` has passed. Any thread. Tokens are never 0.
  TimerToken after(std::chrono::nanoseconds delay, Work work);
  /// Any thread. Work that has begun is not waited for.
  void cancel(TimerToken token);

 private:
  friend class SerialQueue;
  struct Implementation;
  std::unique_ptr<Implementation> implementation_;
};

}  // namespace platform

#pragma GCC visibility pop
