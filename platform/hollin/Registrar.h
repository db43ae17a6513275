#pragma once

// Brings the catalog and the store in line with the disk: reads the bundles that a scan found new or changed,
// applies what was seen, makes data containers and saves. Holds no lock while it reads. Called by the
// monitor's thread and by whoever registers and unregisters.

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "platform/hollin/Catalog.h"
#include "platform/hollin/Scanner.h"
#include "platform/hollin/Store.h"

namespace platform::hollin {

class Registrar {
 public:
  /// Both outlive this.
  Registrar(Catalog& catalog, Store& store) : catalog_(catalog), store_(store) {}

  /// What is left to be done.
  struct Report {
    std::vector<std::string> postponed;  // entries, or bundles registered by path, that are being written
    std::vector<std::string> again;      // those whose sighting failed, or was overtaken
    bool isEverythingToBeScanned = false;
    std::vector<std::shared_ptr<const PlugInProxy>> registered;  // they have no data containers yet
  };
  /// Whether somebody is still writing to the entry or bundle at a path.
  using IsBusy = std::function<bool(const std::string& path)>;

  /// Applies a scan. `isEverything`: it was of all roots, and bundles registered by path are looked at too.
  /// `since` is the catalog's clock before the scan. Without `isBusy`, which is at start, nothing is
  /// postponed.
  Report applyScan(const Scan& scan, bool isEverything, uint64_t since, const IsBusy& isBusy);
  /// Looks at bundles by their paths; those that are not registered so any more are left alone.
  Report lookAt(const std::vector<std::string>& paths, const IsBusy& isBusy);

  /// Registers the bundle at a path on demand; false, and a reason in the log, when it is refused.
  bool registerBundle(const std::string& path);
  /// False when nothing is registered there, or it lies on the system volume.
  bool unregisterBundle(const std::string& path);

  /// Reads the SDKs in use anew; plug-ins of those that changed are registered anew.
  void refreshSDKs();
  /// Writes what changed to the store; what cannot be written now is written with the next change.
  void save();
  void saveUnsaved();

 private:
  struct Sightings;

  void addFound(const Scan& scan, uint64_t number, Sightings& sightings);
  void addMissing(const Scan& scan, uint64_t number, bool isEverything, Sightings& sightings, Report& report);
  void postpone(const IsBusy& isBusy, Sightings& sightings, Report& report);
  void readMissingFacts(Sightings& sightings, Report& report);
  void addRenamed(const NamedPlugIns& named, Sightings& sightings) const;
  void look(const String& path, Sightings& sightings) const;
  void apply(Sightings& sightings, uint64_t since, Report& report);
  void learnSDKs(const std::vector<std::shared_ptr<const BundleFacts>>& bundles);
  void learnSDKsInUse();

  Catalog& catalog_;
  std::mutex storeMutex_;
  Store& store_;             // guarded by storeMutex_
  bool hasAliases_ = false;  // the monitor's thread, and before it the one that starts
};

/// Makes the data containers of plug-ins.
void makeDataContainers(const std::vector<std::shared_ptr<const PlugInProxy>>& proxies);

}  // namespace platform::hollin
