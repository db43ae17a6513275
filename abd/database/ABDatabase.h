#pragma once

// The daemon's view of all registered plug-ins: turns the registry's proxies into records, keeps them in a
// cache of bounded count keyed by plug-in UUID, answers look-ups, passes registrations on, fronts the
// annotation store and elects plug-ins that ask for it. Made once, as the base of the server; lives as long
// as the process and observes the registry all that time.
//
// Look-ups and annotation calls come from the service queue, announcements from the registry's thread. The
// serial queue "ABDatabase" guards the cache and orders the store's calls; it is only entered synchronously
// and its work waits for no other queue.

#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "abd/database/ABDAnnotationStore.h"
#include "abd/plugin/ABDPlugIn.h"
#include "platform/hollin/HLApplicationWorkspace.h"
#include "platform/queue/SerialQueue.h"

namespace abd {

using namespace platform;
using namespace ambrel;

class ABDatabaseDelegate {
 public:
  virtual ~ABDatabaseDelegate() = default;
  /// The plug-ins of these proxies are being uninstalled. On the registry's thread.
  virtual void removedPlugIns(const HLProxyList& proxies) = 0;
};

class ABDatabase;

/// A search that goes on record by record, so that others can be served meanwhile: what it looks through was
/// settled when it began. Used by one request; the database outlives it.
class ABDPlugInSearch {
 public:
  enum class Scope : uint8_t { everything, withoutPlaceholders };
  /// `proxies` null: the registry cannot answer.
  ABDPlugInSearch(ABDatabase& database, std::shared_ptr<const HLProxyList> proxies, Scope scope)
      : database_(database), proxies_(std::move(proxies)), scope_(scope) {}

  bool hasAnswer() const { return proxies_ != nullptr; }
  size_t size() const { return proxies_ != nullptr ? proxies_->size() : 0; }
  bool isOver() const { return next_ == size(); }
  /// What next() looks at. REQUIRES: not over.
  const HLAmbrelProxy& upcoming() const { return *(*proxies_)[next_]; }
  /// The record of the next proxy; null for one that is passed over, the last flaw that `trace` is told is
  /// why. REQUIRES: not over.
  std::shared_ptr<ABDPlugIn> next(ABRecordTrace* trace = nullptr);
  /// Whether the plug-in is among them all.
  bool contains(const UUID& uuid) const;

 private:
  ABDatabase& database_;
  const std::shared_ptr<const HLProxyList> proxies_;
  const Scope scope_;
  size_t next_ = 0;
  // Plug-ins of one application stand together and are judged together.
  std::shared_ptr<const HLBundleProxy> container_;
  bool isInPlaceholder_ = false;
};

/// What of a search's rules the registry can look up: the literals by which its candidates are narrowed.
struct Narrowing {
  using Literals = std::optional<std::vector<std::string>>;
  explicit Narrowing(const std::optional<Dictionary>& rules = std::nullopt);

  Literals identifiers, points, elections;
};

class ABDatabase : public HLApplicationWorkspaceObserverProtocol {
 public:
  ABDatabase();
  ~ABDatabase() override;
  ABDatabase(const ABDatabase&) = delete;
  ABDatabase& operator=(const ABDatabase&) = delete;

  /// Opens the registry, loads the annotations and begins to observe. False, with the reason logged, when the
  /// registry cannot be opened. `path` is the annotation file's; none: the default location.
  bool initWithDatabase(const std::optional<std::string>& path);

  ABDatabaseDelegate* delegate() const { return delegate_.load(std::memory_order_acquire); }
  /// Not owned; set to null before the delegate goes.
  void setDelegate(ABDatabaseDelegate* delegate) { delegate_.store(delegate, std::memory_order_release); }
  /// Records above which the cache is emptied.
  uint32_t cacheLimit() const { return cacheLimit_.load(std::memory_order_relaxed); }
  void setCacheLimit(uint32_t limit) { cacheLimit_.store(limit, std::memory_order_relaxed); }
  /// How many records are kept, and how often all were dropped.
  struct CacheCounts {
    size_t records = 0;
    uint64_t purges = 0;
  };
  CacheCounts cacheCounts();
  HLApplicationWorkspace& workspace() const { return *workspace_; }
  ABDAnnotationStore& annotations() const { return *annotations_; }

  // Look-ups. Each answers null (or nothing) for plug-ins whose record cannot be built.
  /// Why it cannot is the last flaw that `trace` is told, if one is given.
  std::shared_ptr<ABDPlugIn> plugInForProxy(const std::shared_ptr<const HLAmbrelProxy>& proxy,
                                            ABRecordTrace* trace = nullptr);
  /// Candidates for `rules`, narrowed by what the registry can look up; the caller still matches each. None
  /// when the registry cannot answer.
  std::optional<ABDPlugInSet> findPlugIns(const std::optional<Dictionary>& rules);
  /// The same candidates one by one.
  ABDPlugInSearch search(const Narrowing& narrowing);
  std::shared_ptr<ABDPlugIn> findPlugIn(const UUID& uuid);
  std::shared_ptr<ABDPlugIn> findPlugInAtPath(const URL& url);
  /// In the registry's order; none when there is no such application or it has no plug-ins.
  std::optional<std::vector<std::shared_ptr<ABDPlugIn>>> plugInsWithinApplication(const URL& url);
  /// The same plug-ins one by one.
  ABDPlugInSearch searchApplication(const URL& url);

  // Registration.
  std::optional<Error> addPlugIn(const URL& url);
  std::optional<Error> removePlugIn(const URL& url);

  // Annotations.
  /// The plug-in's annotation record (a dictionary), or a none value.
  Value annotationForPlugIn(const ABDPlugIn& plugIn);
  /// How the annotation file fares.
  ABDAnnotationStore::Condition annotationCondition();
  /// Whether an annotation of that many bytes, written, may be kept of the plug-in.
  bool hasRoomForAnnotation(size_t bytes, const ABDPlugIn& plugIn);
  /// Merges into the plug-in's record (none removes it), saves, and posts the change. Always none.
  std::optional<Error> setAnnotation(const std::optional<Dictionary>& annotation, const ABDPlugIn& plugIn);

  // Announcements.
  void pluginsDidInstall(const HLProxyList& proxies) override;
  void pluginsWillUninstall(const HLProxyList& proxies) override;

 private:
  std::shared_ptr<ABDPlugIn> cachedPlugIn(const UUID& uuid) const;
  bool isVouchedFor(const ABDPlugIn& record) const;
  std::shared_ptr<ABDPlugIn> createPlugInForProxy(const std::shared_ptr<const HLAmbrelProxy>& proxy,
                                                  ABRecordTrace* trace = nullptr);
  void purgeCachesToLimit(int64_t limit);
  void autoElect(const ABDPlugIn& plugIn);
  bool electionPreFilter(const std::unordered_set<std::string>& elections, const String& identifier,
                         const Value& entitlements) const;

  std::atomic<ABDatabaseDelegate*> delegate_{nullptr};
  std::atomic<uint32_t> cacheLimit_{0};

  // Set by initWithDatabase().
  HLApplicationWorkspace* workspace_ = nullptr;
  std::unique_ptr<ABDAnnotationStore> annotations_;

  SerialQueue sync_{"ABDatabase", RunLoop::main()};

  // Only on "ABDatabase".
  std::unordered_map<UUID, std::shared_ptr<ABDPlugIn>> cache_;
  uint64_t purges_ = 0;
};

}  // namespace abd
