#pragma once

// Where everything lies: the XDG base directories, each with "/veltra" appended. Read from the environment
// once, at first use; paths are canonical where they exist. Any thread.

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
};

/// Creates `path` and missing parents, each new one with `mode`; errno on failure, 0 on success. An existing
/// directory is success.
int makeDirectories(const std::string& path, unsigned mode = 0700);

/// The canonical absolute form of `path` (realpath(3)), or "" when it cannot be resolved.
std::string canonicalPath(const std::string& path);

/// Whether `name` may become one file name: not empty, ".", "..", not over 200 bytes, without "/" and NUL.
bool isSafeFileName(std::string_view name);

}  // namespace platform
