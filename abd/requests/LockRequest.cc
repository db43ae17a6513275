// "lock" puts plug-ins on hold, or releases holds that were granted before.

#include <string>
#include <unordered_set>

#include "Ambrel/ABCollections.h"
#include "Ambrel/ABProtocol.h"
#include "abd/ABDPlugInHold.h"
#include "abd/ABDQmxClient.h"
#include "abd/ABDServer.h"
#include "abd/plugin/ABDPlugIn.h"
#include "abd/requests/Transaction.h"

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

void Transaction::lockDownPlugIns() {
  if (const std::optional<Array> tokens = qmx_dictionary_get_array(request_.body, key::uuids))
    return releaseHolds(*tokens);

  const uint64_t flags = request_.unsignedValue(key::flags);
  ABDPlugInHold::PlugIns plugIns;
  std::unordered_set<std::string> seen;
  const bool allFound = marshalPaths([&](const std::string& path, bool resolved) {
    if (resolved && !seen.insert(path).second) return true;
    return collectPlugInsToHold(path, resolved, flags, plugIns);
  });
  if (!allFound) return;
  if (flags != ABHoldPlugIns && refuseBusyPlugIns(plugIns)) return;

  const auto hold = std::make_shared<ABDPlugInHold>(plugIns, client_);
  server().addHold(hold);
  setReply(key::uuids, hold->uuid());
  server().debug("hold request granted uuid:%@", hold->uuid());
  done();
}

void Transaction::releaseHolds(const Array& tokens) {
  for (const Value& token : tokens) {
    const std::optional<UUID> uuid = token.uuid();
    if (!uuid) return fail(kABErrorRequest, "invalid request (bad uuid array)");
    server().unholdToken(*uuid);
  }
  done();
}

bool Transaction::collectPlugInsToHold(const std::string& path, bool resolved, uint64_t flags,
                                       ABDPlugInHold::PlugIns& plugIns) {
  if (!resolved) {
    fail(kABErrorPath, format("invalid path: %@", path));
    return false;
  }
  switch (flags) {
    case ABHoldPlugIns: {
      std::shared_ptr<ABDPlugIn> plugIn = server().findPlugInAtPath(URL::file(path));
      if (plugIn == nullptr) {
        fail(kABErrorPath, format("no plug-in at path:%@", path));
        return false;
      }
      plugIns.push_back(std::move(plugIn));
      return true;
    }
    case ABHoldApplications: {
      if (const auto contained = server().plugInsWithinApplication(URL::file(path)))
        plugIns.insert(plugIns.end(), contained->begin(), contained->end());
      return true;
    }
    default:
      fail(kABErrorRequest, "invalid request format (unsupported hold flags)");
      return false;
  }
}

bool Transaction::refuseBusyPlugIns(const ABDPlugInHold::PlugIns& plugIns) {
  ABDPlugInHold::PlugIns busy;
  Array conflicts;
  for (const std::shared_ptr<ABDPlugIn>& plugIn : plugIns) {
    if (std::optional<Dictionary> conflict = plugIn->checkBusy()) {
      busy.push_back(plugIn);
      conflicts.append(*std::move(conflict));
    }
  }
  if (busy.empty()) return false;
  server().debug("hold rejected. Busy plug-ins:%@", PlugInList{busy});
  setReply(key::conflicts, std::move(conflicts));
  fail(kABErrorBusy, "plug-ins are busy");
  return true;
}

}  // namespace abd
