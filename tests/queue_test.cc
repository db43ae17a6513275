// Serial queues and run loops: the order of work over several threads, and who runs it.

#include <gtest/gtest.h>
#include <sys/epoll.h>
#include <unistd.h>

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
  ~LoopThread() { join(); }
  void join() {
    loop.stop();
    if (thread_.joinable()) thread_.join();
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
  std::thread thread_;
};

/// What happened, in order; any thread.
class Record {
 public:
  void add(const std::string& what) {
    const std::lock_guard lock(mutex_);
    all_ += what;
  }
  std::string all() const {
    const std::lock_guard lock(mutex_);
    return all_;
  }
  /// Waits until there are as many characters.
  std::string waitFor(size_t size) const {
    while (all().size() < size) std::this_thread::sleep_for(1ms);
    return all();
  }

 private:
  mutable std::mutex mutex_;
  std::string all_;
};

TEST(SerialQueueTest, servesAsynchronousAndSynchronousWorkInTheOrderOfArrival) {
  LoopThread thread;
  SerialQueue queue("order", thread.loop);
  Record record;
  std::latch isInside(1), mayGo(1);
  queue.async([&] {
    isInside.count_down();
    mayGo.wait();
    record.add("a");
  });
  isInside.wait();
  queue.async([&] { record.add("b"); });
  std::atomic<bool> isEntering = false;
  std::thread other([&] {
    isEntering = true;
    queue.sync([&] { record.add("c"); });
  });
  while (!isEntering) std::this_thread::yield();
  std::this_thread::sleep_for(20ms);
  queue.async([&] { record.add("d"); });
  mayGo.count_down();
  other.join();
  queue.sync([&] { record.add("e"); });
  EXPECT_EQ(record.all(), "abcde");
}

TEST(SerialQueueTest, runsOnePieceAtATimeInEachThreadsOwnOrder) {
  LoopThread thread;
  SerialQueue queue("busy", thread.loop);
  constexpr int kThreads = 4, kPieces = 3000;
  int running = 0;
  bool isOverlapping = false, isElsewhere = false;
  std::vector<std::vector<int>> seen(kThreads);
  {
    std::vector<std::jthread> threads;
    for (int t = 0; t < kThreads; ++t) {
      threads.emplace_back([&, t] {
        for (int i = 0; i < kPieces; ++i) {
          const auto piece = [&, t, i] {
            isOverlapping |= ++running != 1 || !queue.isCurrent();
            isElsewhere |= i % 3 == 0 && !thread.loop.isCurrent();
            seen[static_cast<size_t>(t)].push_back(i);
            --running;
          };
          if (i % 3 == 0)
            queue.async(piece);
          else
            queue.sync(piece);
        }
      });
    }
  }
  queue.sync([] {});
  EXPECT_FALSE(isOverlapping);
  EXPECT_FALSE(isElsewhere) << "asynchronous work is the loop's, even when others wait for it";
  EXPECT_FALSE(queue.isCurrent());
  for (const std::vector<int>& each : seen) {
    ASSERT_EQ(each.size(), static_cast<size_t>(kPieces));
    EXPECT_TRUE(std::is_sorted(each.begin(), each.end()));
  }
}

TEST(SerialQueueTest, letsTheLoopsOwnThreadEnterAndRunWhatStandsBefore) {
  LoopThread thread;
  SerialQueue queue("own", thread.loop);
  Record record;
  thread.run([&] {
    queue.async([&] { record.add("a"); });
    queue.async([&] { record.add("b"); });
    queue.sync([&] { record.add("c"); });
    record.add("d");
  });
  EXPECT_EQ(record.all(), "abcd");
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
  std::latch isInside(1), isBusy(1);
  thread.loop.async([&] {
    other.async([&] { ++count; });
    isBusy.count_down();
    isInside.wait();
    std::this_thread::sleep_for(20ms);
    thread.loop.stop();  // longer than a turn has passed, so the queue's work is left over
  });
  isBusy.wait();
  isInside.count_down();
  other.sync([&] { ++count; });
  thread.join();
  EXPECT_EQ(count, 4);
}

TEST(SerialQueueTest, refusesToBeEnteredFromItsOwnWork) {
  LoopThread thread;
  SerialQueue queue("self", thread.loop), other("other", thread.loop);
  const auto enterTwice = [&] { queue.sync([&] { other.sync([&] { queue.sync([] {}); }); }); };
  EXPECT_THROW(enterTwice(), InternalInconsistency);
  // The failure has left both queues usable.
  EXPECT_EQ(queue.sync([&] { return other.sync([] { return 7; }); }), 7);
  queue.async([&] { EXPECT_THROW(queue.sync([] {}), InternalInconsistency); });
  queue.sync([] {});
}

TEST(SerialQueueTest, dropsWaitingWorkAndWaitsForRunningWorkWhenDestroyed) {
  LoopThread thread;
  auto queue = std::make_unique<SerialQueue>("short-lived", thread.loop);
  std::latch isInside(1);
  std::atomic<bool> hasEnded = false, hasRun = false;
  auto captured = std::make_shared<int>(1);
  queue->async([&] {
    isInside.count_down();
    std::this_thread::sleep_for(20ms);
    hasEnded = true;
  });
  isInside.wait();
  queue->async([&hasRun, captured] { hasRun = true; });
  queue.reset();
  EXPECT_TRUE(hasEnded);
  EXPECT_EQ(captured.use_count(), 1);
  thread.run([] {});
  EXPECT_FALSE(hasRun);

  // Its own work may destroy it.
  queue = std::make_unique<SerialQueue>("own", thread.loop);
  queue->async([&queue] { queue.reset(); });
  thread.run([] {});
  EXPECT_EQ(queue, nullptr);
}

