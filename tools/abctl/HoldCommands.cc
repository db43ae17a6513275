// abctl hold and release: keeping plug-ins from being used for a while.

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "Ambrel/ABInfoKeys.h"
#include "Ambrel/ABProtocol.h"
#include "platform/launcher/ServiceLauncher.h"
#include "platform/value/UUID.h"
#include "tools/abctl/Commands.h"
#include "tools/abctl/Json.h"
#include "tools/abctl/PlugIns.h"
#include "tools/abctl/Waiting.h"

namespace abctl {
namespace {

using platform::Array;
using platform::Dictionary;
using platform::UUID;
using platform::Value;

struct HoldOptions {
  std::vector<std::string> applications, plugIns;
};

std::vector<std::string> pathsToHold(Daemon& daemon, const HoldOptions& options) {
  std::vector<std::string> paths;
  for (const std::string& application : options.applications) paths.push_back(absolutePath(application));
  for (const std::string& plugIn : options.plugIns) {
    if (isPath(plugIn)) {
      paths.push_back(absolutePath(plugIn));
      continue;
    }
    for (const Dictionary& form : findPlugIns(daemon, plugIn))
      paths.push_back(text(form, ambrel::formkey::path));
  }
  return paths;
}

/// Which plug-ins of these applications are in the way; the refusal itself names only their bundles.
std::string conflictTable(Daemon& daemon, const Array& conflicts,
                          const std::vector<std::string>& applications, const Screen& screen) {
  std::set<std::string> bundles;
  for (const Value& conflict : conflicts)
    bundles.insert(
        std::string(conflict[platform::kLauncherBundleIdentifierKey].string().value_or("(unknown)")));
  Table table({"BUSY BUNDLE", "PLUG-IN", "NAME", "APPLICATION"});
  for (const std::string& bundle : bundles) {
    std::vector<Dictionary> forms =
        daemon.match(Dictionary{{ambrel::bundlekey::identifier, "=" + bundle}},
                     ambrel::ABDiscoverAllVersions | ambrel::ABDiscoverDuplicates);
    std::erase_if(forms, [&applications](const Dictionary& form) {
      return std::find(applications.begin(), applications.end(),
                       text(form, ambrel::formkey::containingPath)) == applications.end();
    });
    if (forms.empty()) table.add({bundle, "-", "-", "-"});
    for (const Dictionary& form : forms)
      table.add({bundle, text(form, ambrel::formkey::identifier), nameOf(form), applicationOf(form)});
  }
  return table.lines(screen);
}

UUID takeHold(const Context& context, Daemon& daemon, const HoldOptions& options) {
  const uint64_t flags = options.plugIns.empty() ? ambrel::ABHoldApplications : ambrel::ABHoldPlugIns;
  const std::vector<std::string> paths = pathsToHold(daemon, options);
  try {
    return daemon.hold(paths, flags);
  } catch (const Failure& failure) {
    const Value& conflicts = failure.details[ambrel::key::conflicts];
    if (!context.json && conflicts.isArray())
      std::printf("%s", conflictTable(daemon, *conflicts.array(), paths, context.screen).c_str());
    throw;
  }
}

/// Those of the applications to hold of which nothing is known, so that nothing of them will be held.
std::vector<std::string> withoutPlugIns(Daemon& daemon, const HoldOptions& options) {
  std::vector<std::string> empty;
  for (const std::string& application : options.applications)
    if (const std::string path = absolutePath(application); !mayHavePlugIns(daemon, path))
      empty.push_back(path);
  return empty;
}

void printToken(const Context& context, const UUID& token, const std::vector<std::string>& empty) {
  if (context.json) {
    Dictionary line{{"token", token.string()}};
    if (!empty.empty()) line.set("empty", Array(std::vector<Value>(empty.begin(), empty.end())));
    std::printf("%s\n", jsonText(line, false).c_str());
  } else {
    std::printf("%s\n", token.string().c_str());
  }
  std::fflush(stdout);
  if (context.json) return;
  for (const std::string& path : empty)
    std::fprintf(stderr, "note: %s has no registered plug-in, so nothing of it is held\n",
                 safeText(path).c_str());
  std::fprintf(stderr, "held until this ends (Ctrl-C) or: abctl release %s\n", token.string().c_str());
}

ExitCode hold(const Context& context, const HoldOptions& options) {
  if (options.applications.empty() && options.plugIns.empty())
    throw Failure(kUsage, "say what to hold: --application or --plugin", "see: abctl hold --help");
  Waiting waiting;  // before the first thread
  Daemon daemon(context, waiting.stopDescriptor());
  const std::vector<std::string> empty = withoutPlugIns(daemon, options);
  const UUID token = takeHold(context, daemon, options);
  printToken(context, token, empty);
  waiting.watchDaemon(context.service);
  if (waiting.wait().event == Waiting::Event::lost)
    throw Failure(kUnreachable, "the daemon has gone, and the hold with it");
  return kSuccess;
}

ExitCode release(const Context& context, const std::string& name) {
  const std::optional<UUID> token = UUID::fromString(name);
  if (!token)
    throw Failure(kUsage, "\"" + name + "\" is no hold token",
                  "a token is the UUID that `abctl hold` printed");
  Daemon(context).release(*token);
  if (context.json)
    std::printf("%s\n", jsonText(Dictionary{{"released", token->string()}}).c_str());
  else
    std::printf("released %s\n", token->string().c_str());
  return kSuccess;
}

}  // namespace

void addHoldCommands(CLI::App& app, Context& context) {
  const auto options = std::make_shared<HoldOptions>();
  CLI::App* const holdCommand = app.add_subcommand("hold", "Keep plug-ins from being offered and launched");
  CLI::Option* const applications = holdCommand->add_option(
      "--application", options->applications, "Every plug-in of these applications, unless one is busy");
  applications->type_name("PATH");
  CLI::Option* const plugIns = holdCommand->add_option(
      "--plugin", options->plugIns, "These plug-ins (path, identifier or UUID), busy or not");
  plugIns->type_name("PLUG-IN")->excludes(applications);
  holdCommand->footer(
      "Prints the hold's token and keeps the hold while it runs; ending it (Ctrl-C) releases the hold, and "
      "so\n"
      "does `abctl release TOKEN` from elsewhere (hold itself then goes on until it is ended). When "
      "plug-ins\n"
      "of an application are busy the hold is refused (exit status 5) with a table of what is in the way.\n"
      "Held is what is registered now. An identifier means the version that hosts are offered; where there\n"
      "is an older one it is offered instead.\n\n"
      "Examples:\n"
      "  abctl hold --application ~/.local/share/veltra/Applications/Courier.app\n"
      "  abctl hold --plugin org.example.courier.share");
  holdCommand->callback(
      [&context, options] { context.command = [&context, options] { return hold(context, *options); }; });

  const auto token = std::make_shared<std::string>();
  CLI::App* const releaseCommand = app.add_subcommand("release", "Release a hold");
  releaseCommand->add_option("TOKEN", *token, "What `abctl hold` printed")->required()->type_name("");
  releaseCommand->footer(
      "A token that is not held (any more) is no error.\n\n"
      "Example:\n  abctl release 6C0F2A7E-0B7B-4B43-9E0C-6C6E7F1D2A55");
  releaseCommand->callback(
      [&context, token] { context.command = [&context, token] { return release(context, *token); }; });
}

}  // namespace abctl
