#include "platform/hollin/Registrar.h"

#include <algorithm>
#include <new>
#include <unordered_map>

#include "platform/hollin/PlatformThread.h"
#include "platform/log/Log.h"
#include "platform/system/Directories.h"
#include "platform/value/Date.h"

namespace platform::hollin {

namespace {

/// Bundles that are applied, and rows that are written, at a time.
constexpr size_t kBatch = 256;
/// How often a registration is tried that others overtake.
constexpr int kTries = 16;

double secondsNow() {
  return Date::now().secondsSince1970;
}

bool isRefused(const BundleFacts& facts) {
  return facts.plugIns.empty();
}

}  // namespace

/// What was seen, and what is yet to be read to know what was seen.
struct Registrar::Sightings {
  struct Item {
    Sighting sighting;
    // Identities of the files when facts are to be read.
    FileIdentity info, entitlementsFile;
    bool isToBeRead = false;
    String entry;  // where it is, or was, found; empty when it is looked at by its path

    /// What is looked at again together.
    const String& unit() const { return entry.size() != 0 ? entry : sighting.path; }
  };
  std::vector<Item> items;
};

void makeDataContainers(const std::vector<std::shared_ptr<const PlugInProxy>>& proxies) {
  for (const auto& proxy : proxies)
    if (!proxy->isUninstalled()) static_cast<void>(proxy->dataContainerURL());
}

void Registrar::addFound(const Scan& scan, uint64_t number, Sightings& sightings) {
  std::vector<String> entries;
  entries.reserve(scan.entries.size());
  for (const Scan::Entry& entry : scan.entries) entries.emplace_back(entry.path);
  std::vector<const FoundBundle*> news;
  NamedPlugIns named;
  const std::span<const FoundBundle> all(scan.bundles);
  for (size_t i = 0; i < all.size(); i += kBatch)
    catalog_.recognise(all.subspan(i, std::min(kBatch, all.size() - i)), entries, number, news, named);
  sightings.items.reserve(news.size());
  for (const FoundBundle* found : news) {
    auto facts = catalog_.unchanged(found->path, found->info, found->entitlementsFile);
    const bool isToBeRead = facts == nullptr;
    String path = isToBeRead ? String(found->path) : facts->path;
    sightings.items.push_back({{std::move(path), std::move(facts), entries[found->entry]},
                               found->info,
                               found->entitlementsFile,
                               isToBeRead,
                               entries[found->entry]});
  }
  addRenamed(named, sightings);
}

/// Those whose names, or whose application's, are others than somebody was told.
void Registrar::addRenamed(const NamedPlugIns& named, Sightings& sightings) const {
  std::unordered_map<const ApplicationProxy*, bool> applications;
  const String* last = nullptr;  // plug-ins of one bundle stand together
  for (const auto& [proxy, entry] : named) {
    const ApplicationProxy* application = proxy->application().get();
    const auto [known, isNew] = applications.try_emplace(application, false);
    if (isNew && application != nullptr) known->second = application->areNamesOutdated();
    if (!known->second && !proxy->areNamesOutdated()) continue;
    const String& path = proxy->bundle().path;
    if (last != nullptr && *last == path) continue;
    last = &path;
    sightings.items.push_back({{path, proxy->sharedBundle(), entry, true}, {}, {}, false, entry});
  }
}

void Registrar::addMissing(const Scan& scan, uint64_t number, bool isEverything, Sightings& sightings,
                           Report& report) {
  std::unordered_set<std::string_view> entries;
  std::vector<std::string_view> incomplete;
  for (const Scan::Entry& entry : scan.entries) {
    if (entry.isIncomplete) {
      incomplete.push_back(entry.path);
      report.again.push_back(entry.path);
    } else {
      entries.insert(entry.path);
    }
  }
  for (const Catalog::Missing& missing : catalog_.missing(number, isEverything ? nullptr : &entries)) {
    const bool isUncertain =
        std::any_of(incomplete.begin(), incomplete.end(),
                    [&missing](std::string_view entry) { return isInside(missing.path, entry); });
    if (isUncertain) continue;
    if (hasAliases_ && !isEverything) report.isEverythingToBeScanned = true;
    if (missing.isByPath) {
      look(missing.path, sightings);
    } else if (Sighting gone{missing.path, nullptr, {}}; catalog_.isNews(gone)) {
      sightings.items.push_back({std::move(gone), {}, {}, false, missing.entry});
    }
  }
}

/// Looks at a bundle that no scan finds.
void Registrar::look(const String& path, Sightings& sightings) const {
  Sightings::Item item;
  item.sighting.path = path;
  // A link that came into its way leads to another bundle, or to this one in another place.
  if (const std::string place(path.view()); canonicalPath(place) == place)
    identifyFiles(place, item.info, item.entitlementsFile);
  if (item.info != FileIdentity()) {
    item.sighting.facts = catalog_.unchanged(path, item.info, item.entitlementsFile);
    item.isToBeRead = item.sighting.facts == nullptr;
  }
  if (item.isToBeRead || catalog_.isNews(item.sighting)) {
    sightings.items.push_back(std::move(item));
  } else if (item.sighting.facts != nullptr) {
    addRenamed(catalog_.named(path), sightings);
  }
}

/// Puts off everything about what is still being written.
void Registrar::postpone(const IsBusy& isBusy, Sightings& sightings, Report& report) {
  if (!isBusy) return;
  std::unordered_map<std::string_view, bool> busy;
  for (const Sightings::Item& item : sightings.items) {
    const std::string unit(item.unit().view());
    if (unit.empty() || busy.contains(unit)) continue;
    const bool isStillBusy = isBusy(unit);
    busy.emplace(item.unit().view(), isStillBusy);
    if (isStillBusy) report.postponed.push_back(unit);
  }
  // The keys of `busy` lie in the items, which move: by now only the report is needed.
  busy.clear();
  const std::unordered_set<std::string_view> postponed(report.postponed.begin(), report.postponed.end());
  std::erase_if(sightings.items,
                [&postponed](const Sightings::Item& item) { return postponed.contains(item.unit().view()); });
}

void Registrar::readMissingFacts(Sightings& sightings, Report& report) {
  std::vector<Sightings::Item*> toRead;
  for (Sightings::Item& item : sightings.items)
    if (item.isToBeRead) toRead.push_back(&item);
  forEachInParallel(toRead.size(), [&toRead](size_t i) {
    Sightings::Item& item = *toRead[i];
    item.sighting.facts =
        readBundleFacts(std::string(item.sighting.path.view()), item.info, item.entitlementsFile);
  });
  std::erase_if(sightings.items, [&report](const Sightings::Item& item) {
    if (!item.isToBeRead) return false;
    const BundleFacts& facts = *item.sighting.facts;
    if (facts.isTransient) report.again.emplace_back(item.unit().view());
    if (isRefused(facts)) systemLog("ignoring bundle at %@: %@", facts.path, facts.refusal);
    return facts.isTransient;
  });
}

void Registrar::learnSDKs(const std::vector<std::shared_ptr<const BundleFacts>>& bundles) {
  std::unordered_set<std::string_view> asked;
  for (const auto& facts : bundles) {
    const bool isAsked = std::all_of(
        facts->plugIns.begin(), facts->plugIns.end(),
        [&asked](const PlugInFacts& p) { return p.sdk.size() == 0 || asked.contains(p.sdk.view()); });
    if (isAsked) continue;
    uint64_t generation = 0;
    for (std::vector<String> unknown = catalog_.unknownSDKs(*facts, generation); !unknown.empty();
         unknown = catalog_.unknownSDKs(*facts, generation))
      for (const String& name : unknown) catalog_.addSDK(name, readSDKFacts(name), generation);
    for (const PlugInFacts& plugIn : facts->plugIns) asked.insert(plugIn.sdk.view());
  }
}

/// What was stored is registered as it was, without a look at its SDKs: they come after.
void Registrar::learnSDKsInUse() {
  uint64_t generation = 0;
  for (const String& name : catalog_.unknownSDKs(generation))
    catalog_.addSDK(name, readSDKFacts(name), generation);
}

void Registrar::apply(Sightings& sightings, uint64_t since, Report& report) {
  std::vector<Sighting> all;
  std::vector<std::shared_ptr<const BundleFacts>> bundles;
  all.reserve(sightings.items.size());
  for (Sightings::Item& item : sightings.items) {
    if (item.sighting.facts != nullptr) bundles.push_back(item.sighting.facts);
    all.push_back(std::move(item.sighting));
  }
  learnSDKs(bundles);
  const double now = secondsNow();
  Catalog::Outcome outcome;
  for (size_t i = 0; i < all.size(); i += kBatch)
    catalog_.apply(std::span(all).subspan(i, std::min(kBatch, all.size() - i)), since, now, outcome);
  for (const Sighting& stale : outcome.stale)
    report.again.emplace_back(stale.entry.size() != 0 ? stale.entry.view() : stale.path.view());
  report.registered = std::move(outcome.registered);
}

Registrar::Report Registrar::applyScan(const Scan& scan, bool isEverything, uint64_t since,
                                       const IsBusy& isBusy) {
  Report report;
  Sightings sightings;
  if (isEverything) {
    hasAliases_ = scan.hasAliases;
  } else if (scan.hasAliases) {
    hasAliases_ = true;
  }
  const uint64_t number = catalog_.beginScan();
  addFound(scan, number, sightings);
  addMissing(scan, number, isEverything, sightings, report);
  postpone(isBusy, sightings, report);
  readMissingFacts(sightings, report);
  apply(sightings, since, report);
  learnSDKsInUse();
  save();
  return report;
}

Registrar::Report Registrar::lookAt(const std::vector<std::string>& paths, const IsBusy& isBusy) {
  const uint64_t since = catalog_.clock();
  Report report;
  Sightings sightings;
  for (const std::string& path : paths) look(path, sightings);
  postpone(isBusy, sightings, report);
  readMissingFacts(sightings, report);
  apply(sightings, since, report);
  save();
  return report;
}

bool Registrar::registerBundle(const std::string& path) {
  const std::string canonical = canonicalPath(path);
  if (canonical.empty()) return false;
  Catalog::Outcome outcome;
  for (int i = 0; i < kTries; i++) {
    outcome = {};
    const uint64_t since = catalog_.clock();
    FileIdentity info, entitlements;
    identifyFiles(canonical, info, entitlements);
    auto facts = catalog_.unchanged(canonical, info, entitlements);
    if (facts == nullptr) facts = readBundleFacts(canonical, info, entitlements);
    if (facts->isTransient || isRefused(*facts)) {
      systemLog("refusing to register bundle at %@: %@", canonical,
                facts->refusal.empty() ? "its entitlements cannot be read" : facts->refusal);
      return false;
    }
    learnSDKs({facts});
    catalog_.registerBundle({facts->path, facts, catalog_.locations()->entryOf(canonical)}, since,
                            secondsNow(), outcome);
    if (outcome.stale.empty()) break;
  }
  if (!outcome.stale.empty()) return false;
  makeDataContainers(outcome.registered);
  save();
  return true;
}

bool Registrar::unregisterBundle(const std::string& path) {
  // The bundle may be gone, and what contained it too.
  std::string canonical = canonicalPathOfFutureFile(path);
  if (canonical.empty()) canonical = path;
  if (catalog_.locations()->isOnSystemVolume(canonical)) return false;
  if (!catalog_.unregisterBundle(canonical, secondsNow())) return false;
  save();
  return true;
}

void Registrar::refreshSDKs() {
  std::vector<Catalog::SDKReading> readings;
  for (const String& name : catalog_.beginSDKRefresh()) readings.push_back({name, readSDKFacts(name)});
  Catalog::Outcome outcome;
  catalog_.setSDKs(readings, secondsNow(), outcome);
  if (outcome.registered.empty()) return;
  makeDataContainers(outcome.registered);
  save();
}

void Registrar::save() {
  const std::lock_guard lock(storeMutex_);
  try {
    saveUnsaved();
  } catch (const std::bad_alloc&) {
    catalog_.markAllUnsaved();  // some may have been taken
    throw;
  }
}

void Registrar::saveUnsaved() {
  std::vector<Registration> taken;
  const auto next = [this, &taken] {
    std::vector<Registration> batch = catalog_.takeUnsaved(kBatch);
    taken.insert(taken.end(), batch.begin(), batch.end());
    return batch;
  };
  Store::Saved saved = store_.save(next);
  if (saved == Store::Saved::restart) {
    catalog_.markAllUnsaved();
    saved = store_.save(next);
  }
  if (saved != Store::Saved::yes) catalog_.giveBackUnsaved(taken);
}

}  // namespace platform::hollin
