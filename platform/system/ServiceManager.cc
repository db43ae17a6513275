#include "platform/system/ServiceManager.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <vector>

namespace platform {

namespace {

using namespace std::chrono_literals;
using std::chrono::microseconds;

constexpr int kFirstHandedOver = 3;
/// What a lagging manager has missed is told again.
constexpr microseconds kRetryInterval = 50ms;
constexpr microseconds kLongestInterval = 24h;

struct Manager {
  sockaddr_un address{};
  socklen_t length = 0;  // 0: there is none
  /// Between signs of life; 0: none are wanted.
  microseconds interval{0};
  /// Those that nobody has taken yet, and whether somebody has asked.
  std::vector<FileDescriptor> sockets;
  bool isAsked = false;
};

Manager& manager() {
  static Manager& manager = *new Manager;
  return manager;
}

/// A variable of the environment, which is taken out of it; empty when it is not there.
std::string takeVariable(const char* name) {
  const char* value = std::getenv(name);
  std::string taken = value == nullptr ? "" : value;
  unsetenv(name);
  return taken;
}

/// A number that is none is 0.
uint64_t number(const std::string& text) {
  return std::strtoull(text.c_str(), nullptr, 10);
}

bool isThisProcess(const std::string& text) {
  return number(text) == static_cast<uint64_t>(getpid());
}

void setAddress(const std::string& name) {
  Manager& it = manager();
  if (name.size() < 2 || name.size() >= sizeof it.address.sun_path || (name[0] != '/' && name[0] != '@'))
    return;
  it.address.sun_family = AF_UNIX;
  std::memcpy(it.address.sun_path, name.data(), name.size());
  // An abstract name begins with a zero byte and ends with its length.
  if (name[0] == '@') it.address.sun_path[0] = '\0';
  it.length =
      static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + name.size() + (name[0] == '/' ? 1 : 0));
}

/// The name of a local socket's file, empty for any other socket.
std::string fileName(const FileDescriptor& socket) {
  sockaddr_un address{};
  socklen_t size = sizeof address - 1;  // the path ends with a zero byte in any case
  if (getsockname(socket.get(), reinterpret_cast<sockaddr*>(&address), &size) != 0 ||
      address.sun_family != AF_UNIX)
    return {};
  const std::string path = address.sun_path;
  return path.substr(path.rfind('/') + 1);
}

/// 0, or errno.
int prepare(const FileDescriptor& socket) {
  int domain = 0, type = 0;
  socklen_t size = sizeof domain;
  if (getsockopt(socket.get(), SOL_SOCKET, SO_DOMAIN, &domain, &size) != 0 ||
      getsockopt(socket.get(), SOL_SOCKET, SO_TYPE, &type, &size) != 0)
    return errno;
  if (domain != AF_UNIX || type != SOCK_STREAM) return EINVAL;
  const int flags = fcntl(socket.get(), F_GETFL);
  return flags < 0 || fcntl(socket.get(), F_SETFL, flags | O_NONBLOCK) != 0 ? errno : 0;
}

/// Only what a signal handler may call.
void tellAndEnd(int signal) {
  tellServiceManager("STOPPING=1");
  std::raise(signal);
}

/// Signals end the process as before, when the manager has been told.
void announceSignals() {
  struct sigaction action {};
  action.sa_handler = tellAndEnd;
  action.sa_flags = static_cast<int>(SA_RESETHAND | SA_NODEFER);
  for (const int signal : {SIGTERM, SIGINT, SIGHUP}) {
    struct sigaction before {};
    if (sigaction(signal, nullptr, &before) == 0 && before.sa_handler == SIG_DFL)
      sigaction(signal, &action, nullptr);
  }
}

void announceReady(RunLoop& loop) {
  if (!tellServiceManager("READY=1")) loop.after(kRetryInterval, [&loop] { announceReady(loop); });
}

void giveSignsOfLife(RunLoop& loop, microseconds interval) {
  const bool isTold = tellServiceManager("WATCHDOG=1");
  loop.after(isTold ? interval : std::min(interval, kRetryInterval),
             [&loop, interval] { giveSignsOfLife(loop, interval); });
}

}  // namespace

void meetServiceManager() {
  Manager& it = manager();
  setAddress(takeVariable("NOTIFY_SOCKET"));
  const std::string watched = takeVariable("WATCHDOG_PID"), timeout = takeVariable("WATCHDOG_USEC");
  // Half of the time that it waits for one.
  if (watched.empty() || isThisProcess(watched))
    it.interval = microseconds(std::min<uint64_t>(number(timeout) / 2, kLongestInterval.count()));
  const std::string process = takeVariable("LISTEN_PID"), count = takeVariable("LISTEN_FDS");
  takeVariable("LISTEN_FDNAMES");
  if (!isThisProcess(process)) return;
  // One that is not open ends the list, whatever the manager says.
  for (uint64_t i = 0; i < number(count); ++i) {
    const int fd = kFirstHandedOver + static_cast<int>(i);
    if (fcntl(fd, F_SETFD, FD_CLOEXEC) != 0) break;
    it.sockets.emplace_back(fd);
  }
}

std::optional<std::variant<FileDescriptor, Error>> takeServiceManagerSocket(const std::string& service) {
  Manager& it = manager();
  const bool isFirst = !std::exchange(it.isAsked, true);
  if (it.sockets.empty()) return std::nullopt;
  auto found = std::ranges::find(it.sockets, service, fileName);
  if (found == it.sockets.end()) {
    if (!isFirst) return std::nullopt;
    if (it.sockets.size() > 1)
      return Error::posix(EINVAL, "none of the sockets that were handed over has the name of the service");
    found = it.sockets.begin();
  }
  FileDescriptor socket = std::move(*found);
  it.sockets.erase(found);
  if (const int error = prepare(socket); error != 0)
    return Error::posix(error, "what was handed over is no local stream socket");
  return socket;
}

bool tellServiceManager(std::string_view text) {
  const Manager& it = manager();
  if (it.length == 0) return true;
  const FileDescriptor socket(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  return !socket ||
         sendto(socket.get(), text.data(), text.size(), MSG_NOSIGNAL | MSG_DONTWAIT,
                reinterpret_cast<const sockaddr*>(&it.address), it.length) >= 0 ||
         errno != EAGAIN;
}

void announceService(RunLoop& loop) {
  const Manager& it = manager();
  if (it.length == 0) return;
  announceSignals();
  tellServiceManager("STATUS=idle");
  announceReady(loop);
  if (it.interval.count() > 0) giveSignsOfLife(loop, it.interval);
}

}  // namespace platform
