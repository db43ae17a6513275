#include "platform/hollin/Announcer.h"

#include <algorithm>
#include <utility>

#include "platform/hollin/PlatformThread.h"
#include "platform/system/Notifications.h"

namespace platform::hollin {

Announcer::~Announcer() {
  {
    const std::lock_guard lock(mutex_);
    isStopping_ = true;
  }
  changed_.notify_all();
  if (thread_.joinable()) thread_.join();
}

void Announcer::addObserver(HLApplicationWorkspaceObserverProtocol* observer) {
  const std::lock_guard lock(mutex_);
  observers_.push_back({observer, std::exchange(hadObserver_, true) ? next_ : 0});
  if (!thread_.joinable()) thread_ = startPlatformThread("hollin-announce", [this] { run(); });
}

void Announcer::removeObserver(HLApplicationWorkspaceObserverProtocol* observer) {
  std::unique_lock lock(mutex_);
  std::erase_if(observers_, [observer](const Observer& entry) { return entry.observer == observer; });
  if (thread_.get_id() == std::this_thread::get_id()) return;
  changed_.wait(lock, [this, observer] { return called_ != observer; });
}

void Announcer::startPosting() {
  {
    const std::lock_guard lock(mutex_);
    isPosting_ = true;
  }
  postNotification(kPlugInsChangeNotification);
}

void Announcer::enqueue(HLProxyList uninstalled, HLProxyList installed) {
  if (uninstalled.empty() && installed.empty()) return;
  {
    const std::lock_guard lock(mutex_);
    const uint64_t number = next_++;
    if (hadObserver_ && observers_.empty()) return;
    pending_.push_back({number, std::move(uninstalled), std::move(installed)});
  }
  changed_.notify_all();
}

void Announcer::forget() {
  const std::lock_guard lock(mutex_);
  pending_.clear();
}

void Announcer::run() {
  std::unique_lock lock(mutex_);
  for (;;) {
    changed_.wait(lock, [this] { return isStopping_ || !pending_.empty(); });
    if (isStopping_) return;
    for (const Announcement& announcement : std::exchange(pending_, {})) {
      if (isStopping_) return;
      deliver(announcement, lock);
      delivered_.fetch_add(1, std::memory_order_relaxed);
    }
    if (!isPosting_) continue;
    lock.unlock();
    postNotification(kPlugInsChangeNotification);
    lock.lock();
  }
}

void Announcer::deliver(const Announcement& announcement, std::unique_lock<std::mutex>& lock) {
  const std::vector<Observer> observers = observers_;
  for (const Observer& entry : observers) {
    const bool isStillThere = std::any_of(observers_.begin(), observers_.end(), [&entry](const Observer& o) {
      return o.observer == entry.observer;
    });
    if (!isStillThere || entry.since > announcement.number) continue;
    called_ = entry.observer;
    lock.unlock();
    if (!announcement.uninstalled.empty()) entry.observer->pluginsWillUninstall(announcement.uninstalled);
    if (!announcement.installed.empty()) entry.observer->pluginsDidInstall(announcement.installed);
    lock.lock();
    called_ = nullptr;
    changed_.notify_all();
  }
}

}  // namespace platform::hollin
