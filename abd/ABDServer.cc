#include "abd/ABDServer.h"

#include "Ambrel/ABDiagnostics.h"
#include "abd/ABDPlugInHold.h"
#include "platform/launcher/ServiceLauncher.h"
#include "platform/log/Failure.h"
#include "platform/log/Log.h"
#include "platform/system/ServiceManager.h"

namespace abd {

namespace {

std::shared_ptr<ABDServer>& singleton() {
  static std::shared_ptr<ABDServer> server;
  return server;
}

/// While entries are left out of the log, somebody looks once a second whether they may be told of.
void tellLeftOutEntriesLater() {
  RunLoop::main().after(std::chrono::seconds(1), [] {
    if (!tellLeftOutEntries()) tellLeftOutEntriesLater();
  });
}

}  // namespace

ABDServer::~ABDServer() {
  setDelegate(nullptr);
}

std::shared_ptr<ABDServer> ABDServer::initForService(const std::string& service,
                                                     const std::optional<std::string>& database) {
  whenLogEntriesAreLeftOut(tellLeftOutEntriesLater);
  const std::shared_ptr<ABDServer> server(new ABDServer);
  // The registry tells at once what changed while nobody observed it.
  server->setDelegate(server.get());
  if (!server->initWithDatabase(database)) return nullptr;
  auto listener = qmx::Listener::create(service, server->qmxQueue_, RunLoop::main());
  if (const Error* error = std::get_if<Error>(&listener)) {
    systemLog("unable to listen for service \"%@\": %@", service, *error);
    // What the registry told may still be worked on: the server stays until the process ends.
    [[maybe_unused]] static const auto& unfinished = *new std::shared_ptr<ABDServer>(server);
    return nullptr;
  }
  server->serviceName_ = service;
  server->service_ = std::move(std::get<0>(listener));
  singleton() = server;
  server->openDiagnostics(service + kDiagnosticsSuffix);
  server->installConnectionHandlers();
  server->userPrefs_ = std::make_unique<ABDUserPrefs>();
  return server;
}

void ABDServer::openDiagnostics(const std::string& service) {
  auto listener = qmx::Listener::create(service, qmxQueue_, RunLoop::main());
  if (const Error* error = std::get_if<Error>(&listener))
    systemLog("there will be no diagnostics: unable to listen for service \"%@\": %@", service, *error);
  else
    diagnostics_ = std::move(std::get<0>(listener));
}

const std::shared_ptr<ABDServer>& ABDServer::server() {
  return singleton();
}

void ABDServer::releaseServer() {
  singleton() = nullptr;
}

void ABDServer::run() {
  if (const auto error = service_->resume()) raiseInternalInconsistency("cannot listen: %@", *error);
  if (diagnostics_ != nullptr)
    if (const auto error = diagnostics_->resume()) systemLog("there are no diagnostics: %@", *error);
  workspace().startPosting();
  RunLoop::main().async([] { announceService(RunLoop::main()); });
  RunLoop::main().run();
}

void ABDServer::log(int32_t, std::string_view text, std::span<const FormatArgument> arguments) {
  systemLogArguments(text, arguments);
}

void ABDServer::removedPlugIns(const HLProxyList& proxies) {
  std::vector<ExternalServiceRemoval> removals;
  removals.reserve(proxies.size());
  for (const auto& proxy : proxies)
    removals.push_back({proxy->bundleIdentifier().value_or(""), proxy->bundleVersion().value_or(""),
                        proxy->lastRegistration()});
  std::vector<std::string> identifiers;
  identifiers.reserve(proxies.size());
  for (const ExternalServiceRemoval& removal : removals) identifiers.push_back(removal.bundleIdentifier);
  removeExternalServices(std::move(removals), mainQueue_,
                         [identifiers = std::move(identifiers)](std::span<const int32_t> results) {
                           for (size_t i = 0; i < results.size(); i++)
                             if (results[i] != kRemovalDone && results[i] != kRemovalNoSuchService)
                               systemLog("PLUGIN REMOVAL:%@ RESULT:%d", identifiers[i], results[i]);
                         });
}

}  // namespace abd
