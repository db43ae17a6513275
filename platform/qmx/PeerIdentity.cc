#include "platform/qmx/PeerIdentity.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdlib>
#include <ctime>
#include <string_view>

#include "platform/log/Format.h"
#include "platform/system/Directories.h"
#include "platform/system/FileDescriptor.h"

#ifndef SO_PEERPIDFD
#define SO_PEERPIDFD 77
#endif

namespace platform::qmx {

namespace {

/// Bytes of an executable's path; a longer one counts as unknown.
constexpr size_t kLongestPath = 2048;

/// Clock ticks since the system was started.
uint64_t ticksNow() {
  timespec now{};
  clock_gettime(CLOCK_BOOTTIME, &now);
  const auto perSecond = static_cast<uint64_t>(sysconf(_SC_CLK_TCK));
  return static_cast<uint64_t>(now.tv_sec) * perSecond +
         static_cast<uint64_t>(now.tv_nsec) * perSecond / 1'000'000'000;
}

/// When the process was started, in clock ticks since the system was; none when it cannot be told.
std::optional<uint64_t> startTicks(pid_t pid) {
  const FileDescriptor file(open(format("/proc/%d/stat", pid).c_str(), O_RDONLY | O_CLOEXEC));
  std::array<char, 2048> text;
  const ssize_t count = file ? read(file.get(), text.data(), text.size() - 1) : -1;
  if (count <= 0) return std::nullopt;
  const std::string_view all(text.data(), static_cast<size_t>(count));
  // The name stands in parentheses and may hold anything; the start time is the 20th field after it.
  size_t at = all.rfind(')');
  for (int field = 0; field < 20 && at != std::string_view::npos; ++field) at = all.find(' ', at + 1);
  if (at == std::string_view::npos) return std::nullopt;
  text[static_cast<size_t>(count)] = '\0';
  return std::strtoull(text.data() + at, nullptr, 10);
}

/// A descriptor of the process that made the connection; -1 when it cannot be told for certain.
int processOfSocket(int fd, pid_t pid) {
  int process = -1;
  socklen_t size = sizeof process;
  if (getsockopt(fd, SOL_SOCKET, SO_PEERPIDFD, &process, &size) == 0) return process;
  if (errno != ENOPROTOOPT || pid <= 0) return -1;
  // An older kernel: the pid may have been given to another process since.
  const uint64_t now = ticksNow();
  FileDescriptor opened(static_cast<int>(syscall(SYS_pidfd_open, pid, 0)));
  const std::optional<uint64_t> started = startTicks(pid);
  if (!opened || !started || *started > now) return -1;
  return opened.release();
}

std::optional<struct statx> look(const std::string& path) {
  struct statx file {};
  constexpr unsigned kWanted = STATX_TYPE | STATX_MODE | STATX_UID | STATX_INO | STATX_MNT_ID;
  if (statx(AT_FDCWD, path.c_str(), 0, kWanted, &file) != 0 || (file.stx_mask & kWanted) != kWanted)
    return std::nullopt;
  return file;
}

/// Whether the executable at `path` took the place of the running `image`, which lay there. The kernel's path
/// of an image that lies nowhere any more is that of its old directory, in the mount namespace that it was
/// started in and wherever that directory was moved to; so it counts only when it leads through no link and
/// to the same mount. Whoever can bring about all that by means of a file of his own can write where the
/// bundle lies.
bool isSuccessor(const std::string& path, const struct statx& image) {
  const auto file = look(path);
  return file && S_ISREG(file->stx_mode) && (file->stx_mode & S_IXUSR) != 0 &&
         file->stx_uid == image.stx_uid && file->stx_mnt_id == image.stx_mnt_id &&
         canonicalPath(path) == path;
}

/// Where the executable behind a process's `link` lies, or lay before another file of its owner took its
/// place, as an update does it; none when that cannot be told for certain.
std::optional<std::string> pathOfExecutable(const std::string& link) {
  constexpr std::string_view kDeleted = " (deleted)";
  std::array<char, kLongestPath> target;
  const ssize_t length = readlink(link.c_str(), target.data(), target.size());
  const auto image = look(link);
  if (length <= 0 || static_cast<size_t>(length) == target.size() || !image) return std::nullopt;
  std::string path(target.data(), static_cast<size_t>(length));
  // The path of a renamed file, or of another mount namespace, leads elsewhere.
  const auto file = look(path);
  if (file && file->stx_ino == image->stx_ino && file->stx_dev_major == image->stx_dev_major &&
      file->stx_dev_minor == image->stx_dev_minor)
    return path;
  if (!path.ends_with(kDeleted)) return std::nullopt;
  path.resize(path.size() - kDeleted.size());
  return isSuccessor(path, *image) ? std::optional(std::move(path)) : std::nullopt;
}

bool hasExited(int pidfd) {
  pollfd process{.fd = pidfd, .events = POLLIN, .revents = 0};
  return poll(&process, 1, 0) != 0;
}

}  // namespace

std::shared_ptr<const PeerIdentity> PeerIdentity::ofSocket(int fd) {
  const std::shared_ptr<PeerIdentity> identity(new PeerIdentity);
  ucred credentials{};
  socklen_t size = sizeof credentials;
  if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &credentials, &size) != 0) {
    identity->uid_ = static_cast<uid_t>(-1);
    return identity;
  }
  identity->pid_ = credentials.pid;
  identity->uid_ = credentials.uid;
  identity->pidfd_ = processOfSocket(fd, credentials.pid);
  if (identity->pidfd_ < 0) return identity;

  const std::string link = format("/proc/%d/exe", credentials.pid);
  struct stat image {};
  if (stat(link.c_str(), &image) != 0) return identity;
  std::optional<std::string> executable = pathOfExecutable(link);
  // While the process was there all along, so was its entry.
  if (hasExited(identity->pidfd_)) return identity;
  identity->executablePath_ = std::move(executable);
  identity->device_ = image.st_dev;
  identity->inode_ = image.st_ino;
  return identity;
}

PeerIdentity::~PeerIdentity() {
  if (pidfd_ >= 0) close(pidfd_);
}

bool PeerIdentity::isAlive() const {
  return pidfd_ >= 0 && !hasExited(pidfd_);
}

bool PeerIdentity::runsSameImage() const {
  struct stat image {};
  return executablePath_ && stat(format("/proc/%d/exe", pid_).c_str(), &image) == 0 &&
         image.st_dev == device_ && image.st_ino == inode_ && isAlive();
}

}  // namespace platform::qmx
