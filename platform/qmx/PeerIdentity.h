#pragma once

// Who is at the other end of a connection, taken when it was accepted. Immutable; any thread.

#include <sys/types.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#pragma GCC visibility push(default)

namespace platform::qmx {

class PeerIdentity {
 public:
  /// Reads the kernel's peer credentials, a pidfd and the executable of the connected stream socket `fd`
  /// (borrowed).
  static std::shared_ptr<const PeerIdentity> ofSocket(int fd);
  ~PeerIdentity();
  PeerIdentity(const PeerIdentity&) = delete;
  PeerIdentity& operator=(const PeerIdentity&) = delete;

  pid_t pid() const { return pid_; }
  uid_t uid() const { return uid_; }
  /// Canonical path of the executable; none when it cannot be told for certain. One whose file was replaced
  /// by another executable of the same owner has the path of that.
  const std::optional<std::string>& executablePath() const { return executablePath_; }
  /// A descriptor of the process (pidfd_open(2)), owned by this object; -1 when the process is unknown.
  int pidfd() const { return pidfd_; }
  /// Whether the process still exists.
  bool isAlive() const;
  /// Whether the process is alive and still runs the image that it had when it connected, wherever that lies
  /// now.
  bool runsSameImage() const;

 private:
  PeerIdentity() = default;
  pid_t pid_ = 0;
  uid_t uid_ = 0;
  int pidfd_ = -1;
  std::optional<std::string> executablePath_;
  uint64_t device_ = 0, inode_ = 0;
};

}  // namespace platform::qmx

#pragma GCC visibility pop
