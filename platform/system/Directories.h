#pragma once

// Where everything lies: the XDG base directories, each with "/veltra" appended. Read from the environment
// once, at first use; paths are canonical as far as they exist. Relative paths in the variables are ignored,
// and what nothing names is empty. Where roots overlap the first counts. Any thread.

#include <string>
#include <string_view>
#include <vector>

namespace platform {

struct Directories {
  std::string dataUser;                   // $XDG_DATA_HOME/veltra
  std::vector<std::string> dataSystem;    // every $XDG_DATA_DIRS entry + /veltra: the system volume
  std::vector<std::string> mimeData;      // every XDG data directory + /mime, the user's first
  std::string configUser;                 // $XDG_CONFIG_HOME/veltra
  std::vector<std::string> configDevice;  // every $XDG_CONFIG_DIRS entry + /veltra
  std::string state;                      // $XDG_STATE_HOME/veltra: the per-user directory
  std::string runtime;                    // $XDG_RUNTIME_DIR/veltra, or its stand-ins; empty when refused

  /// The process's directories.
  static const Directories& shared();
  /// Reads the environment anew; for shared() and for tests.
  static Directories fromEnvironment();
  /// The user's data root (unless empty) and those of the system, in the order in which they win.
  std::vector<std::string> dataRoots() const;
};

/// Creates `path` and missing parents, each new one with `mode`; errno on failure, 0 on success. An existing
/// directory is success.
int makeDirectories(const std::string& path, unsigned mode = 0700);

/// A directory of this user alone, made with mode 0700 when it is missing. An error number when it is a
/// symbolic link or no directory (ENOTDIR), someone else's (EPERM) or open to others (EACCES).
int makePrivateDirectory(const std::string& path);

/// The canonical absolute form of `path` (realpath(3)), or "" when it cannot be resolved.
std::string canonicalPath(const std::string& path);

/// The same for a path whose last components need not exist: these are appended as they are. "" when what
/// exists cannot be resolved, or when ".." stands in what does not exist.
std::string canonicalPathOfFutureFile(const std::string& path);

/// Whether canonical `path` is canonical `directory` or lies in it.
bool isInside(std::string_view path, std::string_view directory);

/// Whether `name` may become one file name: not empty, ".", "..", not over 200 bytes, without "/" and NUL.
bool isSafeFileName(std::string_view name);

}  // namespace platform
