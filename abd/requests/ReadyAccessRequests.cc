// "ready" makes plug-ins launchable for the host that asks; "access" hands out read tokens for their bundles.

#include <cerrno>
#include <unordered_set>
#include <vector>

#include "Ambrel/ABProtocol.h"
#include "Ambrel/ABSandbox.h"
#include "abd/ABDQmxClient.h"
#include "abd/ABDServer.h"
#include "abd/ABDTrace.h"
#include "abd/plugin/ABDPlugIn.h"
#include "abd/requests/Transaction.h"

namespace abd {

namespace {

constexpr const char* kOnHoldReason = "the plug-in is on hold";

}  // namespace

void Transaction::readyPlugIns() {
  std::vector<std::shared_ptr<ABDPlugIn>> accepted;  // each once
  std::unordered_set<UUID> seen;
  const bool allAccepted = processUuidList([&](const std::shared_ptr<ABDPlugIn>& plugIn) {
    const String identifier = plugIn->identifier();
    trace::pluginReady(plugIn->uuid());
    if (server().holdOnPlugIn(*plugIn)) {
      server().debug("denied access to pid %d for plugin %@(%@): the plug-in is on hold", client_->pid(),
                     identifier, plugIn->uuid());
      fail(kABErrorAccess, format("access to plugin %@ denied: %@", identifier, kOnHoldReason));
      return false;
    }
    if (plugIn->isData()) return true;
    if (const std::optional<std::string> reason = plugIn->allowForClient(*client_)) {
      server().debug("denied access to pid %d for plugin %@(%@): %@", client_->pid(), identifier,
                     plugIn->uuid(), *reason);
      fail(kABErrorAccess, format("access to plugin %@ denied: %@", identifier, *reason));
      return false;
    }
    if (seen.insert(plugIn->uuid()).second) accepted.push_back(plugIn);
    return true;
  });
  if (!allAccepted) return;

  bool isAnswered = false;
  for (const std::shared_ptr<ABDPlugIn>& plugIn : accepted) {
    const std::optional<Error> error = plugIn->enableForPid(client_->pid(), client_->settings());
    if (error && !isAnswered) {
      fail(error->code, *error);
      isAnswered = true;
    }
  }
  if (!isAnswered) done();
}

void Transaction::accessPlugIns() {
  Array tokens;
  const bool allIssued = processUuidList([&](const std::shared_ptr<ABDPlugIn>& plugIn) {
    std::optional<std::string> token = ABIssueSandboxExtension(*plugIn->url());
    if (!token) {
      const int number = errno;
      fail(kABErrorRequest, format("cannot create extension to %@: %d", plugIn->path(), number));
      return false;
    }
    tokens.append(*token);
    return true;
  });
  if (!allIssued) return;
  setReply(key::extensions, std::move(tokens));
  done();
}

}  // namespace abd