/// Expects that `attempt` records this at last: a turn is cut short when the machine is busy.
void expectRecord(const std::string& expected, const std::function<std::string()>& attempt) {
  std::string record;
  for (int i = 0; i < 100 && record != expected; ++i) record = attempt();
  EXPECT_EQ(record, expected);
}

TEST(RunLoopTest, runsWorkOfItsOwnThreadWithinTheTurnAndInOrder) {
  LoopThread thread;
  SerialQueue queue("service", thread.loop);
  expectRecord("abcdet", [&] {
    Record record;
    thread.loop.async([&] {
      thread.loop.atEndOfTurn([&] { record.add("e"); });
      queue.async([&] {
        record.add("b");
        thread.loop.async([&] { record.add("d"); });
      });
      thread.loop.async([&] { record.add("c"); });
      thread.loop.after(0ns, [&] { record.add("t"); });
      record.add("a");
    });
    record.waitFor(6);
    thread.run([] {});
    return record.all();
  });
}

/// Supplies pieces of work, each of which is queued like a request.
class Supplier final : public RunLoop::Source {
 public:
  Supplier(SerialQueue& queue, Record& record, std::string name, int pieces)
      : queue_(queue), record_(record), name_(std::move(name)), pieces_(pieces) {}
  bool supply() override {
    if (pieces_ == 0) return false;
    queue_.async([this] { record_.add(name_); });
    return --pieces_ > 0;
  }
  void finishTurn() override { record_.add("|"); }

 private:
  SerialQueue& queue_;
  Record& record_;
  const std::string name_;
  int pieces_;
};

TEST(RunLoopTest, letsSourcesTakeTurnsAndTellsThemOfTheTurnsEnd) {
  LoopThread thread;
  SerialQueue queue("service", thread.loop);
  expectRecord("ababa|", [&] {
    Record record;
    const auto first = std::make_shared<Supplier>(queue, record, "a", 3);
    const auto second = std::make_shared<Supplier>(queue, record, "b", 2);
    thread.run([&] {
      thread.loop.enlist(first);
      thread.loop.enlist(second);
      thread.loop.tellEndOfTurn(first);
    });
    return record.waitFor(6);
  });
}

TEST(RunLoopTest, looksAtDescriptorsAfterALongPieceOfWork) {
  LoopThread thread;
  SerialQueue queue("service", thread.loop);
  Record record;
  int ends[2];
  ASSERT_EQ(pipe(ends), 0);
  thread.run([&] {
    thread.loop.add(ends[0], EPOLLIN, [&](RunLoop::Events) {
      record.add("e");
      thread.loop.remove(ends[0]);
    });
  });
  thread.loop.async([&] {
    queue.async([&] {
      ASSERT_EQ(write(ends[1], "x", 1), 1);
      record.add("1");
      std::this_thread::sleep_for(RunLoop::kTurnBudget * 3);
    });
    queue.async([&] { record.add("2"); });
  });
  EXPECT_EQ(record.waitFor(3), "1e2");
  close(ends[0]);
  close(ends[1]);
}

TEST(RunLoopTest, callsNoHandlerAfterItsDescriptorWasRemoved) {
  LoopThread thread;
  int first[2], second[2];
  ASSERT_EQ(pipe(first), 0);
  ASSERT_EQ(pipe(second), 0);
  int calls = 0;
  thread.run([&] {
    // Both are ready in one turn; whichever handler comes first removes both.
    const auto handler = [&](RunLoop::Events) {
      ++calls;
      thread.loop.remove(first[0]);
      thread.loop.remove(second[0]);
    };
    thread.loop.add(first[0], EPOLLIN, handler);
    thread.loop.add(second[0], EPOLLIN, handler);
    ASSERT_EQ(write(first[1], "x", 1), 1);
    ASSERT_EQ(write(second[1], "x", 1), 1);
  });
  thread.run([] {});
  thread.run([] {});
  EXPECT_EQ(calls, 1);
  for (const int fd : {first[0], first[1], second[0], second[1]}) close(fd);
}

TEST(RunLoopTest, runsTimersInOrderAndNotThoseThatWereCancelled) {
  LoopThread thread;
  Record record;
  const auto start = std::chrono::steady_clock::now();
  thread.loop.after(40ms, [&] { record.add("c"); });
  thread.loop.after(20ms, [&] { record.add("b"); });
  const auto cancelled = thread.loop.after(10ms, [&] { record.add("x"); });
  thread.loop.after(1ms, [&] { record.add("a"); });
  thread.loop.cancel(cancelled);
  EXPECT_EQ(record.waitFor(3), "abc");
  EXPECT_GE(std::chrono::steady_clock::now() - start, 40ms);
}

TEST(RunLoopTest, doesNotCountItsOwnWorkAsListening) {
  LoopThread thread;
  std::chrono::nanoseconds before{}, after{};
  thread.run([&] {
    before = thread.loop.listeningTime();
    std::this_thread::sleep_for(300ms);
  });
  std::this_thread::sleep_for(20ms);
  thread.run([&] { after = thread.loop.listeningTime(); });
  EXPECT_GE(after - before, 20ms);
  EXPECT_LT(after - before, 300ms);
}

TEST(RunLoopTest, mayBeStoppedAndRunAgainButNotTwiceAtOnce) {
  RunLoop loop;
  int turns = 0;
  for (int i = 0; i < 2; ++i) {
    loop.async([&] {
      ++turns;
      EXPECT_THROW(loop.run(), InternalInconsistency);
      loop.stop();
    });
    loop.run();
  }
  EXPECT_EQ(turns, 2);
  EXPECT_FALSE(loop.isRunning());
  EXPECT_TRUE(RunLoop::background().isRunning());
}

}  // namespace
}  // namespace platform
