#pragma once

// What every host does, in one call each: find plug-ins, make one launchable for this process, start it. Each
// of the first two is one request of an ABDaemonClient and ends with what was asked for or with an error,
// never with both: code kABErrorRequest when the daemon cannot be reached or has gone meanwhile, else what
// the daemon says. The forms with a handler return at once; the handler runs once, on the client's reply
// queue and by its rules (ABDaemonClient.h), or never when the client goes first. The blocking forms are for
// programs and threads without a loop: they wait as long as the daemon takes, with a client that outlives the
// call, and are a programming error (InternalInconsistency) where replies are handled.

#include <sys/types.h>
#include <unistd.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "Ambrel/ABDaemonClient.h"
#include "Ambrel/ABErrors.h"
#include "Ambrel/ABPlugInCore.h"
#include "platform/propertylist/PropertyList.h"
#include "platform/value/Value.h"

#pragma GCC visibility push(default)

namespace ambrel {

/// A record that was made from a daemon's answer; whoever got one may share it between threads.
using PlugIn = std::shared_ptr<const ABPlugInCore>;
using PlugIns = std::vector<PlugIn>;

/// How this process starts a plug-in that was made ready for it.
struct PlugInLaunch {
  /// An absolute path.
  std::string executable;
  /// "NAME=VALUE": what the plug-in is given and, of this process's own environment, what says where the
  /// device is and which language it speaks (XDG_RUNTIME_DIR, PATH, LANG).
  std::vector<std::string> environment;
  /// The name of the sandbox that the plug-in is meant for.
  std::string sandboxProfile;
  /// The whole launch registration (platform/launcher/ServiceLauncher.h). It is good as long as this process
  /// lives, unless the plug-in is uninstalled or replaced.
  Dictionary registration;
};

/// What the blocking forms throw; what() is the error's description.
class ABFailure : public std::runtime_error {
 public:
  explicit ABFailure(Error error)
      : std::runtime_error(error.localizedDescription()), error_(std::move(error)) {}
  const Error& error() const { return error_; }

 private:
  Error error_;
};

template <typename T>
using ResultHandler = std::function<void(Result<T>&&)>;

/// The plug-ins that match `rules` (none: all) and may be used by this process, in no particular order. Forms
/// that no record can be made of are logged and left out. `flags`: ABDiscover... bits.
void findPlugIns(ABDaemonClient& client, const std::optional<Dictionary>& rules, uint64_t flags,
                 ResultHandler<PlugIns> handler);
/// The same, blocking. Throws ABFailure.
PlugIns findPlugIns(ABDaemonClient& client, const std::optional<Dictionary>& rules = std::nullopt,
                    uint64_t flags = 0);

/// Makes the plug-in launchable for this process and reads the launch registration that this makes. Code
/// kABErrorRequest also for a plug-in that is ready but not launched (a data plug-in).
void readyPlugIn(ABDaemonClient& client, const ABPlugInCore& plugIn, ResultHandler<PlugInLaunch> handler);
/// The same, blocking. Throws ABFailure.
PlugInLaunch readyPlugIn(ABDaemonClient& client, const ABPlugInCore& plugIn);

/// Starts the plug-in as a child process whose standard input and output are the given descriptors; nothing
/// else that is close-on-exec is passed on. Any thread. The caller waits for the process's end (waitpid(2)).
/// It is not confined: who enforces `sandboxProfile` starts the executable by itself. Throws ABFailure,
/// domain "POSIX", when it cannot be started.
pid_t startPlugIn(const PlugInLaunch& launch, int standardInput = STDIN_FILENO,
                  int standardOutput = STDOUT_FILENO);

/// The forms in the reply to a "match", as they came; kABErrorVersion for a reply without any.
Result<std::vector<Dictionary>> formsInReply(const ABDaemonClient& client,
                                             const ABDaemonClient::Reply& reply);

}  // namespace ambrel

#pragma GCC visibility pop
