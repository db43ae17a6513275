#pragma once

// A standing search: whoever hosts plug-ins is told which there are, and from then on what becomes different.
// After every notification that a search may answer otherwise (plug-ins and SDKs that come, go or change;
// elections; holds, whoever has them; a daemon that begins to serve) the daemon is asked once, after several
// in quick succession once for all of them, and never without one. The handler hears of it only when there is
// a difference for this host.

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <vector>

#include "Ambrel/ABHost.h"

#pragma GCC visibility push(default)

namespace ambrel {

/// What became different since the handler was called last with one of these. Plug-ins are told apart by
/// their UUIDs; one that is as it was keeps its record.
struct PlugInChanges {
  struct Change {
    PlugIn before, after;
  };
  /// All that match now, in no particular order.
  PlugIns plugIns;
  PlugIns added, removed;
  /// Whose form is another one, read tokens aside: its election, its names, its Info dictionary, its place.
  std::vector<Change> changed;
};

class PlugInDiscovery {
 public:
  using Handler = std::function<void(const Result<PlugInChanges>&)>;

  /// Searches as findPlugIns() does, at once and again until this is destroyed. Any thread; `client` outlives
  /// this and keeps its other uses.
  ///
  /// `handler` runs on the client's reply queue and by its rules. Its first changes have everything that
  /// matches as `added`, which may be nothing. A search that fails is handed over as an error, once while it
  /// goes on failing for the same reason; the changes after an error are handed over even when there are
  /// none. A daemon that is away is such an error (kABErrorRequest) only when it is asked meanwhile; when it
  /// serves again the search is repeated by itself. One more error is handed over, and nothing after the
  /// first changes, where notifications cannot be watched (no runtime directory, no more inotify(7)
  /// instances).
  PlugInDiscovery(ABDaemonClient& client, std::optional<Dictionary> rules, uint64_t flags, Handler handler);
  /// No call of the handler begins or goes on after this returned. On the client's reply queue, within the
  /// handler for example, this returns at once, and the running call is the last one; on other threads a
  /// running call is waited for: keep no lock meanwhile that the handler takes.
  ~PlugInDiscovery();
  PlugInDiscovery(const PlugInDiscovery&) = delete;
  PlugInDiscovery& operator=(const PlugInDiscovery&) = delete;

 private:
  class Search;
  struct Observers;
  std::shared_ptr<Search> search_;
  std::unique_ptr<Observers> observers_;
};

}  // namespace ambrel

#pragma GCC visibility pop
