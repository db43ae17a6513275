#pragma once

// The platform's service launcher: which plug-ins a host process may start, and how busy this process is.
// Registrations are files, runtime/Launcher/<host pid>/<plug-in UUID>.plist, each a dictionary with
// "PlugInIdentifier", "BundleIdentifier", "BundleVersion", "ExecutablePath", "HostStartTime" and
// "LaunchDescription". They live as long as their host; those of dead hosts are swept. Any thread.

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <optional>
#include <string>

#include "platform/queue/SerialQueue.h"
#include "platform/value/UUID.h"
#include "platform/value/Value.h"

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

/// Lets process `host` start the executable as described, in place of what it was told about that plug-in
/// before. 0, or an error number: ESRCH for a host that is gone, ENOENT/EACCES for the executable, EINVAL for
/// a description that a property list cannot hold, the write's own errors.
int addExternalService(pid_t host, const std::string& executablePath, const Dictionary& launchDescription,
                       const ExternalService& service);

/// Removes every registration of that bundle identifier and version that was made before this call (and
/// sweeps those of dead hosts); `completion` runs on `queue` with 0, 3 when there was none, or an error
/// number. The file work is done on the platform's background thread.
/// REQUIRES: `queue` lives until then.
void removeExternalService(const std::string& bundleIdentifier, const std::string& bundleVersion,
                           SerialQueue& queue, std::function<void(int32_t result)> completion);

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
