#include "platform/qmx/ServiceAddress.h"

#include <sys/socket.h>

#include <cerrno>
#include <cstring>

#include "platform/qmx/Listener.h"
#include "platform/system/Directories.h"

namespace platform::qmx {

std::string servicePath(const std::string& serviceName) {
  return Directories::shared().runtime + "/" + serviceName;
}

std::variant<sockaddr_un, int> serviceAddress(const std::string& serviceName) {
  if (!isSafeFileName(serviceName)) return EINVAL;
  if (Directories::shared().runtime.empty()) return ENOENT;
  const std::string path = servicePath(serviceName);
  sockaddr_un address{};
  if (path.size() >= sizeof address.sun_path) return ENAMETOOLONG;
  address.sun_family = AF_UNIX;
  std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
  return address;
}

}  // namespace platform::qmx
