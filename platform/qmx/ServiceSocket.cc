#include "platform/qmx/ServiceSocket.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

#include "platform/log/Log.h"
#include "platform/qmx/Listener.h"
#include "platform/qmx/ServiceAddress.h"
#include "platform/system/Directories.h"
#include "platform/system/ServiceManager.h"

namespace platform::qmx {

namespace {

constexpr mode_t kSocketMode = 0600;
constexpr mode_t kOthersBits = 0077;

/// Makes the directory of sockets, which only this user may enter. 0, or errno.
int prepareDirectory(const std::string& directory) {
  if (const int number = makeDirectories(directory, 0700); number != 0) return number;
  struct stat status {};
  if (stat(directory.c_str(), &status) != 0) return errno;
  if (status.st_uid != geteuid()) return EPERM;
  if ((status.st_mode & kOthersBits) == 0) return 0;
  return chmod(directory.c_str(), status.st_mode & 07700) == 0 ? 0 : errno;
}

/// Removes the file at `address` when it is a socket that nobody listens on. 0, or errno.
int removeStale(const sockaddr_un& address) {
  struct stat status {};
  if (lstat(address.sun_path, &status) != 0) return errno == ENOENT ? 0 : errno;
  if (!S_ISSOCK(status.st_mode)) return EEXIST;
  const FileDescriptor probe(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (!probe) return errno;
  if (connect(probe.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 ||
      errno == EAGAIN)
    return EADDRINUSE;
  if (errno == ENOENT) return 0;
  if (errno != ECONNREFUSED) return errno;
  systemLog("taking over the stale socket %s", address.sun_path);
  return unlink(address.sun_path) == 0 || errno == ENOENT ? 0 : errno;
}

}  // namespace

std::variant<ServiceSocket, Error> ServiceSocket::create(const std::string& serviceName) {
  const auto address = serviceAddress(serviceName);
  if (Directories::shared().runtime.empty())
    return Error::posix(ENOENT, "private runtime directory (XDG_RUNTIME_DIR)");
  if (const auto* number = std::get_if<int>(&address))
    return Error::posix(*number, "service name \"" + serviceName + "\"");
  ServiceSocket out;
  if (auto handedOver = takeServiceManagerSocket(serviceName)) {
    if (auto* error = std::get_if<Error>(&*handedOver)) return std::move(*error);
    out.socket_ = std::move(std::get<FileDescriptor>(*handedOver));
    return out;
  }
  const auto& target = std::get<sockaddr_un>(address);
  const std::string path = target.sun_path;
  if (const int number = prepareDirectory(Directories::shared().runtime); number != 0)
    return Error::posix(number, Directories::shared().runtime);

  out.lock_ =
      FileDescriptor(open((path + ".lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, kSocketMode));
  if (!out.lock_) return Error::posix(errno, path + ".lock");
  if (flock(out.lock_.get(), LOCK_EX | LOCK_NB) != 0)
    return Error::posix(errno == EWOULDBLOCK ? EADDRINUSE : errno, path);
  if (const int number = removeStale(target); number != 0) return Error::posix(number, path);

  out.socket_ = FileDescriptor(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  // The file gets the mode that the socket has before it is bound.
  if (!out.socket_ || fchmod(out.socket_.get(), kSocketMode) != 0 ||
      bind(out.socket_.get(), reinterpret_cast<const sockaddr*>(&target), sizeof target) != 0)
    return Error::posix(errno, path);
  out.path_ = path;
  return out;
}

ServiceSocket::ServiceSocket(ServiceSocket&& other) noexcept
    : lock_(std::move(other.lock_)),
      socket_(std::move(other.socket_)),
      path_(std::exchange(other.path_, {})) {}

ServiceSocket::~ServiceSocket() {
  // Still under the lock, so the file is ours.
  if (!path_.empty()) unlink(path_.c_str());
}

}  // namespace platform::qmx
