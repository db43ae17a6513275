#pragma once

// Owns one open file descriptor and closes it. A plain movable value; closing never changes errno.

#include <unistd.h>

#include <cerrno>
#include <utility>

#pragma GCC visibility push(default)

namespace platform {

class FileDescriptor {
 public:
  FileDescriptor() = default;
  /// Takes over `fd`; negative is none.
  explicit FileDescriptor(int fd) : fd_(fd) {}
  FileDescriptor(FileDescriptor&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
  FileDescriptor& operator=(FileDescriptor&& other) noexcept {
    std::swap(fd_, other.fd_);
    return *this;
  }
  ~FileDescriptor() {
    if (fd_ < 0) return;
    const int number = errno;
    ::close(fd_);
    errno = number;
  }

  explicit operator bool() const { return fd_ >= 0; }
  int get() const { return fd_; }
  /// Gives the descriptor to the caller.
  int release() { return std::exchange(fd_, -1); }

 private:
  int fd_ = -1;
};

}  // namespace platform

#pragma GCC visibility pop
