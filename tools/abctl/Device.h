#pragma once

// What `abctl doctor` looks at. Each adds what it finds, by the functions with which the daemon reads the
// same things, and changes nothing. Main thread.

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "tools/abctl/Commands.h"
#include "tools/abctl/Findings.h"

namespace abctl {

/// The name of a user, or the number of one who has none.
std::string userName(uid_t user);

/// One directory that daemon, abctl and hosts have to agree on.
struct DirectoryFacts {
  std::string what, path;
  std::string owner, mode;  // empty while it is missing
};
/// `annotations`: the annotation file, in whose directory elections are kept; "" when there is no place for
/// it.
std::vector<DirectoryFacts> checkDirectories(const std::string& annotations, Findings& findings);

/// What the user's processes use, as far as /proc shows it.
struct ProcessFacts {
  uint64_t watches = 0, watchLimit = 0, instances = 0, instanceLimit = 0;  // of inotify(7)
  size_t hidden = 0;            // processes that could not be looked at
  std::optional<pid_t> daemon;  // which uses the state directory
};
ProcessFacts checkProcesses(Findings& findings);

/// Elections in `annotations`, registrations (unless `isInUse` by a daemon, which has judged them), the key
/// of read tokens, and what was set aside.
void checkState(const std::string& annotations, bool isInUse, Findings& findings);

/// Consent, restrictions, preferences, SDKs and types.
void checkSettings(Findings& findings);

/// The daemon behind the service, as far as it tells.
struct DaemonFacts {
  bool answers = false;
  std::string version, annotations;  // empty while that is not known; the latter is a path
};
/// The sockets of the service and what answers there.
DaemonFacts checkService(const Context& context, const ProcessFacts& processes, Findings& findings);

}  // namespace abctl
