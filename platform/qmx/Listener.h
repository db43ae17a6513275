#pragma once

// The listening end of a named service: $XDG_RUNTIME_DIR/veltra/<name>, mode 0600, or a socket that the
// service manager handed over (platform/system/ServiceManager.h). Only this user and root may connect.

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <variant>

#include "platform/qmx/Connection.h"
#include "platform/queue/RunLoop.h"
#include "platform/queue/SerialQueue.h"
#include "platform/value/Error.h"

namespace platform::qmx {

class Listener {
 public:
  using ConnectionHandler = std::function<void(std::shared_ptr<Connection>)>;

  /// Binds the service's socket on `loop` (nobody can connect yet); the handler runs on `queue` (bound to the
  /// same loop, kept by the caller while the listener lives). Errors: an unusable name, a living daemon on
  /// the same name (EADDRINUSE), or the system's own. A stale socket file is taken over under a lock file.
  static std::variant<std::unique_ptr<Listener>, Error> create(const std::string& serviceName,
                                                               SerialQueue& queue, RunLoop& loop);

  virtual ~Listener() = default;
  /// Called for each new peer, with the connection suspended. Set before resume().
  virtual void setConnectionHandler(ConnectionHandler handler) = 0;
  /// Starts listening and accepting. An error: nobody will ever be accepted.
  virtual std::optional<Error> resume() = 0;
};

/// Directory and file of a service's socket.
std::string servicePath(const std::string& serviceName);

}  // namespace platform::qmx
