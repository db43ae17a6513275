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
#include "abd/requests/Walks.h"

namespace abd {

namespace {

constexpr const char* kOnHoldReason = "the plug-in is on hold";

}  // namespace

Course Transaction::readyPlugIns() {
  std::vector<std::shared_ptr<ABDPlugIn>> accepted;  // each once
  std::unordered_set<UUID> seen;
  // What was not on hold when it was checked is not on hold when it is enabled.
  const ABDServer::Enabling enabling(server(), accepted);
  PlugInWalk plugIns(*this);
  while (const auto plugIn = plugIns.next()) {
    co_await giveWay();
    const String identifier = plugIn->identifier();
    trace::pluginReady(plugIn->uuid());
    if (server().holdOnPlugIn(*plugIn)) {
      server().debug("denied access to pid %d for plugin %@(%@): the plug-in is on hold", client_->pid(),
                     identifier, plugIn->uuid());
      co_return fail(kABErrorAccess, format("access to plugin %@ denied: %@", identifier, kOnHoldReason));
    }
    if (plugIn->isData()) continue;
    if (const std::optional<std::string> reason = plugIn->allowForClient(*client_)) {
      server().debug("denied access to pid %d for plugin %@(%@): %@", client_->pid(), identifier,
                     plugIn->uuid(), *reason);
      co_return fail(kABErrorAccess, format("access to plugin %@ denied: %@", identifier, *reason));
    }
    if (seen.insert(plugIn->uuid()).second) accepted.push_back(plugIn);
  }
  if (plugIns.hasFailed()) co_return;

  for (const std::shared_ptr<ABDPlugIn>& plugIn : accepted) {
    const auto error = plugIn->enableForPid(client_->pid(), client_->settings(), &client_->peer());
    if (error && !hasFailed_) fail(error->code, *error);  // the others are enabled all the same
    co_await giveWay();
  }
  done();
}

Course Transaction::accessPlugIns() {
  Array tokens;
  PlugInWalk plugIns(*this);
  while (const auto plugIn = plugIns.next()) {
    std::optional<std::string> token = ABIssueSandboxExtension(*plugIn->url());
    if (!token) {
      const int number = errno;
      co_return fail(kABErrorRequest, format("cannot create extension to %@: %d", plugIn->path(), number));
    }
    tokens.append(*token);
    co_await giveWay();
  }
  if (plugIns.hasFailed()) co_return;
  setReply(key::extensions, std::move(tokens));
  done();
}

}  // namespace abd
