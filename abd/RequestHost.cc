#include "abd/RequestHost.h"

#include <algorithm>

#include "Ambrel/ABProtocol.h"
#include "platform/log/Log.h"

namespace abd {

namespace {

std::shared_ptr<ABBundle> bundleOf(const qmx::PeerIdentity& peer) {
  const std::optional<std::string>& executable = peer.executablePath();
  return executable ? ABBundle::initWithExecutableURL(URL::file(*executable)) : nullptr;
}

}  // namespace

RequestHost::RequestHost(const std::shared_ptr<const qmx::PeerIdentity>& peer)
    : pid_(peer->pid()), bundle_(bundleOf(*peer)), task_(CodeSigningTask::create(peer)) {
  if (task_ != nullptr) lastRestriction_ = task_->valueForEntitlement(entitlement::allowedPlugIns).value;
}

RequestHost::RequestHost(const std::string& path)
    : bundle_(ABBundle::initWithPath(path)), task_(CodeSigningTask::ofBundle(path)) {}

RequestHost::RequestHost(const RequestHost& other)
    : pid_(other.pid_),
      bundle_(other.bundle_),
      task_(other.task_),
      lastRestriction_(other.lastRestriction_) {}

std::string RequestHost::name() const {
  const std::optional<std::string> path = bundle_ != nullptr ? bundle_->path() : std::nullopt;
  if (pid_ == 0) return path.value_or("(unknown)");
  return path ? format("%@ (pid %d)", *path, pid_) : format("process %d", pid_);
}

void RequestHost::beginRequest() {
  entitlements_.clear();
  restriction_ = nullptr;
  settings_ = RequestSettings();
}

Value RequestHost::entitlementValueForKey(std::string_view key) {
  if (task_ == nullptr) return {};
  const auto known = std::ranges::find(entitlements_, key, [](const auto& each) { return each.first; });
  if (known != entitlements_.end()) return known->second;
  CodeSigningTask::Answer answer = task_->valueForEntitlement(key);
  if (answer.error) systemLog("error retrieving entitlements for pid %d", pid_);
  if (key == entitlement::allowedPlugIns) {
    // What is lost with one's identity is what it allowed, not what it forbade.
    if (answer.error)
      answer.value = lastRestriction_;
    else
      lastRestriction_ = answer.value;
  }
  return entitlements_.emplace_back(key, std::move(answer.value)).second;
}

bool RequestHost::hasEntitlement(std::string_view key) {
  const Value value = entitlementValueForKey(key);
  return !value.isNone() && !value.isFalse();
}

const Rules& RequestHost::restriction(const Dictionary& rules) {
  if (restriction_ == nullptr) restriction_ = std::make_unique<const Rules>(rules, settings_.types());
  return *restriction_;
}

}  // namespace abd
