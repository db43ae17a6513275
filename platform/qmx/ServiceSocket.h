#pragma once

// The socket of a named service, before anybody listens on it: taken from the service manager, or bound in
// the runtime directory under a lock file that is held as long as this object lives. Any thread.

#include <string>
#include <variant>

#include "platform/system/FileDescriptor.h"
#include "platform/value/Error.h"

namespace platform::qmx {

class ServiceSocket {
 public:
  /// Errors: an unusable name (EINVAL, ENAMETOOLONG), somebody else serves the name (EADDRINUSE), or the
  /// system's own.
  static std::variant<ServiceSocket, Error> create(const std::string& serviceName);

  /// An empty one.
  ServiceSocket() = default;
  ServiceSocket(ServiceSocket&& other) noexcept;
  ServiceSocket& operator=(ServiceSocket&&) = delete;
  /// Removes the file of a socket that was bound here.
  ~ServiceSocket();

  /// Non-blocking; owned by this object.
  int fd() const { return socket_.get(); }

 private:
  FileDescriptor lock_, socket_;
  /// Empty when the socket was handed over.
  std::string path_;
};

}  // namespace platform::qmx
