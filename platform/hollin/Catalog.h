#pragma once

// All bundles that the registry knows, and the indexes over their registered plug-ins, in memory. Queries
// hold the one lock only to copy references, never while a filter or an observer runs; nothing here touches
// a file or the database. Changes are announced in the order in which they become visible, and become
// visible before they are announced. What changes several tables is noexcept: rather than with half of it
// done, the process ends for want of memory, and all is built anew from the disk. Any thread; shared by the
// registry and its application proxies.

#include <cstdint>
#include <memory>
#include <mutex>
#include <span>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "platform/hollin/Announcer.h"
#include "platform/hollin/Locations.h"
#include "platform/hollin/Postings.h"
#include "platform/hollin/Proxies.h"
#include "platform/hollin/Registration.h"
#include "platform/hollin/Scanner.h"

namespace platform::hollin {

/// What was seen of a bundle on disk.
struct Sighting {
  String path;
  std::shared_ptr<const BundleFacts> facts;  // null: there is no bundle
  String entry;                              // where a scan found it; empty when it was looked at by its path
  bool isRenewed = false;  // its files are the same, but what its plug-ins are called is not
};

/// Plug-ins, and where a scan found them.
using NamedPlugIns = std::vector<std::pair<std::shared_ptr<const PlugInProxy>, String>>;

class Catalog : public std::enable_shared_from_this<Catalog> {
 public:
  /// What applying sightings led to.
  struct Outcome {
    std::vector<std::shared_ptr<const PlugInProxy>> registered;  // now, not restored
    std::vector<Sighting> stale;  // the bundle was registered or unregistered since: look again
  };

  /// The announcer outlives the catalog.
  Catalog(Announcer& announcer, std::shared_ptr<const Surroundings> surroundings);

  // Queries.
  std::shared_ptr<const HLProxyList> all() const;
  /// Fills in what is registered.
  void count(HLRegistryStatistics& statistics) const;
  HLProxyList find(const std::vector<std::string>* identifiers, const std::vector<std::string>* protocols,
                   const std::string* version) const;
  std::shared_ptr<const HLAmbrelProxy> withUUID(const UUID& uuid) const;
  /// The plug-in with the lowest identifier of the bundle at a canonical path, or null.
  std::shared_ptr<const HLAmbrelProxy> lowestAt(std::string_view path) const;
  /// The plug-ins of the bundle at a canonical path, in order of identifier, and whether it was unregistered.
  HLProxyList at(std::string_view path, bool& isUnregistered) const;
  /// Plug-ins within an application, in order of path, then identifier.
  HLProxyList within(std::string_view application) const;
  /// The proxy of an application that contains registered plug-ins, or null.
  std::shared_ptr<const HLApplicationProxy> application(std::string_view path) const;

  // Changes. `now` is in seconds since 1970; `since` is the value that clock() had before the disk was read.
  std::shared_ptr<const Locations> locations() const;
  void setLocations(std::shared_ptr<const Locations> locations);
  /// Takes over what was stored, as it was when the process that stored it ended: what has changed since is
  /// for the first scan to find. Once, at first; announces nothing.
  void restore(std::vector<Registration> registrations);
  uint64_t clock() const;
  /// Begins a scan: what recognise() is not told of is missing() after it.
  uint64_t beginScan();
  /// Takes note of bundles that a scan found in `entries`. What is as it was is settled with this; what is
  /// not becomes news. `named` gets the plug-ins among what is settled whose names, or whose application's,
  /// somebody has asked for.
  void recognise(std::span<const FoundBundle> found, const std::vector<String>& entries, uint64_t scan,
                 std::vector<const FoundBundle*>& news, NamedPlugIns& named);
  /// The same of the bundle at `path`.
  NamedPlugIns named(std::string_view path) const;
  /// The facts of a bundle that has not changed since it was last seen, or null.
  std::shared_ptr<const BundleFacts> unchanged(std::string_view path, const FileIdentity& info,
                                               const FileIdentity& entitlements) const;
  /// Whether a sighting (facts as unchanged() found them, or null) would change anything.
  bool isNews(const Sighting& sighting) const;
  void apply(std::span<const Sighting> sightings, uint64_t since, double now, Outcome& outcome) noexcept;
  /// Registers a bundle on demand; by path unless `sighting.entry` says that scans find it.
  void registerBundle(const Sighting& sighting, uint64_t since, double now, Outcome& outcome) noexcept;
  /// False when nothing is registered at that path.
  bool unregisterBundle(std::string_view path, double now) noexcept;

