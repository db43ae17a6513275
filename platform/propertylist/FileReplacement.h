#pragma once

// Durable, atomic replacement of a whole file, and the identity by which a file counts as unchanged. Any
// thread.

#include <compare>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <variant>

#include "platform/value/Error.h"

#pragma GCC visibility push(default)

struct stat;

namespace platform {

/// Writes `bytes` to a temporary file beside `path` (permissions 0666 less the process's umask), syncs it,
/// renames it over `path` and syncs the directory, in that order; when this returns no error the contents
/// survive power loss. On an error (domain "POSIX") the old file is intact and the temporary one is removed.
std::optional<Error> replaceFile(const std::string& path, std::string_view bytes);

/// Gives the file at `path` another, unused name beside it (`path` and ".damaged-<time>"), under which it
/// stays when `path` is replaced: `path` keeps it until then where the file system can give a file two names.
/// Answers the name, or an error (domain "POSIX").
std::variant<std::string, Error> keepAside(const std::string& path);

/// Removes temporary files that a killed replaceFile() of `path` left behind.
void sweepTemporaryFiles(const std::string& path);

/// Device, inode, size, modification and change time: two equal identities mean unchanged contents.
struct FileIdentity {
  uint64_t device = 0, inode = 0, size = 0;
  int64_t modificationNanoseconds = 0, changeNanoseconds = 0;

  static FileIdentity of(const struct stat& status);
  /// None when the file is missing or is not a regular file (symbolic links are followed).
  static std::optional<FileIdentity> ofFile(const std::string& path);
  /// False while the file changed so short a time ago that it may change again without another time stamp
  /// (file systems take theirs from a clock that ticks a few hundred times a second at most): what was read
  /// from it then is not to be kept.
  bool isSettled() const;
  friend auto operator<=>(const FileIdentity&, const FileIdentity&) = default;
};

}  // namespace platform

#pragma GCC visibility pop
