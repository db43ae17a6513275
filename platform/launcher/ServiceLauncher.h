#pragma once

// The platform's service launcher: which plug-ins a host process may start, and how busy this process is.
// Registrations are files, runtime/Launcher/<host pid>/<plug-in UUID>.plist, each a dictionary with
// "PlugInIdentifier", "BundleIdentifier", "BundleVersion", "ExecutablePath", "HostStartTime" and
// "LaunchDescription". They live as long as their host; those of dead hosts are swept. Any thread.

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "platform/queue/SerialQueue.h"
#include "platform/value/UUID.h"
#include "platform/value/Value.h"

#pragma GCC visibility push(default)

namespace platform {

/// Key of the bundle identifier in extension properties.
inline constexpr const char* kLauncherBundleIdentifierKey = "BundleIdentifier";

/// Result codes of a removal.
inline constexpr int32_t kRemovalDone = 0;
inline constexpr int32_t kRemovalNoSuchService = 3;

/// What the launcher is told besides the launch description, to find the registration again.
struct ExternalService {
  UUID plugInUUID;
  std::string plugInIdentifier;
  std::string bundleIdentifier;
  std::string bundleVersion;
};

/// Why execve(2) would refuse the file: an error number, or 0.
int checkExecutable(const std::string& path);

/// Lets process `host` start the executable as described, in place of what it was told about that plug-in
/// before. 0, or an error number: ESRCH for a host that is gone, ENOENT/EACCES for the executable, EINVAL for
/// a description that a property list cannot hold, the write's own errors.
int addExternalService(pid_t host, const std::string& executablePath, const Dictionary& launchDescription,
                       const ExternalService& service);

/// Takes a registration back; one that is not there is none.
void withdrawExternalService(pid_t host, const UUID& plugInUUID);

/// This process's registrations are numbered in the order in which they are made, from 1.
using RegistrationNumber = uint64_t;
/// The number of the last one. Waits for nothing.
RegistrationNumber lastExternalService();

/// All registrations of a bundle identifier and version but those that were made after number `upTo`.
struct ExternalServiceRemoval {
  std::string bundleIdentifier;
  std::string bundleVersion;
  RegistrationNumber upTo = 0;
};

/// Removes registrations (and sweeps those of dead hosts); `completion` runs on `queue` with one result for
/// each of `removals`: 0, 3 when there was none, or an error number. The file work is done on the platform's
/// background thread, in one pass however many removals there are.
/// REQUIRES: `queue` lives until then.
void removeExternalServices(std::vector<ExternalServiceRemoval> removals, SerialQueue& queue,
                            std::function<void(std::span<const int32_t> results)> completion);

/// The host's side: the registration of a plug-in for process `host` (a dictionary), or none.
std::optional<Dictionary> externalService(pid_t host, const UUID& plugInUUID);

/// One open busy marking of this process; it counts while it lives. The count is shown in the service
/// manager's status text (sd_notify(3)) when there is one; telling it never blocks.
class BusyMarking {
 public:
  BusyMarking();
  ~BusyMarking();
  BusyMarking(const BusyMarking&) = delete;
  BusyMarking& operator=(const BusyMarking&) = delete;
};

}  // namespace platform

#pragma GCC visibility pop
