#include "platform/qmx/Connection.h"

#include "platform/qmx/ClientConnection.h"

namespace platform::qmx {

std::string description(ConnectionError error) {
  switch (error) {
    case ConnectionError::terminationImminent:
      return "termination imminent";
    case ConnectionError::connectionInvalid:
      return "connection invalid";
    case ConnectionError::interrupted:
      return "connection interrupted";
  }
  return {};
}

std::shared_ptr<Connection> Connection::connect(const std::string& serviceName, SerialQueue& queue) {
  return std::make_shared<ClientConnection>(serviceName, queue);
}

}  // namespace platform::qmx
