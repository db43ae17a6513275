// Serial queues and run loops: the order of work over several threads, and who runs it.

#include <gtest/gtest.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <latch>
#include <thread>

#include "platform/log/Failure.h"
#include "platform/queue/RunLoop.h"
#include "platform/queue/SerialQueue.h"

namespace platform {
namespace {

using namespace std::chrono_literals;
using Work = std::function<void()>;

/// A run loop on a thread of its own.
class LoopThread {
 public:
  LoopThread() : thread_([this] { loop.run(); }) {
    while (!loop.isRunning()) std::this_thread::yield();
  }
  ~LoopThread() { loop.stop(); }
  void join() {
    loop.stop();
    thread_.join();
  }
  /// Runs `work` on the loop and waits for it.
  void run(const Work& work) {
    std::latch done(1);
    loop.async([&] {
      work();
      done.count_down();
    });
    done.wait();
  }

  RunLoop loop;

 private:
  std::jthread thread_;
};

TEST(SerialQueueTest, runsOnePieceAtATimeInEachThreadsOwnOrder) {
  LoopThread thread;
  SerialQueue queue("busy", thread.loop);
  constexpr int kThreads = 4, kPieces = 3000;
  int running = 0;
  bool isOverlapping = false, isElsewhere = false;
  std::vector<std::vector<int>> seen(kThreads);
  {
    std::vector<std::jthread> threads;
    for (std::vector<int>& mine : seen)
      threads.emplace_back([&] {
        for (int i = 0; i < kPieces; ++i) {
          const auto piece = [&, i] {
            isOverlapping |= ++running != 1 || !queue.isCurrent();
            isElsewhere |= i % 3 == 0 && !thread.loop.isCurrent();
            mine.push_back(i);
            --running;
          };
          i % 3 == 0 ? queue.async(piece) : queue.sync(piece);
        }
      });
  }
  queue.sync([] {});
  EXPECT_FALSE(isOverlapping);
  EXPECT_FALSE(isElsewhere) << "asynchronous work is the loop's, even when others wait for it";
  for (const std::vector<int>& each : seen)
    EXPECT_TRUE(each.size() == kPieces && std::is_sorted(each.begin(), each.end()));
}

TEST(SerialQueueTest, isServedByItsCallersWhenNobodyRunsTheLoop) {
  RunLoop loop;
  SerialQueue queue("helped", loop);
  int count = 0;
  queue.async([&] { ++count; });
  EXPECT_EQ(queue.sync([&] { return ++count; }), 2);

  // Also when the loop stops while somebody waits for it.
  LoopThread thread;
  SerialQueue other("left", thread.loop);
  std::latch isBusy(1);
  thread.loop.async([&] {
    other.async([&] { ++count; });
    isBusy.count_down();
    std::this_thread::sleep_for(20ms);
    thread.loop.stop();  // longer than a turn has passed, so the queue's work is left over
  });
  isBusy.wait();
  other.sync([&] { ++count; });
  thread.join();
  EXPECT_EQ(count, 4);
}

TEST(SerialQueueTest, refusesToBeEnteredFromItsOwnWork) {
  LoopThread thread;
  SerialQueue queue("self", thread.loop), other("other", thread.loop);
  const auto enterTwice = [&] { queue.sync([&] { other.sync([&] { queue.sync([] {}); }); }); };
  EXPECT_THROW(enterTwice(), InternalInconsistency);
  EXPECT_EQ(queue.sync([&] { return other.sync([] { return 7; }); }), 7) << "both are usable";
}

TEST(SerialQueueTest, dropsWaitingWorkAndWaitsForRunningWorkWhenDestroyed) {
  LoopThread thread;
  auto queue = std::make_unique<SerialQueue>("short-lived", thread.loop);
  std::latch isInside(1);
  std::atomic<bool> hasEnded = false;
  const auto captured = std::make_shared<std::atomic<bool>>(false);
  queue->async([&] {
    isInside.count_down();
    std::this_thread::sleep_for(20ms);
    hasEnded = true;
  });
  isInside.wait();
  queue->async([captured] { *captured = true; });
  queue.reset();
  EXPECT_TRUE(hasEnded && captured.use_count() == 1);
  // Its own work may destroy it.
  queue = std::make_unique<SerialQueue>("own", thread.loop);
  queue->async([&queue] { queue.reset(); });
  thread.run([] {});
  EXPECT_TRUE(queue == nullptr && !*captured);
}

TEST(RunLoopTest, runsWhatASourceSubmitsBeforeTheNextPieceWhoeverElseSubmits) {
  struct Pieces : RunLoop::Source {
    explicit Pieces(RunLoop& loop) : queue("pieces", loop) {}
    bool supply() override {
      inOrder = inOrder && done == asked;
      ++asked;
      while (answered < asked) std::this_thread::yield();  // another thread submits first
      queue.async([this] { ++done; });
      return asked < 500;
    }
    void finishTurn() override {}
    SerialQueue queue;
    std::atomic<int> asked{0}, answered{0}, done{0};
    bool inOrder = true;
  };
  LoopThread thread;
  const auto pieces = std::make_shared<Pieces>(thread.loop);
  thread.run([&] { thread.loop.enlist(pieces); });
  while (pieces->answered < 500) {
    if (pieces->asked == pieces->answered) continue;
    pieces->queue.async([] {});
    ++pieces->answered;
  }
  thread.join();
  EXPECT_TRUE(pieces->inOrder);
}

TEST(RunLoopTest, callsNoHandlerAfterItsDescriptorWasRemoved) {
  LoopThread thread;
  // Both can be written at once in one turn; whichever handler comes first removes both.
  int ends[2], calls = 0;
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
  thread.run([&] {
    for (const int fd : ends)
      thread.loop.add(fd, EPOLLOUT, [&](RunLoop::Events) {
        ++calls;
        for (const int each : ends) thread.loop.remove(each);
      });
  });
  thread.run([] {});
  thread.run([] {});
  EXPECT_EQ(calls, 1);
  for (const int fd : ends) close(fd);
}

}  // namespace
}  // namespace platform
