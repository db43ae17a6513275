#pragma once

// Owns one file descriptor and closes it. Internal to this folder.

#include <unistd.h>

#include <utility>

namespace platform::detail {

class FileDescriptor {
 public:
  /// Takes over `number`, which is negative for none.
  explicit FileDescriptor(int number) : number_(number) {}
  FileDescriptor(FileDescriptor&& other) noexcept : number_(std::exchange(other.number_, -1)) {}
  FileDescriptor& operator=(FileDescriptor&&) = delete;
  ~FileDescriptor() { close(); }

  bool isValid() const { return number_ >= 0; }
  int get() const { return number_; }
  /// Closes now. False (and errno) when that reports an error, which a file system may do for a late write.
  bool close() { return number_ < 0 || ::close(std::exchange(number_, -1)) == 0; }

 private:
  int number_;
};

}  // namespace platform::detail
