// The holds. A hold lives in `holds_`, and in its client's list, until its token is released or its client
// dies. It blocks its plug-ins from the moment it is added; it is granted, with a reply, when those that were
// found free of holds before are enabled. `blockedPlugIns_` counts, for every plug-in, the holds that block
// it, so that asking costs the same however many there are. All three change together and only on
// "serverSync".
//
// No hold outlives its client, whichever comes first: a client's death marks the client on the same queue on
// which holds are added, and a hold that comes after the mark is released as soon as it was added.

#include <algorithm>
#include <utility>
#include <vector>

#include "Ambrel/ABProtocol.h"
#include "abd/ABDPlugInHold.h"
#include "abd/ABDQmxClient.h"
#include "abd/ABDServer.h"
#include "abd/plugin/ABDPlugIn.h"
#include "platform/log/Log.h"
#include "platform/system/Notifications.h"

namespace abd {

std::vector<std::shared_ptr<ABDPlugInHold>> ABDServer::holds() {
  return syncQueue_.sync([this] {
    std::vector<std::shared_ptr<ABDPlugInHold>> all;
    all.reserve(holds_.size());
    for (const auto& [token, hold] : holds_) all.push_back(hold);
    return all;
  });
}

bool ABDServer::holdOnPlugIn(const ABDPlugIn& plugIn) {
  return syncQueue_.sync([&] { return blockedPlugIns_.contains(plugIn.uuid()); });
}

std::vector<std::shared_ptr<ABDPlugInHold>> ABDServer::holdsOnPlugIn(const ABDPlugIn& plugIn) {
  return syncQueue_.sync([&] {
    std::vector<std::shared_ptr<ABDPlugInHold>> all;
    for (const auto& [token, hold] : holds_)
      if (std::ranges::any_of(hold->blocked(), [&](const auto& each) { return each->isEqual(&plugIn); }))
        all.push_back(hold);
    return all;
  });
}

ABDServer::Held ABDServer::heldBy(const ABDQmxClient& client) {
  return syncQueue_.sync([&] {
    Held held{client.holds_.size(), 0};
    for (const auto& hold : client.holds_) held.plugIns += hold->blocked().size();
    return held;
  });
}

ABDServer::Enabling::Enabling(ABDServer& server, const PlugIns& plugIns)
    : server_(server), plugIns_(plugIns) {
  server_.enabling_.push_back(&plugIns_);
}

ABDServer::Enabling::~Enabling() {
  std::erase(server_.enabling_, &plugIns_);
}

bool ABDServer::isEnabling(const ABDPlugInHold& hold) const {
  return std::ranges::any_of(enabling_, [&hold](const Enabling::PlugIns* plugIns) {
    return std::ranges::any_of(*plugIns, [&hold](const auto& each) { return hold.blocked().contains(each); });
  });
}

void ABDServer::addHold(const std::shared_ptr<ABDPlugInHold>& hold) {
  const std::shared_ptr<ABDQmxClient> client = hold->client();
  syncQueue_.sync([&] {
    for (const auto& plugIn : hold->blocked()) ++blockedPlugIns_[plugIn->uuid()];
    holds_.emplace(hold->uuid(), hold);
    if (client != nullptr) client->holds_.push_back(hold);
  });
  postNotification(kAnnotationChangeNotification);
  if (client == nullptr) return;
  syncQueue_.sync([&] {
    if (client->holdsDropped_) releaseHoldsOfDeadClient(*client);
  });
}

/// Takes a hold off everything but its client's list.
void ABDServer::removeHold(const ABDPlugInHold& hold) {
  for (const auto& plugIn : hold.blocked()) {
    const auto entry = blockedPlugIns_.find(plugIn->uuid());
    if (--entry->second == 0) blockedPlugIns_.erase(entry);
  }
  holds_.erase(hold.uuid());
  postNotification(kAnnotationChangeNotification);
}

void ABDServer::unholdToken(const UUID& token) {
  syncQueue_.sync([&] {
    const auto entry = holds_.find(token);
    if (entry == holds_.end()) return;
    const std::shared_ptr<ABDPlugInHold> hold = entry->second;
    systemLog("releasing plug-in hold %@ at client's request", token);
    if (const auto client = hold->client()) std::erase(client->holds_, hold);
    removeHold(*hold);
  });
}

void ABDServer::unholdClient(ABDQmxClient& client) {
  syncQueue_.sync([&] {
    client.holdsDropped_ = true;
    releaseHoldsOfDeadClient(client);
  });
}

void ABDServer::releaseHoldsOfDeadClient(ABDQmxClient& client) {
  for (const auto& hold : std::exchange(client.holds_, {})) {
    systemLog("releasing plug-in hold %@ for dead client pid %d", hold->uuid(), client.pid());
    removeHold(*hold);
  }
}

}  // namespace abd
