#pragma once

// Waiting for whatever comes first: a signal to stop, the loss of the daemon, posts of a notification. Made
// and waited on by the main thread; the rest may report from any thread.

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "platform/qmx/Connection.h"
#include "platform/queue/SerialQueue.h"
#include "platform/system/FileDescriptor.h"

namespace abctl {

class Waiting {
 public:
  /// From here on SIGINT, SIGTERM and SIGHUP are events of wait(), not ends of the process.
  /// REQUIRES: no other thread runs yet (they inherit the blocked signals).
  Waiting();
  ~Waiting();
  Waiting(const Waiting&) = delete;
  Waiting& operator=(const Waiting&) = delete;

  /// Readable when wait() would report a stop, for those who wait for something else meanwhile.
  int stopDescriptor() const { return signals_.get(); }

  /// Reports the end of the daemon behind `service`, by a connection of its own on which nothing is sent.
  void watchDaemon(const std::string& service);
  void reportPosts(uint64_t posts);

  enum class Event { stop, lost, posts, timeout };
  struct Result {
    Event event = Event::timeout;
    uint64_t posts = 0;
  };
  /// Waits at most `seconds`, without a limit when there is none.
  Result wait(std::optional<double> seconds = std::nullopt);

 private:
  /// Counters that other threads raise; shared with closures that may outlive this object.
  struct Counters {
    Counters();
    platform::FileDescriptor posts, lost;
  };

  platform::FileDescriptor signals_;
  std::shared_ptr<Counters> counters_;
  std::unique_ptr<platform::SerialQueue> queue_;
  std::shared_ptr<platform::qmx::Connection> connection_;
};

}  // namespace abctl
