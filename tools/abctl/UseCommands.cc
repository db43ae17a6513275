// abctl ready and access: what a host asks before it uses plug-ins.

#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "platform/launcher/ServiceLauncher.h"
#include "platform/value/UUID.h"
#include "tools/abctl/Commands.h"
#include "tools/abctl/Json.h"
#include "tools/abctl/PlugIns.h"

namespace abctl {
namespace {

using platform::Array;
using platform::Dictionary;
using platform::UUID;
using platform::Value;

struct ReadyOptions {
  std::vector<std::string> names;
  std::string command;
};

void printRegistration(const UUID& uuid, const std::optional<Dictionary>& registration) {
  if (!registration) {
    std::printf("%s  ready (a data plug-in: nothing to launch)\n", uuid.string().c_str());
    return;
  }
  const auto field = [&](const char* key) { return safeText((*registration)[key].string().value_or("")); };
  const Value& service = (*registration)["LaunchDescription"]["QMXService"];
  std::printf("%s  ready for process %d\n", field("PlugInIdentifier").c_str(), static_cast<int>(::getpid()));
  std::printf("  executable  %s\n", field("ExecutablePath").c_str());
  std::printf("  sandbox     %s\n", safeText(service["_SandboxProfile"].string().value_or("")).c_str());
  if (const Dictionary* const environment = service["EnvironmentVariables"].dictionary()) {
    for (const Dictionary::Entry& entry : *environment) {
      const std::string value =
          entry.value.isString() ? std::string(*entry.value.string()) : entry.value.description();
      std::printf("  environment %s=%s\n", safeText(entry.key.view()).c_str(), safeText(value).c_str());
    }
  }
}

/// The registration is this process's, so it stays good for the program that takes the process over.
[[noreturn]] void become(const std::string& command) {
  std::fflush(stdout);
  ::execl("/bin/sh", "sh", "-c", command.c_str(), static_cast<char*>(nullptr));
  throw Failure(kUsage, std::string("cannot run /bin/sh: ") + std::strerror(errno));
}

ExitCode ready(const Context& context, const ReadyOptions& options) {
  std::vector<UUID> uuids;
  {
    Daemon daemon(context);
    uuids = findUUIDs(daemon, options.names);
    daemon.ready(uuids);
  }
  Array list;
  for (const UUID& uuid : uuids) {
    const std::optional<Dictionary> registration = platform::externalService(::getpid(), uuid);
    if (context.json)
      list.append(Dictionary{{"uuid", uuid.string()}, {"registration", registration}});
    else
      printRegistration(uuid, registration);
  }
  if (context.json) std::printf("%s\n", jsonText(Dictionary{{"ready", list}}).c_str());
  if (!options.command.empty()) become(options.command);
  return kSuccess;
}

ExitCode access(const Context& context, const std::vector<std::string>& names) {
  Daemon daemon(context);
  const std::vector<UUID> uuids = findUUIDs(daemon, names);
  const std::vector<std::string> tokens = daemon.access(uuids);
  Array list;
  for (size_t index = 0; index < tokens.size(); ++index) {
    if (context.json)
      list.append(Dictionary{{"uuid", uuids[index].string()}, {"extension", tokens[index]}});
    else
      std::printf("%s  %s\n", uuids[index].string().c_str(), safeText(tokens[index]).c_str());
  }
  if (context.json) std::printf("%s\n", jsonText(Dictionary{{"access", list}}).c_str());
  return kSuccess;
}

}  // namespace

void addUseCommands(CLI::App& app, Context& context) {
  const auto options = std::make_shared<ReadyOptions>();
  CLI::App* const readyCommand = app.add_subcommand("ready", "Make plug-ins launchable, and show how");
  readyCommand->add_option("PLUG-IN", options->names, "Identifier, UUID or path")->required()->type_name("");
  readyCommand->add_option("--run", options->command, "Then run this shell command in abctl's place")
      ->type_name("COMMAND");
  readyCommand->footer(
      "Asks as the host that abctl is itself: the answer says whether the plug-in is on hold, whether its\n"
      "application may be used, and how it would be started. The launch registration is for abctl's own\n"
      "process and goes when that ends; with --run the program that takes its place has it.\n\n"
      "Examples:\n"
      "  abctl ready org.example.courier.share\n"
      "  abctl ready org.example.courier.share --run 'ls $XDG_RUNTIME_DIR/veltra/Launcher/$$'");
  readyCommand->callback(
      [&context, options] { context.command = [&context, options] { return ready(context, *options); }; });

  const auto names = std::make_shared<std::vector<std::string>>();
  CLI::App* const accessCommand = app.add_subcommand("access", "Get read tokens for plug-ins' bundles");
  accessCommand->add_option("PLUG-IN", *names, "Identifier, UUID or path")->required()->type_name("");
  accessCommand->footer(
      "One line per plug-in: UUID and token.\n\nExample:\n  abctl access org.example.postcards.stamps");
  accessCommand->callback(
      [&context, names] { context.command = [&context, names] { return access(context, *names); }; });
}

}  // namespace abctl
