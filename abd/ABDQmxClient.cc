#include "abd/ABDQmxClient.h"

#include "Ambrel/ABProtocol.h"
#include "abd/ABDServer.h"
#include "abd/ABDTrace.h"
#include "platform/security/Sandbox.h"

namespace abd {

ABDQmxClient::ABDQmxClient(const std::shared_ptr<qmx::Connection>& connection, ABDServer& server,
                           Service service)
    : RequestHost(connection->peer()),
      connection_(connection),
      server_(server),
      service_(service),
      peer_(connection->peer()) {}

void ABDQmxClient::identify() {
  const std::optional<std::string>& executable = peer_->executablePath();
  server_.debug("client %d %s", pid(), executable ? *executable : std::string("(unknown)"));
  trace::clientNew(pid());
}

void ABDQmxClient::dying() {
  server_.debug("client %d termination imminent", pid());
}

void ABDQmxClient::dead() {
  server_.unholdClient(*this);
  server_.debug("client %d is dead", pid());
  acceptWork_.store(false, std::memory_order_release);
  trace::clientDone(pid());
  server_.clients_.erase(this);
}

bool ABDQmxClient::isUnsandboxed() const {
  // The pid still names this peer when its process is alive after the question was answered.
  return !isSandboxed(pid()) && peer_->isAlive();
}

bool ABDQmxClient::isManager() {
  return hasEntitlement(entitlement::manager) && isUnsandboxed();
}

std::string ABDQmxClient::description() const {
  const std::shared_ptr<qmx::Connection> peerConnection = connection();
  const auto address = static_cast<const void*>(this);
  if (peerConnection == nullptr) return format("<ABDQmxClient %p NO CONNECTION>", address);
  return format("<ABDQmxClient %p pid=%d con=%@>", address, pid(), *peerConnection);
}

}  // namespace abd
