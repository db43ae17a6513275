#pragma once

// Entitlements of bundles and of processes. A process has the entitlements of the bundle that contains its
// executable (also when an update has replaced that meanwhile): Entitlements.plist there, honoured only when
// it is a regular file, owned by root or this process's user, and not writable by group or others. (So every
// unconfined process of the user can grant itself any: the boundary is the sandbox.) Any thread.

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <variant>

#include "platform/qmx/PeerIdentity.h"
#include "platform/value/Error.h"
#include "platform/value/Value.h"

namespace platform {

/// The entitlements of the bundle at `path`: an empty dictionary when it has none, an error when the file is
/// there but cannot be read or must not be honoured (domain "POSIX", EPERM). The file is looked up anew each
/// time; an unchanged one is not parsed again.
std::variant<Dictionary, Error> bundleEntitlements(const std::string& path);

/// A reference to a process for entitlement queries (its task).
class CodeSigningTask {
 public:
  /// Null when the process is not known for certain.
  static std::shared_ptr<const CodeSigningTask> create(std::shared_ptr<const qmx::PeerIdentity> peer);
  /// What a process of the bundle at `path` would be: it is never gone.
  static std::shared_ptr<const CodeSigningTask> ofBundle(const std::string& path);

  struct Answer {
    Value value;                 // none when the entitlement is absent
    std::optional<Error> error;  // why the query failed
  };
  /// The value of one entitlement now. None, with an error (ESRCH), once the process is gone or runs another
  /// image. A process whose executable lies in no bundle has no entitlements, which is no error.
  Answer valueForEntitlement(std::string_view name) const;

 private:
  CodeSigningTask() = default;
  std::shared_ptr<const qmx::PeerIdentity> peer_;  // null when there is no process
  std::optional<std::string> bundlePath_;
};

}  // namespace platform
