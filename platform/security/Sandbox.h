#pragma once

// Read tokens for files, and whether a process is confined. Any thread.

#include <sys/types.h>

#include <optional>
#include <string>

namespace platform {

/// Issues a token that lets its holder ask the platform's broker to read the file or directory at `path`.
/// Printable ASCII, self-contained, fresh each time, bound to the canonical path, device and inode,
/// authenticated with the key in state/Sandbox.key (made when missing, read once). None, with errno set, when
/// the path does not exist or cannot be read, or the key cannot be had (EPERM when its file is not this
/// user's alone, EINVAL when it holds no key).
std::optional<std::string> issueReadToken(const std::string& path);

/// The same for a path that was named relative to the bundle at `root` (absolute, or relative to `root`):
/// when its canonical form leads out of `root` there is no token and errno is EACCES.
std::optional<std::string> issueReadTokenInside(const std::string& root, const std::string& path);

/// The broker's side: the canonical path that `token` is for, when it is authentic and the file is still the
/// same; none, with errno set (EBADMSG: not authentic; ESTALE: the file is another one), otherwise.
std::optional<std::string> verifyReadToken(const std::string& token);

/// Whether the process is confined: more seccomp filters than this process, or another user, mount or pid
/// namespace; when in doubt, true. This process is taken as it was when this was first asked.
bool isSandboxed(pid_t pid);

}  // namespace platform
