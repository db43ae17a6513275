#pragma once

// Processes that a test forks off, and the sockets and locks that they share with it.

#include <fcntl.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <functional>
#include <string>

#include "platform/system/FileDescriptor.h"

namespace testsupport {

using platform::FileDescriptor;

/// A child process. It prepares, says whether that went well, and lives until it is killed; it exits at once
/// when it went wrong. Killed with the object.
class Child {
 public:
  /// Returns when `prepare` has returned in the child, or when that has run another program or ended.
  explicit Child(const std::function<bool()>& prepare = [] { return true; });
  ~Child() { kill(); }
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;

  pid_t pid() const { return pid_; }
  bool isReady() const { return isReady_; }
  void signal(int number) const { ::kill(pid_, number); }
  /// Kills it and waits for its end.
  void kill();

 private:
  pid_t pid_;
  bool isReady_ = false;
};

/// A child process that has connected `socket`.
Child connectedByAChild(const std::string& path, const FileDescriptor& socket);

/// What `work` answers in a process of its own.
std::string answerOfProcess(const std::function<std::string()>& work);
/// Whether `work` holds in a process of its own.
inline bool holdsInProcess(const std::function<bool()>& work) {
  return answerOfProcess([&work] { return work() ? "yes" : "no"; }) == "yes";
}

sockaddr_un socketAddress(const std::string& path);
/// A socket at `path` (in the place of what was there) that listens, though nobody accepts.
FileDescriptor listeningSocket(const std::string& path);

/// Takes the write lock of a file (a read lock with another `type`), held until its descriptor is closed; an
/// invalid descriptor when that fails.
FileDescriptor lockedFile(const std::string& path, short type = F_WRLCK);

}  // namespace testsupport
