#include <sys/socket.h>
#include <sys/un.h>

#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>

#include "platform/launcher/ServiceLauncher.h"
#include "platform/system/FileDescriptor.h"

namespace platform {

namespace {

/// The service manager's socket, from $NOTIFY_SOCKET; length 0 when there is none.
struct ManagerAddress {
  sockaddr_un address{};
  socklen_t length = 0;
};

ManagerAddress readManagerAddress() {
  ManagerAddress out;
  const char* name = std::getenv("NOTIFY_SOCKET");
  if (name == nullptr || (*name != '/' && *name != '@')) return out;
  const size_t size = std::strlen(name);
  if (size < 2 || size >= sizeof out.address.sun_path) return out;
  out.address.sun_family = AF_UNIX;
  std::memcpy(out.address.sun_path, name, size);
  // An abstract name begins with a zero byte and ends with its length.
  if (*name == '@') out.address.sun_path[0] = '\0';
  out.length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + size + (*name == '/' ? 1 : 0));
  return out;
}

/// A manager that does not listen or lags behind misses a text; the next one says the same better.
void tellServiceManager(const std::string& text) {
  static const ManagerAddress manager = readManagerAddress();
  if (manager.length == 0) return;
  const FileDescriptor socket(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (!socket) return;
  [[maybe_unused]] const ssize_t sent =
      sendto(socket.get(), text.data(), text.size(), MSG_NOSIGNAL | MSG_DONTWAIT,
             reinterpret_cast<const sockaddr*>(&manager.address), manager.length);
}

// The texts are sent under the lock, so that the last one sent tells the last count.
std::mutex mutex;
uint32_t openMarkings = 0;

void changeCount(int difference) {
  const std::lock_guard lock(mutex);
  openMarkings += static_cast<uint32_t>(difference);
  tellServiceManager(openMarkings == 0 ? std::string("STATUS=idle")
                                       : "STATUS=busy (" + std::to_string(openMarkings) + ")");
}

}  // namespace

BusyMarking::BusyMarking() {
  changeCount(1);
}

BusyMarking::~BusyMarking() {
  changeCount(-1);
}

}  // namespace platform
