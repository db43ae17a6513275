#include "abd/ABDServer.h"

#include "abd/ABDPlugInHold.h"
#include "platform/launcher/ServiceLauncher.h"
#include "platform/log/Failure.h"
#include "platform/log/Log.h"

namespace abd {

namespace {

std::shared_ptr<ABDServer>& singleton() {
  static std::shared_ptr<ABDServer> server;
  return server;
}

}  // namespace

ABDServer::~ABDServer() {
  setDelegate(nullptr);
}

std::shared_ptr<ABDServer> ABDServer::initForService(const std::string& service,
                                                     const std::optional<std::string>& database) {
  const std::shared_ptr<ABDServer> server(new ABDServer);
  if (!server->initWithDatabase(database)) return nullptr;
  auto listener = qmx::Listener::create(service, server->qmxQueue_, RunLoop::main());
  if (const Error* error = std::get_if<Error>(&listener)) {
    systemLog("unable to listen for service \"%@\": %@", service, *error);
    return nullptr;
  }
  server->service_ = std::move(std::get<0>(listener));
  singleton() = server;
  server->setDelegate(server.get());
  server->installConnectionHandler();
  server->userPrefs_ = std::make_unique<ABDUserPrefs>();
  return server;
}

const std::shared_ptr<ABDServer>& ABDServer::server() {
  return singleton();
}

void ABDServer::releaseServer() {
  singleton() = nullptr;
}

void ABDServer::run() {
  if (const auto error = service_->resume()) raiseInternalInconsistency("cannot listen: %@", *error);
  RunLoop::main().run();
}

void ABDServer::log(int32_t, std::string_view text, std::span<const FormatArgument> arguments) {
  systemLog("%@", formatArguments(text, arguments));
}

void ABDServer::removedPlugIns(const HLProxyList& proxies) {
  for (const auto& proxy : proxies) {
    const std::string identifier = proxy->bundleIdentifier().value_or("");
    removeExternalService(identifier, proxy->bundleVersion().value_or(""), mainQueue_,
                          [identifier](int32_t result) {
                            if (result == kRemovalDone || result == kRemovalNoSuchService) return;
                            systemLog("PLUGIN REMOVAL:%@ RESULT:%d", identifier, result);
                          });
  }
}

}  // namespace abd
