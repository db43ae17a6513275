#pragma once

// Counts the open connections of a service, in all and per process, and says when another may come. Only on
// the loop's thread.

#include <sys/types.h>

#include <functional>
#include <memory>
#include <unordered_map>

namespace platform::qmx {

class Admissions : public std::enable_shared_from_this<Admissions> {
 public:
  /// Calls `left` after a connection was closed.
  explicit Admissions(std::function<void()> left) : left_(std::move(left)) {}

  /// A place for a connection of process `pid`, kept until the result is released; null when all that there
  /// are, or the process's share, are taken.
  std::shared_ptr<void> admit(pid_t pid);
  /// No more calls to `left`.
  void close() { left_ = nullptr; }

 private:
  void leave(pid_t pid);

  std::function<void()> left_;
  size_t total_ = 0;
  std::unordered_map<pid_t, size_t> perProcess_;
};

}  // namespace platform::qmx
