// The sockets of the service, who is behind them, and what the user's processes use.

#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <variant>

#include "Ambrel/ABDiagnostics.h"
#include "Ambrel/ABProtocol.h"
#include "platform/qmx/Listener.h"
#include "platform/qmx/ServiceAddress.h"
#include "platform/system/Directories.h"
#include "platform/system/FileDescriptor.h"
#include "tools/abctl/Daemon.h"
#include "tools/abctl/Device.h"

namespace abctl {
namespace {

using platform::Dictionary;
using platform::FileDescriptor;
using platform::Value;

namespace fs = std::filesystem;

const char* const kStart = "start it: abd, or systemctl --user start abd.socket";
const char* const kNobody = "hosts are offered nothing";

// --- Processes ---

uint64_t numberIn(const char* file) {
  uint64_t number = 0;
  std::ifstream(file) >> number;
  return number;
}

constexpr const char* kWatchLimit = "/proc/sys/fs/inotify/max_user_watches";
constexpr const char* kInstanceLimit = "/proc/sys/fs/inotify/max_user_instances";

void addWatches(const fs::path& fdinfo, ProcessFacts& facts) {
  facts.instances++;
  std::ifstream lines(fdinfo);
  for (std::string line; std::getline(lines, line);) facts.watches += line.starts_with("inotify ") ? 1 : 0;
}

/// One process of the user.
void look(const fs::path& process, const std::string& lockFile, ProcessFacts& facts) {
  std::error_code failure, ignored;
  const fs::directory_iterator descriptors(process / "fd", failure);
  if (failure) facts.hidden++;
  for (const auto& descriptor : descriptors) {
    const std::string target = fs::read_symlink(descriptor.path(), ignored);
    if (target == "anon_inode:inotify") addWatches(process / "fdinfo" / descriptor.path().filename(), facts);
    if (target == lockFile) facts.daemon = std::stoi(process.filename());
  }
}

void findShortage(uint64_t used, uint64_t limit, const char* what, const std::string& file,
                  Findings& findings) {
  if (limit == 0 || used < limit - limit / 10) return;
  const std::string setting = "fs.inotify." + fs::path(file).filename().string();
  findings.add({Level::warning,
                std::to_string(used) + " of " + std::to_string(limit) + " " + what + " are used",
                "without enough the daemon looks at everything every 2 seconds, instead of when it changes",
                "sysctl " + setting + "=" + std::to_string(2 * limit), file});
}

// --- Sockets ---

/// Connects as a client does. 0, or errno; `owner` becomes who listens.
int connectTo(const sockaddr_un& address, uid_t& owner) {
  const FileDescriptor probe(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (!probe || ::connect(probe.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
    return errno;
  ucred peer{};
  socklen_t size = sizeof peer;
  if (::getsockopt(probe.get(), SOL_SOCKET, SO_PEERCRED, &peer, &size) != 0) return errno;
  owner = peer.uid;
  return 0;
}

/// Whether a daemon of this user listens on the socket of `service`.
bool checkSocket(const std::string& service, const char* effect, Findings& findings) {
  const auto address = platform::qmx::serviceAddress(service);
  const auto fail = [&](const std::string& what, const std::string& mend) {
    findings.add({Level::error, what, effect, mend, platform::qmx::servicePath(service)});
    return false;
  };
  if (const int* const number = std::get_if<int>(&address))
    return fail(std::string("is no place for a socket: ") + std::strerror(*number),
                "take a shorter --service, or a shorter XDG_RUNTIME_DIR");
  const auto& target = std::get<sockaddr_un>(address);
  struct stat status {};
  if (::lstat(target.sun_path, &status) != 0)
    return fail(errno == ENOENT ? "there is no socket: no daemon runs under this name"
                                : std::string("cannot be looked at: ") + std::strerror(errno),
                kStart);
  findings.checked(target.sun_path, "socket");
  if (!S_ISSOCK(status.st_mode)) return fail("is not a socket", "move it away; the daemon does not start");
  uid_t owner = 0;
  const int number = connectTo(target, owner);
  if (number == ECONNREFUSED)
    return fail("is stale: the daemon that made it has ended",
                std::string("nothing to remove, the next daemon takes it over; ") + kStart);
  if (number != 0)
    return fail(std::string("cannot be connected to: ") + std::strerror(number), "look at the daemon's log");
  if (owner != ::geteuid())
    return fail("is foreign: a process of " + userName(owner) + " listens there",
                "end that process, and look at who may write to the directory");
  return true;
}

/// Whether the daemon answers a search for nothing.
bool answers(const Context& context, Findings& findings) {
  constexpr const char* kNobodysUUID = "00000000-0000-0000-0000-000000000000";
  try {
    Daemon(context).match(Dictionary{{"com.veltra.uuid", kNobodysUUID}}, 0);
    return true;
  } catch (const Failure& failure) {
    findings.add(
        {Level::error, failure.what(), kNobody, failure.hint, platform::qmx::servicePath(context.service)});
    return false;
  }
}

/// What the daemon tells of itself.
void askDaemon(const Context& context, DaemonFacts& facts, Findings& findings) {
  const std::string service = context.service + ambrel::kDiagnosticsSuffix,
                    path = platform::qmx::servicePath(service);
  const char* const effect = "there is no `abctl explain` and no `abctl status`; its version is not known";
  struct stat status {};
  if (::lstat(path.c_str(), &status) != 0) {
    findings.add({Level::error, "there is no socket: this daemon has no diagnostics service", effect,
                  "restart the daemon, its log says why; if there is none then, it is older than abctl",
                  path});
    return;
  }
  if (!checkSocket(service, effect, findings)) return;
  try {
    const Dictionary told = Daemon(context, ambrel::kDiagnosticsSuffix).status();
    facts.version = told[ambrel::statuskey::version].string().value_or("");
    facts.annotations = told[ambrel::statuskey::annotations][ambrel::statuskey::path].string().value_or("");
  } catch (const Failure& failure) {
    const bool isDenied = failure.daemonCode == ambrel::kABErrorAccess;
    findings.add(
        {Level::warning, failure.what(), effect,
         isDenied ? "run the installed abctl: a copy elsewhere is not entitled to ask" : failure.hint, path});
  }
}

}  // namespace

ProcessFacts checkProcesses(Findings& findings) {
  ProcessFacts facts;
  facts.watchLimit = numberIn(kWatchLimit);
  facts.instanceLimit = numberIn(kInstanceLimit);
  const std::string lockFile = platform::Directories::shared().state + "/Hollin/Registry.lock";
  std::error_code ignored;
  for (const auto& process : fs::directory_iterator("/proc", ignored)) {
    const std::string name = process.path().filename();
    struct stat status {};
    const bool isProcess = std::all_of(name.begin(), name.end(), [](char c) { return c >= '0' && c <= '9'; });
    if (isProcess && ::stat(process.path().c_str(), &status) == 0 && status.st_uid == ::geteuid())
      look(process.path(), lockFile, facts);
  }
  findShortage(facts.watches, facts.watchLimit, "watches", kWatchLimit, findings);
  findShortage(facts.instances, facts.instanceLimit, "inotify instances", kInstanceLimit, findings);
  return facts;
}

DaemonFacts checkService(const Context& context, const ProcessFacts& processes, Findings& findings) {
  DaemonFacts facts;
  if (platform::Directories::shared().runtime.empty()) return facts;
  facts.answers = checkSocket(context.service, kNobody, findings) && answers(context, findings);
  if (facts.answers) {
    askDaemon(context, facts, findings);
  } else if (processes.daemon) {
    findings.add(
        {Level::hint, "a daemon runs, but not under this name: process " + std::to_string(*processes.daemon),
         "whoever looks here does not find it", "look at its option -S, at --service and XDG_RUNTIME_DIR",
         platform::qmx::servicePath(context.service)});
  }
  return facts;
}

}  // namespace abctl
