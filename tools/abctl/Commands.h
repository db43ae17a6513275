#pragma once

// The commands of abctl. Each function declares one command's options on the command line and, when that
// command is the chosen one, leaves what is to be done in the context. Main thread.

#include <functional>
#include <string>
#include <vector>

#include "tools/abctl/Failure.h"
#include "tools/abctl/Terminal.h"

namespace CLI {
class App;
}

namespace abctl {

/// What every command works with.
struct Context {
  std::string service;
  bool json = false;
  /// How long the daemon may take to answer one request.
  double timeoutSeconds = 30;
  Screen screen;
  /// The chosen command; answers the exit code or throws a Failure.
  std::function<ExitCode()> command;
};

void addMatchCommand(CLI::App& app, Context& context);
void addShowCommand(CLI::App& app, Context& context);
void addExplainCommand(CLI::App& app, Context& context);
void addStatusCommand(CLI::App& app, Context& context);
void addWatchCommand(CLI::App& app, Context& context);
void addRegistrationCommands(CLI::App& app, Context& context);  // add, remove, bulk
void addUseCommands(CLI::App& app, Context& context);           // ready, access
void addElectionCommands(CLI::App& app, Context& context);      // elect, annotate
void addElectionsCommand(CLI::App& app, Context& context);      // elections export, import
void addCheckCommand(CLI::App& app, Context& context);
void addDoctorCommand(CLI::App& app, Context& context);
void addHoldCommands(CLI::App& app, Context& context);  // hold, release

/// Prints what the last of the words may become, one to a line; nothing where that is not known. `app` has
/// all commands.
ExitCode complete(const CLI::App& app, Context& context, const std::vector<std::string>& words);

}  // namespace abctl
