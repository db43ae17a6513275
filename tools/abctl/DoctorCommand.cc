// abctl doctor: whether daemon and device are well, and what to do where they are not.

#include <CLI/CLI.hpp>
#include <cstdio>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "abd/database/ABDAnnotationStore.h"
#include "platform/log/Log.h"
#include "platform/qmx/Listener.h"
#include "tools/abctl/Commands.h"
#include "tools/abctl/Device.h"
#include "tools/abctl/Findings.h"
#include "tools/abctl/Json.h"
#include "tools/abctl/PlugIns.h"

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

/// "answers (process 12), version 1.0, as abctl".
std::string daemonText(const ProcessFacts& processes, const DaemonFacts& daemon) {
  const std::string process = processes.daemon ? " (process " + std::to_string(*processes.daemon) + ")" : "",
                    version = !daemon.answers          ? ""
                              : daemon.version.empty() ? ", version not known"
                                                       : ", version " + daemon.version;
  return (daemon.answers ? "answers" : "does not answer") + process + version +
         (daemon.version == ABD_VERSION ? ", as abctl" : "; abctl is version " ABD_VERSION);
}

void print(const std::vector<DirectoryFacts>& directories, const ProcessFacts& processes,
           const DaemonFacts& daemon, const Screen& screen) {
  Table table({"DIRECTORY", "OWNER", "MODE", "PATH"});
  for (const DirectoryFacts& each : directories)
    table.add({each.what, each.owner.empty() ? "-" : each.owner, each.mode.empty() ? "-" : each.mode,
               each.path.empty() ? "-" : each.path});
  std::printf("%s\ndaemon: %s\n", table.lines(screen).c_str(),
              safeText(daemonText(processes, daemon)).c_str());
  const std::string hidden =
      processes.hidden == 0 ? "" : ", not counting " + std::to_string(processes.hidden) + " hidden processes";
  std::printf("inotify: %ju of %ju watches, %ju of %ju instances in use%s\n\n", processes.watches,
              processes.watchLimit, processes.instances, processes.instanceLimit, hidden.c_str());
}

void checkVersion(const DaemonFacts& daemon, const std::string& service, Findings& findings) {
  if (daemon.version.empty() || daemon.version == ABD_VERSION) return;
  findings.add(
      {Level::warning, "the daemon is version " + daemon.version + ", abctl is version " ABD_VERSION,
       "what only one of them knows is refused",
       "after an update restart the daemon: systemctl --user restart abd; or look which abctl is run",
       platform::qmx::servicePath(service)});
}

/// The annotation file: the one that was named, or the daemon's, or the one that it takes by itself.
std::string annotationFile(const std::string& named, const DaemonFacts& daemon, Findings& findings) {
  const std::string used =
      daemon.annotations.empty() ? abd::ABDAnnotationStore::defaultPath() : daemon.annotations;
  if (named.empty()) return used;
  const std::string path = absolutePath(named);
  if (!daemon.annotations.empty() && absolutePath(used) != path)
    findings.add({Level::warning, "is not the daemon's annotation file", "its elections do not count",
                  "the daemon uses " + used + ": leave --annotations out, or restart it with -d", path});
  return path;
}

ExitCode examine(const Context& context, const std::string& annotations) {
  platform::silenceLog();
  Findings findings;
  const ProcessFacts processes = checkProcesses(findings);
  const DaemonFacts daemon = checkService(context, processes, findings);
  checkVersion(daemon, context.service, findings);
  const std::string file = annotationFile(annotations, daemon, findings);
  const std::vector<DirectoryFacts> directories = checkDirectories(file, findings);
  checkState(file, processes.daemon.has_value(), findings);
  checkSettings(findings);
  if (context.json) {
    Dictionary all = findings.dictionary(), facts = {{"answers", daemon.answers}};
    if (processes.daemon) facts.set("process", *processes.daemon);
    if (!daemon.version.empty()) facts.set("version", daemon.version);
    all.set("directories", listOf(directories));
    all.set("daemon", std::move(facts));
    all.set("annotations", file);
    all.set("version", ABD_VERSION);
    all.set("inotify", Dictionary{{"watches", processes.watches},
                                  {"watchLimit", processes.watchLimit},
                                  {"instances", processes.instances},
                                  {"instanceLimit", processes.instanceLimit},
                                  {"hidden", processes.hidden}});
    std::printf("%s\n", jsonText(all).c_str());
  } else {
    print(directories, processes, daemon, context.screen);
    findings.print(context.screen);
  }
  return findings.hasErrors() ? kFoundErrors : kSuccess;
}

}  // namespace

void addDoctorCommand(CLI::App& app, Context& context) {
  CLI::App* const command = app.add_subcommand("doctor", "Say what is wrong with the daemon and its files");
  const auto annotations = std::make_shared<std::string>();
  command
      ->add_option("--annotations", *annotations, "The annotation file (abd's -d), where no daemon tells it")
      ->type_name("FILE");
  command->footer(
      "Directories, what the daemon keeps and reads there, its sockets, inotify watches: what is wrong, "
      "what\n"
      "happens because of it, what to do. Nothing is changed. Bundles are for `abctl check`.\n"
      "Exit status: 0 without errors, 1 with some.");
  command->callback([&context, annotations] {
    context.command = [&context, annotations] { return examine(context, *annotations); };
  });
}

}  // namespace abctl
