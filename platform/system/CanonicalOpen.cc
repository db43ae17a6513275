#include "platform/system/CanonicalOpen.h"

#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/syscall.h>

#include <string_view>

namespace platform {

namespace {

/// Whether no other text can be shorter for the same path.
bool isPlain(std::string_view path) {
  if (path.size() < 2 || path.front() != '/' || path.back() == '/') return false;
  if (path.find('\0') != std::string_view::npos) return false;
  for (size_t slash = 0; slash != std::string_view::npos; slash = path.find('/', slash + 1)) {
    const std::string_view rest = path.substr(slash + 1);
    const std::string_view component = rest.substr(0, rest.find('/'));
    if (component.empty() || component == "." || component == "..") return false;
  }
  return true;
}

}  // namespace

FileDescriptor openCanonical(const std::string& path, uint64_t flags) {
  if (!isPlain(path)) return FileDescriptor();
  open_how how{};
  how.flags = O_PATH | O_CLOEXEC | flags;
  how.resolve = RESOLVE_NO_SYMLINKS;
  return FileDescriptor(static_cast<int>(syscall(SYS_openat2, AT_FDCWD, path.c_str(), &how, sizeof how)));
}

}  // namespace platform
