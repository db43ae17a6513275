#include "platform/security/Sandbox.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <climits>
#include <string_view>

#include "platform/propertylist/FileReplacement.h"
#include "platform/security/TokenSeal.h"
#include "platform/system/CanonicalOpen.h"
#include "platform/system/Directories.h"
#include "platform/system/FileDescriptor.h"

namespace platform {

namespace {

/// The path that the kernel knows an open file by; "" and errno when there is none.
std::string pathOfDescriptor(int fd) {
  char link[32] = "/proc/self/fd/";
  *std::to_chars(link + 14, link + sizeof link - 1, fd).ptr = '\0';
  char target[PATH_MAX + 1];
  const ssize_t length = readlink(link, target, sizeof target);
  if (length < 0) return {};
  if (length > PATH_MAX || target[0] != '/') {
    errno = length > PATH_MAX ? ENAMETOOLONG : ENOENT;
    return {};
  }
  return std::string(target, static_cast<size_t>(length));
}

/// The file at the canonical `path`, opened for nothing but to be asked about. errno on failure.
FileDescriptor openExactly(const std::string& path) {
  if (FileDescriptor file = openCanonical(path)) return file;
  // Why not? Or this kernel cannot tell by opening.
  FileDescriptor file(open(path.c_str(), O_PATH | O_CLOEXEC));
  if (!file || pathOfDescriptor(file.get()) == path) return file;
  errno = ELOOP;
  return FileDescriptor();
}

/// Asks the opened file itself, so that nobody can swap it in between. False, with errno set, when it cannot
/// be read.
bool askReadable(const FileDescriptor& file, struct stat& status) {
  return fstat(file.get(), &status) == 0 && faccessat(file.get(), "", R_OK, AT_EMPTY_PATH | AT_EACCESS) == 0;
}

FilePlace placeOf(const struct stat& status) {
  return {status.st_dev, status.st_ino};
}

int64_t changeOf(const struct stat& status) {
  return FileIdentity::of(status).changeNanoseconds;
}

/// What /proc says of a process's confinement.
struct Confinement {
  int seccompMode = 0;
  std::optional<long> seccompFilters;  // none: this kernel does not count them
  std::string user, mount, pid;        // namespaces
  bool isKnown = false;
};

std::optional<long> statusNumber(const std::string& status, std::string_view field) {
  const size_t found = status.find("\n" + std::string(field) + ":");
  if (found == std::string::npos) return std::nullopt;
  const size_t digits = status.find_first_not_of(" \t", found + field.size() + 2);
  long number = 0;
  if (digits == std::string::npos) return std::nullopt;
  const auto end = std::from_chars(status.data() + digits, status.data() + status.size(), number);
  if (end.ec != std::errc()) return std::nullopt;
  return number;
}

bool readLink(const std::string& path, std::string& target) {
  char buffer[64];
  const ssize_t length = readlink(path.c_str(), buffer, sizeof buffer);
  if (length <= 0) return false;
  target.assign(buffer, static_cast<size_t>(length));
  return true;
}

/// Files of /proc have no size to be read by.
std::optional<std::string> readProcFile(const std::string& path) {
  const FileDescriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (!file) return std::nullopt;
  std::string contents;
  char buffer[4096];
  for (;;) {
    const ssize_t count = read(file.get(), buffer, sizeof buffer);
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return std::nullopt;
    if (count == 0) return contents;
    contents.append(buffer, static_cast<size_t>(count));
  }
}

Confinement confinementOf(const std::string& process) {
  Confinement out;
  const std::string directory = "/proc/" + process;
  const auto status = readProcFile(directory + "/status");
  if (!status) return out;
  const auto mode = statusNumber(*status, "Seccomp");
  out.seccompMode = static_cast<int>(mode.value_or(0));
  out.seccompFilters = statusNumber(*status, "Seccomp_filters");
  if (!out.seccompFilters && out.seccompMode == 0) out.seccompFilters = 0;
  out.isKnown = readLink(directory + "/ns/user", out.user) && readLink(directory + "/ns/mnt", out.mount) &&
                readLink(directory + "/ns/pid", out.pid);
  return out;
}

}  // namespace

std::optional<FilePlace> readablePlace(const std::string& path) {
  const FileDescriptor file = openExactly(path);
  struct stat status {};
  if (!file || !askReadable(file, status)) return std::nullopt;
  return placeOf(status);
}

std::optional<std::string> issueReadToken(const std::string& path, const FilePlace& place) {
  return TokenSeal::seal({path, place.device, place.inode});
}

std::optional<std::string> issueReadToken(const std::string& path) {
  const auto place = readablePlace(path);
  return place ? issueReadToken(path, *place) : std::nullopt;
}

bool FoundFile::isStillIn(const std::string& root, const std::string& named) const {
  if (named != path || !isInside(path, root)) return false;
  struct stat status {};
  for (size_t slash = path.find('/', root.size() + 1); slash != std::string::npos;
       slash = path.find('/', slash + 1))
    if (lstat(path.substr(0, slash).c_str(), &status) != 0 || !S_ISDIR(status.st_mode)) return false;
  return lstat(path.c_str(), &status) == 0 && placeOf(status) == place &&
         changeOf(status) == changeNanoseconds;
}

std::optional<FoundFile> findReadableInside(const std::string& root, const std::string& path) {
  FoundFile found{path.starts_with('/') ? path : root + "/" + path, {}, 0};
  FileDescriptor file = openCanonical(found.path);
  if (!file) {
    file = FileDescriptor(open(found.path.c_str(), O_PATH | O_CLOEXEC));
    found.path = file ? pathOfDescriptor(file.get()) : std::string();
  }
  struct stat status {};
  if (found.path.empty()) return std::nullopt;
  if (!isInside(found.path, root)) {
    errno = EACCES;
    return std::nullopt;
  }
  if (!askReadable(file, status)) return std::nullopt;
  // The kernel's own mark on the path of a file that has lost its name.
  if (status.st_nlink == 0 && found.path.ends_with(" (deleted)")) {
    errno = ENOENT;
    return std::nullopt;
  }
  found.place = placeOf(status);
  found.changeNanoseconds = changeOf(status);
  return found;
}

std::optional<std::string> verifyReadToken(const std::string& token) {
  const auto sealed = TokenSeal::open(token);
  if (!sealed) return std::nullopt;
  const FileDescriptor file = openExactly(sealed->path);
  struct stat status {};
  if (!file || fstat(file.get(), &status) != 0) return std::nullopt;
  if (placeOf(status) != FilePlace{sealed->device, sealed->inode}) {
    errno = ESTALE;
    return std::nullopt;
  }
  return sealed->path;
}

bool isSandboxed(pid_t pid) {
  if (pid <= 0) return true;
  const Confinement theirs = confinementOf(std::to_string(pid));
  static const Confinement first = confinementOf("self");
  const Confinement ours = first.isKnown ? first : confinementOf("self");
  if (!theirs.isKnown || !ours.isKnown) return true;
  if (theirs.user != ours.user || theirs.mount != ours.mount || theirs.pid != ours.pid) return true;
  if (theirs.seccompMode == 0) return false;
  // Strict mode has no filters to count, and some kernels count none.
  if (theirs.seccompMode != ours.seccompMode) return true;
  return !theirs.seccompFilters || !ours.seccompFilters || *theirs.seccompFilters > *ours.seccompFilters;
}

}  // namespace platform
