#pragma once

// Where a named service is: the socket address of its name. Pure; any thread.

#include <sys/un.h>

#include <string>
#include <variant>

namespace platform::qmx {

/// The address of the service, or errno: EINVAL for a name that cannot be a file name, ENAMETOOLONG for one
/// that does not fit a socket address, ENOENT when there is no runtime directory.
std::variant<sockaddr_un, int> serviceAddress(const std::string& serviceName);

}  // namespace platform::qmx
