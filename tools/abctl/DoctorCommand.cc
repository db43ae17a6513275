// abctl doctor: whether daemon and device are well, and what to do where they are not.

#include <CLI/CLI.hpp>
#include <cstdio>
#include <string>
#include <utility>
#include <vector>

#include "platform/log/Log.h"
#include "tools/abctl/Commands.h"
#include "tools/abctl/Device.h"
#include "tools/abctl/Findings.h"
#include "tools/abctl/Json.h"

namespace abctl {
namespace {

using platform::Array;
using platform::Dictionary;

Array listOf(const std::vector<DirectoryFacts>& directories) {
  Array list;
  for (const DirectoryFacts& each : directories) {
    Dictionary entry = {{"what", each.what}, {"path", each.path}};
    if (!each.mode.empty()) {
      entry.set("owner", each.owner);
      entry.set("mode", each.mode);
    }
    list.append(std::move(entry));
  }
  return list;
}

void print(const std::vector<DirectoryFacts>& directories, const ProcessFacts& processes, bool answers,
           const Screen& screen) {
  Table table({"DIRECTORY", "OWNER", "MODE", "PATH"});
  for (const DirectoryFacts& each : directories)
    table.add({each.what, each.owner.empty() ? "-" : each.owner, each.mode.empty() ? "-" : each.mode,
               each.path.empty() ? "-" : each.path});
  std::printf("%s\n", table.lines(screen).c_str());
  const std::string process = processes.daemon ? " (process " + std::to_string(*processes.daemon) + ")" : "";
  std::printf("daemon: %s%s\n", answers ? "answers" : "does not answer", process.c_str());
  const std::string hidden =
      processes.hidden == 0 ? "" : ", not counting " + std::to_string(processes.hidden) + " hidden processes";
  std::printf("inotify: %ju of %ju watches, %ju of %ju instances in use%s\n\n", processes.watches,
              processes.watchLimit, processes.instances, processes.instanceLimit, hidden.c_str());
}

ExitCode examine(const Context& context) {
  platform::silenceLog();
  Findings findings;
  const std::vector<DirectoryFacts> directories = checkDirectories(findings);
  const ProcessFacts processes = checkProcesses(findings);
  const bool answers = checkService(context, processes, findings);
  checkState(findings, processes.daemon.has_value());
  checkSettings(findings);
  if (context.json) {
    Dictionary all = findings.dictionary();
    all.set("directories", listOf(directories));
    Dictionary daemon = {{"answers", answers}};
    if (processes.daemon) daemon.set("process", *processes.daemon);
    all.set("daemon", std::move(daemon));
    all.set("inotify", Dictionary{{"watches", processes.watches},
                                  {"watchLimit", processes.watchLimit},
                                  {"instances", processes.instances},
                                  {"instanceLimit", processes.instanceLimit},
                                  {"hidden", processes.hidden}});
    std::printf("%s\n", jsonText(all).c_str());
  } else {
    print(directories, processes, answers, context.screen);
    findings.print(context.screen);
  }
  return findings.hasErrors() ? kFoundErrors : kSuccess;
}

}  // namespace

void addDoctorCommand(CLI::App& app, Context& context) {
  CLI::App* const command = app.add_subcommand("doctor", "Say what is wrong with the daemon and its files");
  command->footer(
      "Directories, what the daemon keeps and reads there, its sockets, inotify watches: what is wrong, "
      "what\n"
      "happens because of it, what to do. Nothing is changed. Bundles are for `abctl check`.\n"
      "Exit status: 0 without errors, 1 with some.");
  command->callback([&context] { context.command = [&context] { return examine(context); }; });
}

}  // namespace abctl
