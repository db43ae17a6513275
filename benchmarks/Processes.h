#pragma once

// The processes that are measured: a daemon on a device of its own, and bare servers as baselines. All are
// children of this one, end with the object that owns them (or with this process), and write their logs to
// the null device. One thread.

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <string>
#include <utility>
#include <vector>

namespace bench {

/// The private directory of this run, made at first use and removed when the process exits. The XDG variables
/// of this process point into it, so nothing that is measured touches the user's own device.
const std::string& privateRoot();

/// Reports a condition without which nothing can be measured and ends the process.
[[noreturn]] void giveUp(const std::string& what);

/// One child. Killed and awaited when the object goes.
class Process {
 public:
  Process() = default;
  /// Runs `program` with `arguments` (the program's name not among them) and `environment` added to this
  /// process's.
  static Process spawn(const std::string& program, const std::vector<std::string>& arguments,
                       const std::vector<std::pair<std::string, std::string>>& environment);
  /// Runs `body` in a child, which exits after it.
  static Process fork(const std::function<void()>& body);
  Process(Process&& other) noexcept : pid_(std::exchange(other.pid_, 0)) {}
  Process& operator=(Process&& other) noexcept {
    std::swap(pid_, other.pid_);
    return *this;
  }
  ~Process();

  pid_t pid() const { return pid_; }
  /// Waits for its end.
  void wait();
  /// Anonymous memory that the process holds, in bytes.
  double anonymousMemory() const;

 private:
  explicit Process(pid_t pid) : pid_(pid) {}
  pid_t pid_ = 0;
};

/// A running `abd`. Applications come from `dataHome` (see Plugins.h), which several daemons may share; state
/// and runtime directories are this one's own, below `place`.
class Daemon {
 public:
  /// Starts the daemon and waits until it answers connections. `cacheLimit` below 0: the daemon's default.
  Daemon(const std::string& dataHome, const std::string& place, int cacheLimit);

  pid_t pid() const { return process_.pid(); }
  const std::string& socketPath() const { return socketPath_; }
  const std::string& place() const { return place_; }
  double anonymousMemory() const { return process_.anonymousMemory(); }
  /// From the start of the program until the first connection was made.
  double secondsToStart() const { return secondsToStart_; }

 private:
  std::string place_, socketPath_;
  Process process_;
  double secondsToStart_ = 0;
};

/// What a bare server does for one kind of request.
struct BareAnswer {
  std::string reply;           // sent as it is, frame head included
  std::function<void()> work;  // done before; may be empty
};

/// The least that can answer requests over a local socket: one thread, epoll, one read for what has arrived,
/// one write for each reply. A request is a frame whose body begins with the number of its answer (4 bytes,
/// big-endian); the rest is padding.
class BareServer {
 public:
  /// `joinsReplies`: the replies of one read are sent with one write.
  BareServer(std::vector<BareAnswer> answers, bool joinsReplies = false);

  pid_t pid() const { return process_.pid(); }
  const std::string& socketPath() const { return socketPath_; }

 private:
  std::string socketPath_;
  Process process_;
};

/// The request frame of `size` bytes (head included, at least 8) that a bare server answers with answer
/// `number`.
std::string bareRequest(size_t size, uint32_t number = 0);
/// A reply frame of `size` bytes (head included, at least 4).
std::string bareReply(size_t size);

}  // namespace bench
