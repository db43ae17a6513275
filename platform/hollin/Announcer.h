#pragma once

// Delivers announcements to observers on a thread of its own, in the order in which they were enqueued. The
// first observer hears of everything, a later one of what was enqueued after it was added. When all that was
// waiting is delivered, other processes are told, too (kPlugInsChangeNotification), once that was asked for.
// Lives as long as its registry; any thread.

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <mutex>
#include <thread>
#include <vector>

#include "platform/hollin/HLApplicationWorkspace.h"

namespace platform::hollin {

class Announcer {
 public:
  Announcer() = default;
  /// Announcements that were not delivered are dropped.
  ~Announcer();
  Announcer(const Announcer&) = delete;
  Announcer& operator=(const Announcer&) = delete;

  void addObserver(HLApplicationWorkspaceObserverProtocol* observer);
  /// Waits for a running call of the observer, unless that call is where this is called from.
  void removeObserver(HLApplicationWorkspaceObserverProtocol* observer);

  /// Posts now, and from now on when observers were told.
  void startPosting();

  /// Never waits for an observer. Uninstalls are told before installs.
  void enqueue(HLProxyList uninstalled, HLProxyList installed);
  /// Drops what was not delivered yet.
  void forget();
  /// How many were delivered.
  uint64_t delivered() const { return delivered_.load(std::memory_order_relaxed); }

 private:
  struct Announcement {
    uint64_t number;
    HLProxyList uninstalled, installed;
  };
  struct Observer {
    HLApplicationWorkspaceObserverProtocol* observer;
    uint64_t since;  // the number of the first announcement that it hears
  };

  void run();
  void deliver(const Announcement& announcement, std::unique_lock<std::mutex>& lock);

  std::mutex mutex_;
  // Guarded by mutex_.
  std::condition_variable changed_;
  std::deque<Announcement> pending_;
  std::vector<Observer> observers_;
  HLApplicationWorkspaceObserverProtocol* called_ = nullptr;  // the observer that is being called
  uint64_t next_ = 0;
  bool hadObserver_ = false;
  bool isPosting_ = false;
  bool isStopping_ = false;
  std::atomic<uint64_t> delivered_{0};
  std::thread thread_;  // started with the first observer
};

}  // namespace platform::hollin
