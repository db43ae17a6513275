#pragma once

// The application registry: the system of record for which plug-ins are installed. It scans the applications
// of all data roots, watches them, keeps UUIDs and registrations in state/Hollin/Registry.sqlite, answers
// queries from indexes in memory and announces installs and uninstalls on its own thread. All operations: any
// thread; no registry lock is held while an observer or a filter runs, nor over file or database I/O.

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "platform/hollin/HLProxies.h"
#include "platform/propertylist/FileReplacement.h"
#include "platform/value/Date.h"
#include "platform/value/Error.h"

namespace platform {

using HLProxyList = std::vector<std::shared_ptr<const HLAmbrelProxy>>;

/// How the registry stands to the bundle at a path.
struct HLBundleStanding {
  enum class State : uint8_t {
    registered,
    refused,       // it is no plug-in bundle
    unregistered,  // on demand, and has not changed since
    unseen,        // where scans look, but not seen yet: new, or still being written
    unwatched,     // no scan looks there, and nobody registered it
    absent,        // there is no such directory
  };
  State state = State::absent;
  std::string path;     // canonical, as far as it exists
  HLProxyList plugIns;  // in order of identifier; empty unless it is registered
  std::string refusal;  // why it would be refused; empty when it is accepted
};

/// The registry in numbers.
struct HLRegistryStatistics {
  size_t bundles = 0, plugIns = 0;    // that are registered
  uint64_t announcements = 0;         // that observers were told of; what happened together is one
  std::optional<Date> lastScan = {};  // when something was looked at because it may have changed
  size_t watches = 0;                 // of the user's inotify(7) watches
  bool isPolling = false;             // they ran out, and everything is looked at every kRescanInterval
};

class HLApplicationWorkspaceObserverProtocol {
 public:
  virtual ~HLApplicationWorkspaceObserverProtocol() = default;
  virtual void pluginsDidInstall(const HLProxyList& proxies) = 0;
  virtual void pluginsWillUninstall(const HLProxyList& proxies) = 0;
};

class HLApplicationWorkspace {
 public:
  /// Opens the registry of this process's directories: takes the state directory's lock, reads the stored
  /// registrations, scans every data root and starts watching. An error when the lock is taken by another
  /// daemon or the state directory cannot be used. Once, before defaultWorkspace().
  static std::optional<Error> open();
  /// The shared workspace. REQUIRES: open() succeeded.
  static HLApplicationWorkspace& defaultWorkspace();

  virtual ~HLApplicationWorkspace() = default;

  /// Observers are called on the registry's own thread, in order of events. The first one is told of what
  /// changed since the state directory was last in use, too; what is as it was is not announced, nor is
  /// anything when the state directory is new. The observer outlives the workspace's thread or calls
  /// removeObserver(), which waits for a running call to end.
  virtual void addObserver(HLApplicationWorkspaceObserverProtocol* observer) = 0;
  virtual void removeObserver(HLApplicationWorkspaceObserverProtocol* observer) = 0;
  /// Searches can be made: other processes are told so, and from now on of what the observers have been told
  /// (kPlugInsChangeNotification).
  virtual void startPosting() = 0;

  /// Proxies of all registered plug-ins, or none when the registry cannot answer. One shared snapshot:
  /// nothing is copied per call.
  virtual std::shared_ptr<const HLProxyList> installedPlugins() const = 0;

  using Filter = std::function<bool(const String& identifier, const Value& entitlements)>;
  /// Proxies of the plug-ins whose identifier is in `identifiers` (when given) and that can be found under an
  /// extension-point name in `protocols` (when given), of any version, keeping those for which `filter` (when
  /// given) returns true; none on failure. Literals are compared as whole strings; an empty list matches
  /// nothing.
  virtual std::optional<HLProxyList> pluginsWithIdentifiers(const std::vector<std::string>* identifiers,
                                                            const std::vector<std::string>* protocols,
                                                            const std::string* version,
                                                            const Filter& filter) const = 0;

  /// Registers the plug-in bundle at a file URL; a repeated registration only renews the registration time.
  /// When this returns true, every later query sees the plug-in.
  virtual bool registerPlugin(const URL& url) = 0;
  /// Unregisters; works for bundles that are gone. System plug-ins cannot be unregistered.
  virtual bool unregisterPlugin(const URL& url) = 0;

  /// How the registry stands to the bundle at `path`. Reads its files when it is not registered.
  virtual HLBundleStanding standingOf(const std::string& path) const = 0;

  /// Whether plug-ins that name this SDK will be announced as updated when it is not as it was read from
  /// `file` (zero: not there). Otherwise the registry has not seen that state yet, or may not tell it from
  /// the next.
  virtual bool vouchesForSDK(std::string_view name, const FileIdentity& file) const = 0;

  /// Takes no time that depends on how many plug-ins there are.
  virtual HLRegistryStatistics statistics() const = 0;

  /// Drops every parsed Info and SDK dictionary held by the layer (index rows stay).
  virtual void HLClearSchemaCaches() = 0;
};

}  // namespace platform
