// abctl, the administrator's command: reads the command line, runs one command, prints how it failed.

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <exception>
#include <string>
#include <vector>

#include "Ambrel/ABProtocol.h"
#include "platform/log/Log.h"
#include "platform/system/Directories.h"
#include "platform/value/Value.h"
#include "tools/abctl/Commands.h"
#include "tools/abctl/Json.h"

namespace {

using abctl::Context;
using abctl::ExitCode;
using abctl::Failure;

const char* const kFooter =
    "A plug-in is named by its identifier, its UUID, or the path of its bundle (anything with a \"/\").\n"
    "\n"
    "Examples:\n"
    "  abctl match --rule ZQExtensionPointName=com.veltra.share-service\n"
    "  abctl show org.example.postcards.share\n"
    "  abctl check build/Postcards.app\n"
    "  abctl explain org.example.postcards.share\n"
    "  abctl elect org.example.postcards.share use\n"
    "  abctl elections export elections.plist\n"
    "  abctl status\n"
    "  abctl hold --application ~/.local/share/veltra/Applications/Courier.app\n"
    "  abctl COMMAND --help\n"
    "\n"
    "Exit status: 0 done or matched, 1 nothing matched, no such plug-in, or errors found by check or\n"
    "doctor, 2 wrong usage, 4 the daemon cannot be reached, 5 the daemon refused or failed.\n"
    "\n"
    "With --json one document comes out on standard output, errors included. Colours appear only on a\n"
    "terminal, and never when NO_COLOR is set. The daemon is found under $XDG_RUNTIME_DIR/veltra.";

void printFailure(const Context& context, const Failure& failure) {
  if (context.json) {
    platform::Dictionary error{{"message", failure.what()}, {"exit", static_cast<int>(failure.code)}};
    if (failure.daemonCode) error.set("code", *failure.daemonCode);
    if (!failure.hint.empty()) error.set("hint", failure.hint);
    for (const platform::Dictionary::Entry& entry : failure.details) error.set(entry.key, entry.value);
    std::printf("%s\n", abctl::jsonText(platform::Dictionary{{"error", error}}).c_str());
    return;
  }
  std::fflush(stdout);
  std::fprintf(stderr, "abctl: %s\n", abctl::safeText(failure.what()).c_str());
  if (!failure.hint.empty()) std::fprintf(stderr, "  %s\n", abctl::safeText(failure.hint).c_str());
}

void declareOptions(CLI::App& app, Context& context) {
  app.footer(kFooter);
  app.require_subcommand(0, 1);  // a missing one is explained by run()
  app.fallthrough();
  app.get_formatter()->label("REQUIRED", "(required)");
  app.get_formatter()->label("Excludes", "not with");
  app.set_version_flag("--version", "abctl " ABD_VERSION);
  app.add_flag("--json", context.json, "Print JSON for programs instead of text for people");
  app.add_option("--service", context.service, "Name of the daemon's service")->type_name("NAME");
  app.add_option("--timeout", context.timeoutSeconds, "Seconds to wait for one answer (30)")
      ->type_name("SECONDS");
  addMatchCommand(app, context);
  addShowCommand(app, context);
  addCheckCommand(app, context);
  addExplainCommand(app, context);
  addElectionCommands(app, context);
  addElectionsCommand(app, context);
  addUseCommands(app, context);
  addHoldCommands(app, context);
  addWatchCommand(app, context);
  addStatusCommand(app, context);
  addRegistrationCommands(app, context);
  addDoctorCommand(app, context);
  for (CLI::App* const command : app.get_subcommands(nullptr))
    command->footer(command->get_footer() +
                    "\n\nOptions of every command: --json, --service NAME, --timeout SECONDS (abctl --help)");
}

ExitCode run(int argc, char** argv, Context& context) {
  CLI::App app("Asks and instructs abd, the plug-in registry daemon.", "abctl");
  declareOptions(app, context);
  // Shells ask so, for people who press Tab (packaging/completions).
  if (argc > 1 && argv[1] == std::string("complete"))
    return abctl::complete(app, context, std::vector<std::string>(argv + 2, argv + argc));
  try {
    app.parse(argc, argv);
  } catch (const CLI::Success& help) {
    app.exit(help);
    return abctl::kSuccess;
  } catch (const CLI::ParseError& error) {
    const std::string chosen =
        app.get_subcommands().empty() ? "" : " " + app.get_subcommands().front()->get_name();
    throw Failure(abctl::kUsage, error.what(), "see: abctl" + chosen + " --help");
  }
  if (!context.command) throw Failure(abctl::kUsage, "say what to do", "see: abctl --help");
  if (!(context.timeoutSeconds > 0 && context.timeoutSeconds <= 1e6))
    throw Failure(abctl::kUsage, "--timeout is more than 0 and at most 1000000 seconds");
  if (!platform::isSafeFileName(context.service))
    throw Failure(abctl::kUsage, "\"" + context.service + "\" cannot be a service name",
                  "a service name is one file name: not empty, without \"/\", at most 200 bytes");
  return context.command();
}

}  // namespace

int main(int argc, char** argv) {
  abctl::setUpCharacters();
  platform::keepLogFromStandardError();  // what goes wrong is printed once, as a Failure
  Context context;
  context.service = ambrel::kDefaultServiceName;
  // Known before the command line is parsed, so that its mistakes come out as JSON, too.
  context.json =
      std::any_of(argv, argv + argc, [](const char* word) { return word == std::string("--json"); });
  ExitCode code = abctl::kSuccess;
  try {
    code = run(argc, argv, context);
  } catch (const Failure& failure) {
    printFailure(context, failure);
    code = failure.code;
  } catch (const std::exception& error) {
    printFailure(context, Failure(abctl::kRefused, error.what()));
    code = abctl::kRefused;
  }
  if (std::fflush(stdout) != 0 && code == abctl::kSuccess) {
    std::fprintf(stderr, "abctl: cannot write the output\n");
    code = abctl::kRefused;
  }
  return code;
}