  struct Missing {
    String path, entry;
    bool isByPath;
  };
  /// Bundles that a scan did not find: all, or those that were found in one of `entries` before.
  std::vector<Missing> missing(uint64_t scan, const std::unordered_set<std::string_view>* entries) const;
  /// Paths that are registered by path.
  std::vector<String> registeredByPath() const;
  /// The vigil of what is found in an entry, or is registered by path, at `path`.
  std::shared_ptr<Vigil> vigilOf(std::string_view path);
  /// Forgets the vigil when nobody has it any more.
  void sweepVigil(std::string_view path);

  // SDKs: plug-ins that name one take over what it says, and are found by the names that it gives.
  /// Which of the SDKs that `facts` name are not known yet, and the generation to hand to addSDK().
  std::vector<String> unknownSDKs(const BundleFacts& facts, uint64_t& generation) const;
  /// The same for all plug-ins that are registered.
  std::vector<String> unknownSDKs(uint64_t& generation) const;
  /// False when SDKs changed since: read it again.
  bool addSDK(const String& name, const SDKFacts& facts, uint64_t generation) noexcept;
  /// Whether the SDK is known from that file (zero: known not to be there).
  bool knowsSDK(std::string_view name, const FileIdentity& file) const;
  /// Names of all SDKs in use; what others read until now does not count any more.
  std::vector<String> beginSDKRefresh();
  struct SDKReading {
    String name;
    SDKFacts facts;
  };
  /// Plug-ins that took over something else are registered anew, all in one announcement.
  void setSDKs(std::span<const SDKReading> readings, double now, Outcome& outcome) noexcept;

  // The store. What changed is taken, written, and given back when that failed.
  std::vector<Registration> takeUnsaved(size_t most) noexcept;
  void giveBackUnsaved(const std::vector<Registration>& registrations) noexcept;
  /// Everything is to be written again.
  void markAllUnsaved();

 private:
  struct State : Registration {
    std::vector<std::shared_ptr<PlugInProxy>> proxies;  // in the facts' order; empty when not registered
    String entry;                                       // where the last scan found it
    uint64_t changed = 0;                               // on the clock
    uint64_t seen = 0;                                  // by which scan
    bool isUnsaved = false;
    bool isDormant = false;  // was registered when it was stored, and was not looked at since
  };
  struct Application {
    std::shared_ptr<const ApplicationProxy> proxy;
    std::vector<const State*> bundles;  // with registered plug-ins
  };
  struct SDK {
    SDKFacts facts;
    bool isKnown = false;
    Postings plugIns;
  };
  struct Change {
    HLProxyList uninstalled, installed;
    Outcome* outcome;
    double now;
  };

  State* find(std::string_view path);
  State& findOrAdd(const String& path);
  static bool isExpected(const State* state);
  static void noteEntry(State& state, const Sighting& sighting);
  void settle(State& state, const Sighting& sighting, Change& change);
  static void addNamed(const State& state, NamedPlugIns& named);
  void miss(State& state, const std::shared_ptr<const BundleFacts>& facts, Change& change);
  void assignSlots(State& state, double now);
  void rouse(State& state);
  void wake(State& state, Change& change);
  void renew(State& state, size_t index, Change& change);
  void retire(State& state, Change& change);
  void enter(const std::shared_ptr<PlugInProxy>& proxy, Change& change);
  void withdraw(const std::shared_ptr<PlugInProxy>& proxy, Change& change);
  const std::shared_ptr<const ApplicationProxy>& applicationFor(const State& state, std::string_view path,
                                                                const std::shared_ptr<const Vigil>& vigil);
  std::shared_ptr<Vigil> vigilAt(std::string_view path);
  std::shared_ptr<Vigil> vigilFor(const State& state);
  bool hasOwnVigil(const State& state);
  void touch(State& state);
  void learn(const String& name, SDK& sdk, const SDKFacts& facts);
  bool hasName(const PlugInProxy& proxy, std::string_view name) const;
  HLProxyList findByIdentifier(const std::vector<std::string>& identifiers) const;
  HLProxyList findByName(const std::vector<std::string>& names) const;

  Announcer& announcer_;
  const std::shared_ptr<const Surroundings> surroundings_;

  mutable std::mutex mutex_;
  // Guarded by mutex_.
  std::shared_ptr<const Locations> locations_;
  StringMap<State> states_;  // by path
  StringMap<Application> applications_;
  StringMap<std::weak_ptr<Vigil>> vigils_;
  std::unordered_map<UUID, std::shared_ptr<PlugInProxy>> byUUID_;
  StringMap<Postings> byIdentifier_, byName_;
  StringMap<SDK> sdks_;
  StringMap<std::vector<String>> sdksByName_;
  Postings plugIns_;                                // all
  size_t bundles_ = 0;                              // that they are in
  mutable std::shared_ptr<const HLProxyList> all_;  // made when asked for
  uint64_t clock_ = 0, scans_ = 0, sdkGeneration_ = 0;
  int64_t lastRow_ = 0;
  std::vector<String> unsaved_;
};

}  // namespace platform::hollin
