#pragma once

// Which plug-in instances are busy: runtime/Assertions/<bundle identifier>/<instance> with a write lock held
// by the busy instance (open file description lock, fcntl(2)). Any thread.

#include <memory>
#include <set>
#include <string>
#include <vector>

#include "platform/value/Value.h"

namespace platform {

/// The busy instances of the given bundle identifiers, each a dictionary with "BundleIdentifier" (when its
/// file says so). Never takes a lock.
std::vector<Dictionary> busyExtensionInstances(const std::set<std::string>& bundleIdentifiers);

/// The plug-in's side: marks one instance of `bundleIdentifier` busy while it lives.
class BusyAssertion {
 public:
  /// Null, with errno set, when it cannot be taken.
  static std::unique_ptr<BusyAssertion> take(const std::string& bundleIdentifier);
  ~BusyAssertion();
  BusyAssertion(const BusyAssertion&) = delete;
  BusyAssertion& operator=(const BusyAssertion&) = delete;

 private:
  BusyAssertion() = default;
  int fd_ = -1;
  std::string path_;
};

}  // namespace platform
