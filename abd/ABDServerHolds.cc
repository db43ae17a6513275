// The hold list. A hold lives in `holds_` from its grant until its token is released or its client dies;
// `blockedPlugIns_` counts, for every plug-in, the holds of the list that block it, so that asking costs the
// same however many there are. Both change together and only on "serverSync".
//
// No hold outlives its client, whichever comes first: a client's death marks the client on the same queue on
// which holds are added, and a hold that comes after the mark is released as soon as it was added.

#include <algorithm>

#include "Ambrel/ABProtocol.h"
#include "abd/ABDPlugInHold.h"
#include "abd/ABDQmxClient.h"
#include "abd/ABDServer.h"
#include "abd/plugin/ABDPlugIn.h"
#include "platform/log/Log.h"
#include "platform/system/Notifications.h"

namespace abd {

bool ABDServer::holdOnPlugIn(const ABDPlugIn& plugIn) {
  return syncQueue_.sync([&] { return blockedPlugIns_.contains(plugIn.uuid()); });
}

void ABDServer::addHold(const std::shared_ptr<ABDPlugInHold>& hold) {
  const std::shared_ptr<ABDQmxClient> client = hold->client();
  syncQueue_.sync([&] {
    for (const auto& plugIn : hold->blocked()) ++blockedPlugIns_[plugIn->uuid()];
    holds_.push_back(hold);
  });
  postNotification(kAnnotationChangeNotification);
  if (client == nullptr) return;
  syncQueue_.sync([&] {
    if (client->holdsDropped_) releaseHoldsOfDeadClient(*client);
  });
}

ABDServer::Holds::iterator ABDServer::removeHold(Holds::iterator hold) {
  for (const auto& plugIn : (*hold)->blocked()) {
    const auto entry = blockedPlugIns_.find(plugIn->uuid());
    if (--entry->second == 0) blockedPlugIns_.erase(entry);
  }
  const auto next = holds_.erase(hold);
  postNotification(kAnnotationChangeNotification);
  return next;
}

void ABDServer::unholdToken(const UUID& token) {
  syncQueue_.sync([&] {
    const auto hold = std::ranges::find(holds_, token, [](const auto& each) { return each->uuid(); });
    if (hold == holds_.end()) return;
    systemLog("releasing plug-in hold %@ at client's request", token);
    removeHold(hold);
  });
}

void ABDServer::unholdClient(ABDQmxClient& client) {
  syncQueue_.sync([&] {
    client.holdsDropped_ = true;
    releaseHoldsOfDeadClient(client);
  });
}

void ABDServer::releaseHoldsOfDeadClient(const ABDQmxClient& client) {
  for (auto hold = holds_.begin(); hold != holds_.end();) {
    if ((*hold)->client().get() != &client) {
      ++hold;
      continue;
    }
    systemLog("releasing plug-in hold %@ for dead client pid %d", (*hold)->uuid(), client.pid());
    hold = removeHold(hold);
  }
}

}  // namespace abd
