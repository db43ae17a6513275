#include "abd/ABDQmxClient.h"

#include <algorithm>

#include "Ambrel/ABProtocol.h"
#include "abd/ABDServer.h"
#include "abd/ABDTrace.h"
#include "platform/security/Sandbox.h"

namespace abd {

ABDQmxClient::ABDQmxClient(const std::shared_ptr<qmx::Connection>& connection, ABDServer& server)
    : connection_(connection), server_(server), peer_(connection->peer()) {}

void ABDQmxClient::identify() {
  const std::optional<std::string>& executable = peer_->executablePath();
  if (executable) bundle_ = ABBundle::initWithExecutableURL(URL::file(*executable));
  server_.debug("client %d %s", pid(), executable ? *executable : std::string("(unknown)"));
  trace::clientNew(pid());
  task_ = CodeSigningTask::create(peer_);
  if (task_ != nullptr) lastRestriction_ = task_->valueForEntitlement(entitlement::allowedPlugIns).value;
}

void ABDQmxClient::dying() {
  server_.debug("client %d termination imminent", pid());
}

void ABDQmxClient::dead() {
  server_.unholdClient(*this);
  server_.debug("client %d is dead", pid());
  acceptWork_.store(false, std::memory_order_release);
  trace::clientDone(pid());
}

Value ABDQmxClient::entitlementValueForKey(std::string_view key) {
  if (task_ == nullptr) return {};
  const auto known = std::ranges::find(entitlements_, key, [](const auto& each) { return each.first; });
  if (known != entitlements_.end()) return known->second;
  CodeSigningTask::Answer answer = task_->valueForEntitlement(key);
  if (answer.error) server_.log("error retrieving entitlements for pid %d", pid());
  if (key == entitlement::allowedPlugIns) {
    // What is lost with one's identity is what it allowed, not what it forbade.
    if (answer.error)
      answer.value = lastRestriction_;
    else
      lastRestriction_ = answer.value;
  }
  return entitlements_.emplace_back(key, std::move(answer.value)).second;
}

bool ABDQmxClient::hasEntitlement(std::string_view key) {
  const Value value = entitlementValueForKey(key);
  return !value.isNone() && !value.isFalse();
}

const Rules& ABDQmxClient::restriction(const Dictionary& rules) {
  if (restriction_ == nullptr) restriction_ = std::make_unique<const Rules>(rules, settings_.types());
  return *restriction_;
}

bool ABDQmxClient::isUnsandboxed() const {
  // The pid still names this peer when its process is alive after the question was answered.
  return !isSandboxed(pid()) && peer_->isAlive();
}

std::string ABDQmxClient::description() const {
  const std::shared_ptr<qmx::Connection> peerConnection = connection();
  const auto address = static_cast<const void*>(this);
  if (peerConnection == nullptr) return format("<ABDQmxClient %p NO CONNECTION>", address);
  return format("<ABDQmxClient %p pid=%d con=%@>", address, pid(), *peerConnection);
}

}  // namespace abd
