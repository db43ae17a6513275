#include "abd/database/ABDatabase.h"

#include <algorithm>
#include <span>
#include <unordered_set>
#include <utility>

#include "Ambrel/ABCollections.h"
#include "Ambrel/ABProtocol.h"
#include "Ambrel/ABRecordTrace.h"
#include "abd/database/SearchLiterals.h"
#include "abd/plugin/Rules.h"
#include "platform/log/Failure.h"
#include "platform/log/Log.h"
#include "platform/system/Notifications.h"

namespace abd {

namespace {

constexpr const char* kSource = "abd/ABDatabase";
/// Requests get their turn between the parts of a long announcement.
constexpr size_t kAnnouncedAtATime = 32;

std::optional<std::string> pathOf(const HLAmbrelProxy& proxy) {
  const auto url = proxy.bundleURL();
  if (!url) return std::nullopt;
  return url->path();
}

}  // namespace

ABDatabase::ABDatabase() = default;

ABDatabase::~ABDatabase() {
  if (workspace_ != nullptr) workspace_->removeObserver(this);
}

// The registry's lock is what keeps a second daemon from the annotation file, so the file is only looked at
// behind it; that there is a place for the file is settled before.
bool ABDatabase::initWithDatabase(const std::optional<std::string>& path) {
  const std::string file = path ? *path : ABDAnnotationStore::defaultDatabaseURL().path();
  if (const auto error = HLApplicationWorkspace::open()) {
    systemLog("unable to open the plug-in registry: %@", *error);
    return false;
  }
  annotations_ = std::make_unique<ABDAnnotationStore>(file);
  workspace_ = &HLApplicationWorkspace::defaultWorkspace();
  workspace_->addObserver(this);
  return true;
}

// --- Records ---

std::shared_ptr<ABDPlugIn> ABDatabase::plugInForProxy(const std::shared_ptr<const HLAmbrelProxy>& proxy,
                                                      ABRecordTrace* trace) {
  return sync_.sync([this, &proxy, trace]() -> std::shared_ptr<ABDPlugIn> {
    auto cached = cachedPlugIn(proxy->pluginUUID());
    return cached != nullptr ? cached : createPlugInForProxy(proxy, trace);
  });
}

/// The cached record. One whose plug-in's uninstall was decided is as good as gone: by now the registry
/// answers with what took its place.
std::shared_ptr<ABDPlugIn> ABDatabase::cachedPlugIn(const UUID& uuid) const {
  const auto found = cache_.find(uuid);
  return found == cache_.end() || found->second->hlproxy()->isUninstalled() ? nullptr : found->second;
}

std::shared_ptr<ABDPlugIn> ABDatabase::createPlugInForProxy(const std::shared_ptr<const HLAmbrelProxy>& proxy,
                                                            ABRecordTrace* trace) {
  if (!sync_.isCurrent())
    assertionFailure("on the database queue", "-[ABDatabase createPlugInForProxy:]", kSource, __LINE__);
  auto record = ABDPlugIn::initWithHLData(proxy, trace);
  if (record == nullptr) return nullptr;
  if (record->hasEntitlement(entitlement::autoElectPlugIn)) autoElect(*record);
  purgeCachesToLimit(cacheLimit());
  // An uninstall marks the proxy before it is announced: what is kept after this test was not marked yet, and
  // the announcement, which waits for this queue, takes it out again.
  if (isVouchedFor(*record) && !proxy->isUninstalled()) cache_.insert_or_assign(record->uuid(), record);
  return record;
}

/// Whether an announcement will come when the SDK changes that the record took over.
bool ABDatabase::isVouchedFor(const ABDPlugIn& record) const {
  const auto sdk = record.sdkSpec().string();
  return !sdk || workspace_->vouchesForSDK(*sdk, record.sdkFile());
}

void ABDatabase::purgeCachesToLimit(int64_t limit) {
  if (std::cmp_less_equal(cache_.size(), limit)) return;
  systemLog("purging cache for %d > %d", cache_.size(), limit);
  cache_.clear();
  ++purges_;
  workspace_->HLClearSchemaCaches();
}

ABDatabase::CacheCounts ABDatabase::cacheCounts() {
  return sync_.sync([this] { return CacheCounts{cache_.size(), purges_}; });
}

void ABDatabase::autoElect(const ABDPlugIn& plugIn) {
  if (!sync_.isCurrent())
    assertionFailure("on the database queue", "-[ABDatabase autoElect:]", kSource, __LINE__);
  Dictionary record;
  if (const Dictionary* stored = annotations_->annotationForPlugIn(plugIn).dictionary()) record = *stored;
  if (record[annotation::election].integerValue() != 0) return;
  annotations_->setAnnotation(dictionaryChanging(record, annotation::election, ABElectionUse), plugIn);
}

// --- Search ---

namespace {

/// The application that `container` is; plug-ins lie in nothing else.
const HLApplicationProxy& applicationOf(const HLBundleProxy& container) {
  const auto* application = dynamic_cast<const HLApplicationProxy*>(&container);
  if (application == nullptr)
    assertionFailure("HL reported containingBundle is not an application", "-[ABDatabase findPlugIns:]",
                     kSource, 171);
  return *application;
}

ABDPlugInSet recordsOf(ABDPlugInSearch& search) {
  ABDPlugInSet records;
  records.reserve(search.size());
  while (!search.isOver())
    if (auto record = search.next()) records.push_back(std::move(record));
  return records;
}

}  // namespace

std::shared_ptr<ABDPlugIn> ABDPlugInSearch::next(ABRecordTrace* trace) {
  const std::shared_ptr<const HLAmbrelProxy>& proxy = (*proxies_)[next_++];
  if (scope_ == Scope::withoutPlaceholders) {
    auto containing = proxy->containingBundle();
    if (containing != container_) {
      container_ = std::move(containing);
      isInPlaceholder_ = container_ != nullptr && applicationOf(*container_).isPlaceholder();
    }
    if (isInPlaceholder_) {
      if (trace != nullptr)
        trace->flaw({}, "its application is still being installed (there is a file Placeholder)");
      return nullptr;
    }
  }
  // A plug-in without a bundle URL gets no record.
  return database_.plugInForProxy(proxy, trace);
}

bool ABDPlugInSearch::contains(const UUID& uuid) const {
  return proxies_ != nullptr &&
         std::ranges::any_of(*proxies_, [&uuid](const auto& proxy) { return proxy->pluginUUID() == uuid; });
}

Narrowing::Narrowing(const std::optional<Dictionary>& rules) {
  const Value given = rules;
  elections = literalList(given[rulekey::election]);
  identifiers = literalList(given[rulekey::identifier]);
  points = literalList(given[attributekey::pointName]);
}

ABDPlugInSearch ABDatabase::search(const Narrowing& narrowing) {
  constexpr auto kScope = ABDPlugInSearch::Scope::withoutPlaceholders;
  const auto& [identifiers, points, elections] = narrowing;
  if (identifiers || points) {
    HLApplicationWorkspace::Filter filter;
    const auto wanted = elections ? std::unordered_set<std::string>(elections->begin(), elections->end())
                                  : std::unordered_set<std::string>();
    if (elections)
      filter = [this, &wanted](const String& identifier, const Value& entitlements) {
        return electionPreFilter(wanted, identifier, entitlements);
      };
    if (auto narrowed = workspace_->pluginsWithIdentifiers(identifiers ? &*identifiers : nullptr,
                                                           points ? &*points : nullptr, nullptr, filter))
      return {*this, std::make_shared<const HLProxyList>(*std::move(narrowed)), kScope};
  }
  return {*this, workspace_->installedPlugins(), kScope};
}

std::optional<ABDPlugInSet> ABDatabase::findPlugIns(const std::optional<Dictionary>& rules) {
  ABDPlugInSearch found = search(Narrowing(rules));
  if (!found.hasAnswer()) return std::nullopt;
  return recordsOf(found);
}

bool ABDatabase::electionPreFilter(const std::unordered_set<std::string>& elections, const String& identifier,
                                   const Value& entitlements) const {
  const String& key = ABDPlugIn::annotationKey(identifier, entitlements);
  const Value& stored = annotations_->annotationForIdentifier(key)[annotation::election];
  int64_t election = stored.integerValue();
  if (stored.isNone()) {
    const Value& isAutoElected = entitlements[entitlement::autoElectPlugIn];
    election = isAutoElected.isNumber() && isAutoElected.booleanValue() ? ABElectionUse : ABElectionDefault;
  }
  return elections.contains(std::to_string(election & 0xFF));
}

// --- Other look-ups ---

std::shared_ptr<ABDPlugIn> ABDatabase::findPlugIn(const UUID& uuid) {
  return sync_.sync([this, &uuid]() -> std::shared_ptr<ABDPlugIn> {
    if (auto cached = cachedPlugIn(uuid)) return cached;
    if (const auto proxy = HLAmbrelProxy::ambrelProxyForUUID(uuid)) return createPlugInForProxy(proxy);
    systemLog("Hollin cannot find plug-in with UUID:%@", uuid.string());
    return nullptr;
  });
}

std::shared_ptr<ABDPlugIn> ABDatabase::findPlugInAtPath(const URL& url) {
  if (const auto proxy = HLAmbrelProxy::ambrelProxyForURL(url)) return findPlugIn(proxy->pluginUUID());
  systemLog("Hollin cannot find plug-in at path:%@", url.path());
  return nullptr;
}

ABDPlugInSearch ABDatabase::searchApplication(const URL& url) {
  std::shared_ptr<HLProxyList> contained;
  if (const auto application = HLApplicationProxy::applicationProxyForBundleURL(url))
    contained = std::make_shared<HLProxyList>(application->ambrelPlugins());
  return {*this, std::move(contained), ABDPlugInSearch::Scope::everything};
}

std::optional<std::vector<std::shared_ptr<ABDPlugIn>>> ABDatabase::plugInsWithinApplication(const URL& url) {
  ABDPlugInSearch contained = searchApplication(url);
  if (contained.size() == 0) return std::nullopt;
  return recordsOf(contained);
}

// --- Registration ---

std::optional<Error> ABDatabase::addPlugIn(const URL& url) {
  if (workspace_->registerPlugin(url)) return std::nullopt;
  return ABError(kABErrorRegistration, "Hollin failed to register the plug-in");
}

std::optional<Error> ABDatabase::removePlugIn(const URL& url) {
  if (workspace_->unregisterPlugin(url)) return std::nullopt;
  return ABError(kABErrorRegistration, "Hollin failed to deregister the plug-in");
}

// --- Annotations ---

Value ABDatabase::annotationForPlugIn(const ABDPlugIn& plugIn) {
  return sync_.sync([this, &plugIn] { return annotations_->annotationForPlugIn(plugIn); });
}

ABDAnnotationStore::Condition ABDatabase::annotationCondition() {
  return sync_.sync([this] { return annotations_->condition(); });
}

bool ABDatabase::hasRoomForAnnotation(size_t bytes, const ABDPlugIn& plugIn) {
  return sync_.sync([&] { return annotations_->hasRoomFor(bytes, plugIn); });
}

std::optional<Error> ABDatabase::setAnnotation(const std::optional<Dictionary>& annotation,
                                               const ABDPlugIn& plugIn) {
  sync_.sync([this, &annotation, &plugIn] { annotations_->setAnnotation(annotation, plugIn); });
  postNotification(kAnnotationChangeNotification);
  return std::nullopt;
}

// --- Announcements ---

void ABDatabase::pluginsDidInstall(const HLProxyList& proxies) {
  for (const auto& proxy : proxies)
    systemLog("INSTALLED:%@ %@(%@) %@ %@", proxy->bundleIdentifier(), proxy->pluginIdentifier().view(),
              proxy->bundleVersion(), proxy->pluginUUID(), pathOf(*proxy));
}

void ABDatabase::pluginsWillUninstall(const HLProxyList& proxies) {
  const std::span all(proxies);
  for (size_t i = 0; i < all.size(); i += kAnnouncedAtATime)
    sync_.sync([this, some = all.subspan(i, std::min(kAnnouncedAtATime, all.size() - i))] {
      for (const auto& proxy : some) {
        systemLog("UNINSTALLED:%@ %@(%@) %@ %@", proxy->bundleIdentifier(), proxy->pluginIdentifier().view(),
                  proxy->bundleVersion(), proxy->pluginUUID().string(), pathOf(*proxy));
        cache_.erase(proxy->pluginUUID());
      }
    });
  if (ABDatabaseDelegate* observer = delegate()) observer->removedPlugIns(proxies);
}

}  // namespace abd
