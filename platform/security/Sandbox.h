#pragma once

// Read tokens for files, and whether a process is confined. Any thread.

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>

#pragma GCC visibility push(default)

namespace platform {

/// What a token is bound to besides the path.
struct FilePlace {
  uint64_t device = 0, inode = 0;
  friend bool operator==(const FilePlace&, const FilePlace&) = default;
};

/// The place of the readable file or directory at the canonical `path`, or none with errno set: ELOOP when
/// the path is not canonical, or not any more.
std::optional<FilePlace> readablePlace(const std::string& path);

/// Issues a token that lets its holder ask the platform's broker to read the file or directory that was found
/// in `place` at the canonical `path`. Nothing is looked at: whoever is handed the token does.
/// Printable ASCII, self-contained, fresh each time, authenticated with the key in state/Sandbox.key (made
/// when missing, read once). None, with errno set, when the key cannot be had (EPERM when its file is not
/// this user's alone, EINVAL when it holds no key).
std::optional<std::string> issueReadToken(const std::string& path, const FilePlace& place);
/// The same for what is there now; errors are readablePlace()'s too.
std::optional<std::string> issueReadToken(const std::string& path);

/// A readable file that was found under another path, perhaps: by links, or by "..".
struct FoundFile {
  std::string path;  // canonical
  FilePlace place;
  int64_t changeNanoseconds = 0;

  /// Whether it is still what `named` leads to inside the bundle at the canonical `root`, unchanged: one look
  /// for it and for each directory between. False, too, when it was found by a link, which takes more.
  bool isStillIn(const std::string& root, const std::string& named) const;
};

/// What a path that was named relative to the bundle at the canonical `root` (absolute, or relative to
/// `root`) leads to. None, with errno set, when there is nothing that can be read; errno is EACCES when it
/// leads out of `root`.
std::optional<FoundFile> findReadableInside(const std::string& root, const std::string& path);

/// The broker's side: the canonical path that `token` is for, when it is authentic and the file is still the
/// same; none, with errno set (EBADMSG: not authentic; ESTALE: the file is another one; ELOOP: the path is
/// not canonical any more), otherwise.
std::optional<std::string> verifyReadToken(const std::string& token);

/// Whether the process is confined: more seccomp filters than this process, or another user, mount or pid
/// namespace; when in doubt, true. This process is taken as it was when this was first asked.
bool isSandboxed(pid_t pid);

}  // namespace platform

#pragma GCC visibility pop
