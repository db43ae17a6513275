#pragma once

// The files behind the service launcher: one directory of registrations for each host process. The launcher's
// own; any thread.

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "platform/launcher/ServiceLauncher.h"
#include "platform/value/UUID.h"

namespace platform {

/// When process `pid` began, in clock ticks since boot; none when it is gone (a zombie is). Together with the
/// pid it names one process for good.
std::optional<uint64_t> processStartTime(pid_t pid);

class RegistrationFiles {
 public:
  /// runtime/Launcher of this process's directories; empty when there is no runtime directory.
  static std::string directory();
  static std::string path(pid_t host, const UUID& plugIn);

  /// Writes a registration whole or not at all; an error number, or 0. Nothing is synced: a registration does
  /// not outlive its host, let alone a crash of the machine. `isNewHost` tells whether it is the host's
  /// first.
  static int write(pid_t host, const UUID& plugIn, const std::string& bytes, bool& isNewHost);
  /// The number of the last write.
  static RegistrationNumber lastWrite();

  static void removeOne(pid_t host, const UUID& plugIn);

  /// Removes what `removals` name, and up to number `upTo` the registrations of dead hosts: one that is
  /// written anew while it is being judged stays. Answers removeExternalServices()'s results.
  static std::vector<int32_t> remove(std::span<const ExternalServiceRemoval> removals,
                                     RegistrationNumber upTo);
};

}  // namespace platform
