#include "Ambrel/ABHost.h"

#include <spawn.h>

#include <cstdlib>
#include <future>
#include <utility>
#include <variant>

#include "platform/launcher/ServiceLauncher.h"
#include "platform/log/Failure.h"

namespace ambrel {

namespace {

std::vector<std::string> environmentOf(const Value& given) {
  static const Dictionary none;
  const Dictionary& entries = given.dictionary() != nullptr ? *given.dictionary() : none;
  std::vector<std::string> variables;
  for (const char* name : {"XDG_RUNTIME_DIR", "PATH", "LANG"}) {
    const char* const value = std::getenv(name);
    if (value != nullptr && !entries.contains(name)) variables.push_back(std::string(name) + '=' + value);
  }
  for (const auto& [name, value] : entries)
    if (const auto text = value.string())
      variables.push_back(std::string(name.view()) + '=' + std::string(*text));
  return variables;
}

Result<PlugInLaunch> launchOf(const UUID& uuid) {
  std::optional<Dictionary> registration = externalService(::getpid(), uuid);
  if (!registration) return ABError(kABErrorRequest, "the plug-in has no launch registration");
  const Value& service = (*registration)["LaunchDescription"]["QMXService"];
  PlugInLaunch launch{.executable = std::string((*registration)["ExecutablePath"].string().value_or("")),
                      .environment = environmentOf(service["EnvironmentVariables"]),
                      .sandboxProfile = std::string(service["_SandboxProfile"].string().value_or("")),
                      .registration = {}};
  launch.registration = *std::move(registration);
  return launch;
}

/// What `send`, which is given the handler, ends with.
template <typename T, typename Send>
T waitFor(const ABDaemonClient& client, Send&& send) {
  const SerialQueue& queue = client.replyQueue();
  if (queue.isCurrent() || queue.loop().isCurrent())
    raiseInternalInconsistency("a reply is waited for where replies are handled");
  const auto arrived = std::make_shared<std::promise<Result<T>>>();
  send([arrived](Result<T>&& result) { arrived->set_value(std::move(result)); });
  Result<T> result = arrived->get_future().get();
  if (Error* error = std::get_if<Error>(&result)) throw ABFailure(std::move(*error));
  return std::get<T>(std::move(result));
}

}  // namespace

Result<std::vector<Dictionary>> formsInReply(const ABDaemonClient& client,
                                             const ABDaemonClient::Reply& reply) {
  if (auto error = ABDaemonClient::errorInReply(reply)) return *std::move(error);
  const Value matches = client.convertFromQMX(std::get<qmx::Message>(reply).body[key::matches]);
  if (matches.array() == nullptr) return ABError(kABErrorVersion, "the daemon's answer holds no matches");
  std::vector<Dictionary> forms;
  forms.reserve(matches.array()->size());
  for (const Value& form : *matches.array())
    if (form.isDictionary()) forms.push_back(*form.dictionary());
  return forms;
}

void findPlugIns(ABDaemonClient& client, const std::optional<Dictionary>& rules, uint64_t flags,
                 ResultHandler<PlugIns> handler) {
  client.matchPlugIns(rules, flags, [&client, handler = std::move(handler)](ABDaemonClient::Reply&& reply) {
    Result<std::vector<Dictionary>> forms = formsInReply(client, reply);
    if (Error* error = std::get_if<Error>(&forms)) return handler(std::move(*error));
    PlugIns plugIns;
    for (const Dictionary& form : std::get<std::vector<Dictionary>>(forms))
      if (PlugIn plugIn = ABPlugInCore::initWithForm(form)) plugIns.push_back(std::move(plugIn));
    handler(std::move(plugIns));
  });
}

PlugIns findPlugIns(ABDaemonClient& client, const std::optional<Dictionary>& rules, uint64_t flags) {
  return waitFor<PlugIns>(client,
                          [&](auto handler) { findPlugIns(client, rules, flags, std::move(handler)); });
}

void readyPlugIn(ABDaemonClient& client, const ABPlugInCore& plugIn, ResultHandler<PlugInLaunch> handler) {
  const UUID uuid = plugIn.uuid();
  client.readyPlugIns({uuid}, 0, [uuid, handler = std::move(handler)](ABDaemonClient::Reply&& reply) {
    auto error = ABDaemonClient::errorInReply(reply);
    handler(error ? Result<PlugInLaunch>(*std::move(error)) : launchOf(uuid));
  });
}

PlugInLaunch readyPlugIn(ABDaemonClient& client, const ABPlugInCore& plugIn) {
  return waitFor<PlugInLaunch>(client,
                               [&](auto handler) { readyPlugIn(client, plugIn, std::move(handler)); });
}

pid_t startPlugIn(const PlugInLaunch& launch, int standardInput, int standardOutput) {
  std::vector<std::string> variables = launch.environment;
  std::vector<char*> environment;
  for (std::string& variable : variables) environment.push_back(variable.data());
  environment.push_back(nullptr);
  std::string name = launch.executable;
  char* const arguments[] = {name.data(), nullptr};

  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, standardInput, STDIN_FILENO);
  posix_spawn_file_actions_adddup2(&actions, standardOutput, STDOUT_FILENO);
  pid_t pid = -1;
  const int number = ::posix_spawn(&pid, name.c_str(), &actions, nullptr, arguments, environment.data());
  posix_spawn_file_actions_destroy(&actions);
  if (number != 0) throw ABFailure(Error::posix(number, name));
  return pid;
}

}  // namespace ambrel
