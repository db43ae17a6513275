#pragma once

// The names of one bundle, read when they are first asked for and kept from then on with the state of the
// files that they came from. They are not read again: when a scan finds that one of the files changed, the
// plug-ins that show these names are registered anew, with new proxies. Any thread; nobody waits.

#include <atomic>
#include <memory>
#include <string>

#include "platform/qmx/BundleNames.h"

namespace platform::hollin {

class SeenNames {
 public:
  SeenNames() = default;
  ~SeenNames() { delete seen_.load(std::memory_order_relaxed); }
  SeenNames(const SeenNames&) = delete;
  SeenNames& operator=(const SeenNames&) = delete;

  /// Of the bundle at `path`, whose Info file says `own`.
  qmx::BundleNames get(const std::string& path, const qmx::BundleNames& own);
  /// Of the bundle at `path`; its Info file is read, too.
  qmx::BundleNames get(const std::string& path);

  bool areKept() const { return seen_.load(std::memory_order_acquire) != nullptr; }
  /// Whether a file that kept names came from is another one now.
  bool areOutdated(const std::string& path) const;

 private:
  struct Seen {
    qmx::BundleNames names;
    qmx::LocalizationFiles localizations;
    FileIdentity info;
    bool isInfoRead = false;
  };
  const Seen* kept() const { return seen_.load(std::memory_order_acquire); }
  qmx::BundleNames keep(std::unique_ptr<const Seen> seen);

  std::atomic<const Seen*> seen_{nullptr};  // set once
};

}  // namespace platform::hollin
