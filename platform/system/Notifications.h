#pragma once

// Named notifications across processes: runtime/Notifications/<name>. A post appends one byte to the file, so
// its size is the number of posts; observers watch it with inotify(7) and count by differences.

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "platform/queue/RunLoop.h"

#pragma GCC visibility push(default)

namespace platform {

/// Posted by the plug-in registry when plug-ins, or the SDKs they take over, have come, gone or changed, once
/// for what was announced together, and when the daemon begins to serve. Searches find by then what it is
/// about.
inline constexpr const char* kPlugInsChangeNotification = "com.veltra.hollin.plugins-change";

/// Posts `name` once; any thread. A failure to write is logged and otherwise ignored.
void postNotification(const std::string& name);

class NotificationObserver {
 public:
  /// Calls `handler` on `loop`'s thread with the number of posts since the last call (at least 1). Posts from
  /// before this constructor are not reported; those from after it are, however late the loop begins to run.
  /// The handler may destroy the observer. A file that was removed meanwhile begins to count anew.
  NotificationObserver(const std::string& name, RunLoop& loop, std::function<void(uint64_t posts)> handler);
  /// REQUIRES: called on the loop's thread, or with the loop not running.
  ~NotificationObserver();
  NotificationObserver(const NotificationObserver&) = delete;
  NotificationObserver& operator=(const NotificationObserver&) = delete;

  /// Whether the notification can be watched at all (the runtime directory exists and inotify has room).
  bool isWatching() const;

 private:
  struct Implementation;
  std::shared_ptr<Implementation> implementation_;
};

}  // namespace platform

#pragma GCC visibility pop
