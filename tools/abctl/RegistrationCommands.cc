// abctl add, remove and bulk: what the registry knows.

#include <CLI/CLI.hpp>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "Ambrel/ABInfoKeys.h"
#include "platform/value/UUID.h"
#include "tools/abctl/Commands.h"
#include "tools/abctl/Json.h"
#include "tools/abctl/PlugIns.h"

namespace abctl {
namespace {

using platform::Array;
using platform::Dictionary;
using platform::UUID;

using Names = std::shared_ptr<std::vector<std::string>>;

void report(const Context& context, const char* key, const char* sentence,
            const std::vector<std::string>& done) {
  if (context.json) {
    Array list;
    for (const std::string& path : done) list.append(path);
    std::printf("%s\n", jsonText(Dictionary{{key, list}}).c_str());
    return;
  }
  for (const std::string& path : done) std::printf("%s %s\n", sentence, safeText(path).c_str());
}

ExitCode add(const Context& context, const std::vector<std::string>& names) {
  std::vector<std::string> paths;
  for (const std::string& name : names) paths.push_back(absolutePath(name));
  Daemon(context).add(paths);
  report(context, "added", "added", paths);
  return kSuccess;
}

/// Paths stay paths, so that a bundle that is gone can be removed; other names are looked up.
ExitCode remove(const Context& context, const std::vector<std::string>& names) {
  Daemon daemon(context);
  std::vector<std::string> paths;
  for (const std::string& name : names) {
    if (isPath(name)) {
      paths.push_back(absolutePath(name));
      continue;
    }
    for (const Dictionary& form : findPlugIns(daemon, name))
      paths.push_back(text(form, ambrel::formkey::path));
  }
  daemon.remove(paths);
  report(context, "removed", "removed", paths);
  return kSuccess;
}

ExitCode bulk(const Context& context, uint64_t flags) {
  Daemon(context).bulk(flags);
  if (context.json)
    std::printf("{}\n");
  else
    std::printf("sent; abd knows no bulk operation and only logs the flags\n");
  return kSuccess;
}

}  // namespace

void addRegistrationCommands(CLI::App& app, Context& context) {
  const auto added = std::make_shared<std::vector<std::string>>();
  CLI::App* const addCommand = app.add_subcommand("add", "Register plug-in bundles by path");
  addCommand->add_option("PATH", *added, "The bundle's directory")->required()->type_name("");
  addCommand->footer(
      "A registration by path outlives its bundle until it is removed. Outside the system volume a plug-in\n"
      "without a containing application is offered to no host; `abctl match --all` shows it.\n"
      "When one path fails, those before it stay registered and those after it are not looked at.\n"
      "A bundle that breaks the rules for plug-ins is registered, but never offered; abd's log says why.\n\n"
      "Example:\n  abctl add ~/build/Ruler.appex");
  addCommand->callback(
      [&context, added] { context.command = [&context, added] { return add(context, *added); }; });

  const auto removed = std::make_shared<std::vector<std::string>>();
  CLI::App* const removeCommand = app.add_subcommand("remove", "Unregister plug-in bundles");
  removeCommand->add_option("PLUG-IN", *removed, "Path (also of a bundle that is gone), identifier or UUID")
      ->required()
      ->type_name("");
  removeCommand->footer(
      "Files are not touched. A plug-in of an application comes back when its bundle changes or it is "
      "added.\n"
      "Plug-ins of the system volume cannot be removed.\n\n"
      "Example:\n  abctl remove ~/build/Ruler.appex");
  removeCommand->callback(
      [&context, removed] { context.command = [&context, removed] { return remove(context, *removed); }; });

  const auto flags = std::make_shared<uint64_t>(0);
  CLI::App* const bulkCommand = app.add_subcommand("bulk", "Send a bulk request (abd only logs its flags)");
  bulkCommand->add_option("--flags", *flags, "Flags to send")->type_name("NUMBER");
  bulkCommand->footer("Example:\n  abctl bulk --flags 0x1");
  bulkCommand->callback(
      [&context, flags] { context.command = [&context, flags] { return bulk(context, *flags); }; });
}

}  // namespace abctl
