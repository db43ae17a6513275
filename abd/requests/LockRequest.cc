// "lock" puts plug-ins on hold, or releases holds that were granted before.

#include <string>

#include "Ambrel/ABCollections.h"
#include "Ambrel/ABProtocol.h"
#include "abd/ABDQmxClient.h"
#include "abd/ABDServer.h"
#include "abd/plugin/ABDPlugIn.h"
#include "abd/requests/Walks.h"

namespace abd {

namespace {

/// A list of plug-ins, for the log.
struct PlugInList {
  const ABDPlugInHold::PlugIns& plugIns;
  std::string description() const {
    std::string text = "(";
    for (const auto& plugIn : plugIns) {
      if (text.size() > 1) text += ", ";
      text += format("%@(%@)", plugIn->identifier(), plugIn->uuid());
    }
    return text + ")";
  }
};

}  // namespace

Course Transaction::lockDownPlugIns() {
  if (std::optional<Array> tokens = qmx_dictionary_get_array(request_.body, key::uuids))
    return releaseHolds(*std::move(tokens));
  return holdPlugIns();
}

Course Transaction::releaseHolds(Array tokens) {
  for (const Value& token : tokens) {
    const std::optional<UUID> uuid = token.uuid();
    if (!uuid) co_return fail(kABErrorRequest, "invalid request (bad uuid array)");
    server().unholdToken(*uuid);
    co_await giveWay();
  }
  done();
}

Course Transaction::holdPlugIns() {
  const uint64_t flags = request_.unsignedValue(key::flags);
  ABDPlugInHold::PlugIns plugIns;
  const ABDServer::Held held = server().heldBy(*client_);
  PathWalk paths(*this);
  while (const auto entry = paths.next()) {
    const std::string& path = entry->path;
    if (!entry->resolved) co_return fail(kABErrorPath, format("invalid path: %@", path));
    if (flags != ABHoldPlugIns && flags != ABHoldApplications)
      co_return fail(kABErrorRequest, "invalid request format (unsupported hold flags)");
    if (flags == ABHoldPlugIns) {
      std::shared_ptr<ABDPlugIn> plugIn = server().findPlugInAtPath(URL::file(path));
      if (plugIn == nullptr) co_return fail(kABErrorPath, format("no plug-in at path:%@", path));
      plugIns.push_back(std::move(plugIn));
    } else {
      ABDPlugInSearch contained = server().searchApplication(URL::file(path));
      while (!contained.isOver()) {
        if (auto plugIn = contained.next()) plugIns.push_back(std::move(plugIn));
        co_await giveWay();
      }
    }
    if (held.plugIns + plugIns.size() > kMaximumHeldPlugIns)
      co_return fail(kABErrorRequest,
                     format("invalid request (more than %d plug-ins on hold)", kMaximumHeldPlugIns));
    co_await giveWay();
  }
  if (paths.hasFailed()) co_return;

  if (flags != ABHoldPlugIns) {
    ABDPlugInHold::PlugIns busy;
    Array conflicts;
    for (const std::shared_ptr<ABDPlugIn>& plugIn : plugIns) {
      if (std::optional<Dictionary> conflict = plugIn->checkBusy()) {
        busy.push_back(plugIn);
        conflicts.append(*std::move(conflict));
      }
      co_await giveWay();
    }
    if (!busy.empty()) {
      server().debug("hold rejected. Busy plug-ins:%@", PlugInList{busy});
      setReply(key::conflicts, std::move(conflicts));
      co_return fail(kABErrorBusy, "plug-ins are busy");
    }
  }

  if (held.holds >= kMaximumHolds)
    co_return fail(kABErrorRequest, format("invalid request (more than %d holds)", kMaximumHolds));
  const auto hold = std::make_shared<ABDPlugInHold>(plugIns, client_);
  server().addHold(hold);
  // What was found free of holds before is still enabled; nothing is after the reply.
  while (server().isEnabling(*hold)) co_await Course::Turn();
  setReply(key::uuids, hold->uuid());
  server().debug("hold request granted uuid:%@", hold->uuid());
  done();
}

}  // namespace abd
