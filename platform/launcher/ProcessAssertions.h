#pragma once

// Which plug-in instances are busy: runtime/Assertions/<bundle identifier>/<instance>, a property list with
// "BundleIdentifier", with a write lock held by the busy instance (open file description lock, fcntl(2)).
// Files without a lock do not count. Any thread.

#include <memory>
#include <set>
#include <string>
#include <vector>

#include "platform/system/FileDescriptor.h"
#include "platform/value/Value.h"

#pragma GCC visibility push(default)

namespace platform {

/// The busy instances of the given bundle identifiers, each a dictionary with "BundleIdentifier" (when its
/// file says so). Never takes a lock.
std::vector<Dictionary> busyExtensionInstances(const std::set<std::string>& bundleIdentifiers);

/// The plug-in's side: marks one instance of `bundleIdentifier` busy while it lives, and at the latest until
/// the process ends.
class BusyAssertion {
 public:
  /// Null, with errno set, when it cannot be taken. Removes the files of dead instances on the way.
  static std::unique_ptr<BusyAssertion> take(const std::string& bundleIdentifier);
  ~BusyAssertion();
  BusyAssertion(const BusyAssertion&) = delete;
  BusyAssertion& operator=(const BusyAssertion&) = delete;

 private:
  BusyAssertion(FileDescriptor file, std::string path);
  FileDescriptor file_;
  std::string path_;
};

}  // namespace platform

#pragma GCC visibility pop
