#pragma once

// A serial work queue: its work runs one piece at a time, first come, first served over async() and sync()
// both. Asynchronous work runs on the thread of the run loop that the queue is bound to, during that loop's
// turns; synchronous work runs on the calling thread when its turn comes. Where asynchronous work stands
// before it, the caller of sync() runs that first when it is the loop's own thread (so a loop may enter its
// queues), or when nobody runs the loop. The uncontended sync() is two atomic operations and allocates
// nothing.

#include <functional>
#include <memory>
#include <type_traits>
#include <utility>

#include "platform/queue/RunLoop.h"

#pragma GCC visibility push(default)

namespace platform {

enum class QualityOfService { unspecified, userInitiated };

class SerialQueue {
 public:
  using Work = platform::Work;

  /// `label` and `loop` outlive the queue.
  explicit SerialQueue(const char* label, RunLoop& loop = RunLoop::background(),
                       QualityOfService quality = QualityOfService::unspecified);
  /// Work that has not begun is dropped; work that runs on another thread is waited for. REQUIRES: nobody is
  /// inside sync().
  ~SerialQueue();
  SerialQueue(const SerialQueue&) = delete;
  SerialQueue& operator=(const SerialQueue&) = delete;

  const char* label() const;
  QualityOfService qualityOfService() const;
  RunLoop& loop() const;

  /// Queues `work` and returns at once. Any thread.
  void async(Work work);

  /// Runs `work` on this thread when its turn comes and returns its result. Entering a queue from itself is a
  /// programming error that stops the process (InternalInconsistency). Exceptions of `work` pass through.
  template <typename F>
  auto sync(F&& work) -> std::invoke_result_t<F> {
    const Entry entry(*this);
    return std::forward<F>(work)();
  }

  /// Whether the calling thread is running this queue's work.
  bool isCurrent() const;

 private:
  friend class RunLoop;
  struct Implementation;
  /// Holds the queue's turn while it lives.
  class Entry {
   public:
    explicit Entry(SerialQueue& queue);
    ~Entry();
    Entry(const Entry&) = delete;
    Entry& operator=(const Entry&) = delete;

   private:
    SerialQueue& queue_;
  };

  std::shared_ptr<Implementation> implementation_;
};

}  // namespace platform

#pragma GCC visibility pop
