// Changes of the catalog; CatalogQueries.cc has its queries and the extension points.
//
// A bundle's state outlives its presence: slots (UUIDs and times) stay, so that a bundle which comes back is
// the same again. Invariants, whenever the lock is free:
// - a state has proxies exactly when its bundle is there, is accepted and is not unregistered; what was
// stored so gets them silently when it is first looked at, so that the scan at start finds differences like
// any other;
// - a proxy is in every index exactly while its state has it, and is marked as uninstalled from then on;
// - announcements were enqueued in the order in which the indexes changed.

#include "platform/hollin/Catalog.h"

#include <algorithm>

#include "platform/value/Date.h"

namespace platform::hollin {

namespace {

bool isAccepted(const std::shared_ptr<const BundleFacts>& facts) {
  return facts != nullptr && !facts->plugIns.empty();
}

/// A plug-in whose bundle changes its identifier stays known by the first one; those of a multiplexed bundle
/// are told apart by theirs.
String originalIdentifier(const Registration& registration, const String& identifier) {
  const std::vector<Slot>& slots = registration.slots;
  if (registration.facts->isMultiplexed || slots.empty()) return identifier;
  const String& first = slots.front().original;
  const bool isShared =
      std::all_of(slots.begin(), slots.end(), [&first](const Slot& slot) { return slot.original == first; });
  return isShared ? first : identifier;
}

/// Where the slot of that identifier is, or would be inserted.
std::vector<Slot>::iterator slotAt(Registration& registration, const String& identifier) {
  std::vector<Slot>& slots = registration.slots;
  // Mostly they are asked for, and added, in their order.
  if (slots.empty() || slots.back().identifier < identifier) return slots.end();
  return std::lower_bound(slots.begin(), slots.end(), identifier,
                          [](const Slot& slot, const String& key) { return slot.identifier < key; });
}

bool isSlotOf(const Registration& registration, std::vector<Slot>::iterator slot, const String& identifier) {
  return slot != registration.slots.end() && slot->identifier == identifier;
}

}  // namespace

Catalog::Catalog(Announcer& announcer, std::shared_ptr<const Surroundings> surroundings)
    : announcer_(announcer),
      surroundings_(std::move(surroundings)),
      locations_(std::make_shared<const Locations>()) {}

std::shared_ptr<const Locations> Catalog::locations() const {
  const std::lock_guard lock(mutex_);
  return locations_;
}

void Catalog::setLocations(std::shared_ptr<const Locations> locations) {
  const std::lock_guard lock(mutex_);
  locations_ = std::move(locations);
}

void Catalog::restore(std::vector<Registration> registrations) {
  const std::lock_guard lock(mutex_);
  states_.reserve(registrations.size());
  byUUID_.reserve(registrations.size());
  byIdentifier_.reserve(registrations.size());
  for (Registration& registration : registrations) {
    lastRow_ = std::max(lastRow_, registration.row);
    const String path = registration.path;
    State& state = states_[path];
    static_cast<Registration&>(state) = std::move(registration);
    state.isDormant = isAccepted(state.facts) && !state.isUnregistered && state.goneSince == 0;
  }
}

uint64_t Catalog::clock() const {
  const std::lock_guard lock(mutex_);
  return clock_;
}

Catalog::State* Catalog::find(std::string_view path) {
  const auto found = states_.find(path);
  return found == states_.end() ? nullptr : &found->second;
}

Catalog::State& Catalog::findOrAdd(const String& path) {
  State& state = states_[path];
  state.path = path;
  return state;
}

void Catalog::touch(State& state) {
  state.changed = ++clock_;
  if (std::exchange(state.isUnsaved, true)) return;
  unsaved_.push_back(state.path);
}

std::shared_ptr<const BundleFacts> Catalog::unchanged(std::string_view path, const FileIdentity& info,
                                                      const FileIdentity& entitlements) const {
  const std::lock_guard lock(mutex_);
  const auto found = states_.find(path);
  if (found == states_.end()) return nullptr;
  const auto& facts = found->second.facts;
  return facts != nullptr && facts->isReadFrom(info, entitlements) ? facts : nullptr;
}

bool Catalog::isNews(const Sighting& sighting) const {
  const std::lock_guard lock(mutex_);
  const auto found = states_.find(sighting.path);
  if (found == states_.end()) return true;
  const State& state = found->second;
  if (sighting.facts == nullptr) return state.goneSince == 0 || !state.proxies.empty();
  if (sighting.facts != state.facts) return true;
  return isAccepted(state.facts) && state.proxies.empty() && (!state.isUnregistered || state.goneSince != 0);
}

void Catalog::apply(std::span<const Sighting> sightings, uint64_t since, double now,
                    Outcome& outcome) noexcept {
  const std::lock_guard lock(mutex_);
  Change change{{}, {}, &outcome, now};
  for (const Sighting& sighting : sightings) {
    State* state = find(sighting.path);
    if (state == nullptr && sighting.facts == nullptr) continue;
    if (state != nullptr && state->changed > since) {
      outcome.stale.push_back(sighting);
      continue;
    }
    if (sighting.facts != nullptr && sighting.entry.size() == 0 && !isExpected(state)) continue;
    if (state == nullptr) state = &findOrAdd(sighting.path);
    noteEntry(*state, sighting);
    rouse(*state);
    settle(*state, sighting, change);
  }
  announcer_.enqueue(std::move(change.uninstalled), std::move(change.installed));
}

/// What is seen by its path alone counts while it is registered by path, or a scan finds it, too: it may have
/// been unregistered while somebody was on the way to look at it.
bool Catalog::isExpected(const State* state) {
  return state != nullptr && (state->isByPath || state->entry.size() != 0);
}

/// Who looks at a bundle by its path does not know whether a scan finds it too, by a link for example.
void Catalog::noteEntry(State& state, const Sighting& sighting) {
  if (sighting.entry.size() != 0 || sighting.facts == nullptr) state.entry = sighting.entry;
}

void Catalog::settle(State& state, const Sighting& sighting, Change& change) {
  const std::shared_ptr<const BundleFacts>& facts = sighting.facts;
  if (!isAccepted(facts)) {
    miss(state, facts, change);
    return;
  }
  const bool isSame = !sighting.isRenewed && hasOwnVigil(state) && state.facts != nullptr &&
                      state.facts->isReadFrom(facts->info, facts->entitlementsFile);
  const bool wasGone = state.goneSince != 0;
  if (isSame && !wasGone && (state.isUnregistered || !state.proxies.empty())) return;
  if (!isSame) {
    retire(state, change);
    state.isUnregistered = false;
    state.facts = facts;
  }
  state.goneSince = 0;
  if (!isSame || wasGone) {
    if (!state.isUnregistered) assignSlots(state, change.now);
    touch(state);
  }
  if (!state.isUnregistered) wake(state, change);
}

/// The bundle is gone or refused.
void Catalog::miss(State& state, const std::shared_ptr<const BundleFacts>& facts, Change& change) {
  retire(state, change);
  if (facts != nullptr) state.facts = facts;  // so that the refusal is not found anew each time
  if (state.slots.empty() && !state.isByPath) {
    if (facts != nullptr) return;
    const String path = state.path;
    states_.erase(path);
    return;
  }
  if (state.goneSince != 0) return;
  state.goneSince = change.now;
  touch(state);
}

void Catalog::registerBundle(const Sighting& sighting, uint64_t since, double now,
                             Outcome& outcome) noexcept {
  const std::lock_guard lock(mutex_);
  State& state = findOrAdd(sighting.path);
  if (state.changed > since) {
    outcome.stale.push_back(sighting);
    return;
  }
  Change change{{}, {}, &outcome, now};
  if (sighting.entry.size() == 0) state.isByPath = true;
  noteEntry(state, sighting);
  rouse(state);
  const bool isSame = state.facts != nullptr &&
                      state.facts->isReadFrom(sighting.facts->info, sighting.facts->entitlementsFile);
  if (!isSame || state.goneSince != 0 || !hasOwnVigil(state)) retire(state, change);
  if (!isSame) state.facts = sighting.facts;
  state.isUnregistered = false;
  state.goneSince = 0;
  assignSlots(state, now);
  touch(state);
  if (state.proxies.empty()) {
    wake(state, change);
  } else {
    for (const auto& proxy : state.proxies) proxy->setRegistrationDate(now);
  }
  announcer_.enqueue(std::move(change.uninstalled), std::move(change.installed));
}

bool Catalog::unregisterBundle(std::string_view path, double now) noexcept {
  const std::lock_guard lock(mutex_);
  State* state = find(path);
  if (state != nullptr) rouse(*state);
  if (state == nullptr || (state->proxies.empty() && !state->isByPath)) return false;
  Change change{{}, {}, nullptr, now};
  retire(*state, change);
  state->isByPath = false;
  if (state->entry.size() != 0) {
    state->isUnregistered = true;
  } else if (state->goneSince == 0) {
    state->goneSince = now;
  }
  touch(*state);
  announcer_.enqueue(std::move(change.uninstalled), {});
  return true;
}

/// Gives every plug-in of the bundle its identity, and this time as its registration time.
void Catalog::assignSlots(State& state, double now) {
  for (const PlugInFacts& plugIn : state.facts->plugIns) {
    const auto slot = slotAt(state, plugIn.identifier);
    if (isSlotOf(state, slot, plugIn.identifier)) {
      slot->registered = now;
    } else {
      String original = originalIdentifier(state, plugIn.identifier);
      state.slots.insert(slot, {plugIn.identifier, std::move(original), UUID::random(), now});
    }
  }
}

/// Registers what was registered when the last process ended: nobody has to be told.
void Catalog::rouse(State& state) {
  if (!std::exchange(state.isDormant, false)) return;
  Change known{{}, {}, nullptr, Date::now().secondsSince1970};
  wake(state, known);
}

/// Registers the bundle's plug-ins. REQUIRES: it is accepted, and none is registered.
void Catalog::wake(State& state, Change& change) {
  const std::shared_ptr<const Vigil> vigil = vigilFor(state);
  const auto& application = applicationFor(state, Locations::applicationOf(state.path), vigil);
  const bool isOnSystemVolume = locations_->isOnSystemVolume(state.path);
  const std::vector<PlugInFacts>& plugIns = state.facts->plugIns;
  state.proxies.reserve(plugIns.size());
  for (size_t i = 0; i < plugIns.size(); i++) {
    auto slot = slotAt(state, plugIns[i].identifier);
    if (!isSlotOf(state, slot, plugIns[i].identifier)) {  // the store lost it
      assignSlots(state, change.now);
      touch(state);
      slot = slotAt(state, plugIns[i].identifier);
    }
    state.proxies.push_back(std::make_shared<PlugInProxy>(state.facts, i, *slot, application,
                                                          isOnSystemVolume, surroundings_, vigil));
    enter(state.proxies.back(), change);
  }
  if (!state.proxies.empty()) ++bundles_;
}

/// Registers one of the bundle's registered plug-ins anew: what it is made of is not what it was.
void Catalog::renew(State& state, size_t index, Change& change) {
  std::shared_ptr<PlugInProxy>& proxy = state.proxies[index];
  const auto slot = slotAt(state, proxy->pluginIdentifier());
  slot->registered = change.now;
  auto renewed = std::make_shared<PlugInProxy>(*proxy, *slot);
  withdraw(proxy, change);
  proxy = std::move(renewed);
  enter(proxy, change);
  touch(state);
}

/// Takes the bundle's plug-ins out, if they are registered.
void Catalog::retire(State& state, Change& change) {
  if (state.proxies.empty()) return;
  for (const auto& proxy : state.proxies) withdraw(proxy, change);
  state.proxies.clear();
  --bundles_;
  const auto found = applications_.find(Locations::applicationOf(state.path));
  if (found == applications_.end()) return;
  std::erase(found->second.bundles, &state);
  if (found->second.bundles.empty()) applications_.erase(found);
}

const std::shared_ptr<const ApplicationProxy>& Catalog::applicationFor(
    const State& state, std::string_view path, const std::shared_ptr<const Vigil>& vigil) {
  static const std::shared_ptr<const ApplicationProxy> none;
  if (path.empty()) return none;
  auto found = applications_.find(path);
  if (found == applications_.end()) found = applications_.emplace(path, Application()).first;
  Application& application = found->second;
  // The name may be another one now, which a proxy that was asked for it would not tell; and this bundle may
  // be found elsewhere than the others.
  if (application.proxy == nullptr || application.proxy->hasNames() || application.proxy->vigil() != vigil)
    application.proxy = std::make_shared<ApplicationProxy>(weak_from_this(), found->first,
                                                           locations_->containerOf(path), vigil);
  application.bundles.push_back(&state);
  return application.proxy;
}

/// Of the path when it is registered by it; otherwise of what the bundle is found in, or will be when no scan
/// has found it yet.
std::shared_ptr<Vigil> Catalog::vigilFor(const State& state) {
  if (state.isByPath) return vigilAt(state.path);
  if (state.entry.size() != 0) return vigilAt(state.entry);
  const std::string entry = locations_->entryOf(state.path);
  return vigilAt(entry.empty() ? state.path.view() : entry);
}

/// Whether what the proxies know is watched where the bundle is found now, and not where it was found once.
bool Catalog::hasOwnVigil(const State& state) {
  return state.proxies.empty() || state.proxies.front()->vigil() == vigilFor(state);
}

std::shared_ptr<Vigil> Catalog::vigilAt(std::string_view path) {
  std::weak_ptr<Vigil>& known = vigils_[String(path)];
  auto vigil = known.lock();
  if (vigil == nullptr) known = vigil = std::make_shared<Vigil>();
  return vigil;
}

std::shared_ptr<Vigil> Catalog::vigilOf(std::string_view path) {
  const std::lock_guard lock(mutex_);
  return vigilAt(path);
}

void Catalog::sweepVigil(std::string_view path) {
  const std::lock_guard lock(mutex_);
  const auto found = vigils_.find(path);
  if (found != vigils_.end() && found->second.expired()) vigils_.erase(found);
}

void Catalog::enter(const std::shared_ptr<PlugInProxy>& proxy, Change& change) {
  const PlugInFacts& plugIn = proxy->plugIn();
  all_.reset();
  plugIns_.add(proxy);
  byUUID_.emplace(proxy->pluginUUID(), proxy);
  byIdentifier_[plugIn.identifier].add(proxy);
  for (const String& name : plugIn.names) byName_[name].add(proxy);
  if (plugIn.sdk.size() != 0) sdks_[plugIn.sdk].plugIns.add(proxy);
  change.installed.push_back(proxy);
  if (change.outcome != nullptr && proxy->registrationDate().secondsSince1970 == change.now)
    change.outcome->registered.push_back(proxy);
}

void Catalog::withdraw(const std::shared_ptr<PlugInProxy>& proxy, Change& change) {
  const PlugInFacts& plugIn = proxy->plugIn();
  proxy->markUninstalled();
  const auto removeFrom = [](StringMap<Postings>& index, const String& key) {
    const auto found = index.find(key);
    found->second.removeOne();
    if (found->second.size() == 0) index.erase(found);
  };
  all_.reset();
  plugIns_.removeOne();
  byUUID_.erase(proxy->pluginUUID());
  removeFrom(byIdentifier_, plugIn.identifier);
  for (const String& name : plugIn.names) removeFrom(byName_, name);
  if (plugIn.sdk.size() != 0) sdks_.find(plugIn.sdk)->second.plugIns.removeOne();
  change.uninstalled.push_back(proxy);
}

uint64_t Catalog::beginScan() {
  const std::lock_guard lock(mutex_);
  return ++scans_;
}

void Catalog::recognise(std::span<const FoundBundle> found, const std::vector<String>& entries, uint64_t scan,
                        std::vector<const FoundBundle*>& news, NamedPlugIns& named) {
  const std::lock_guard lock(mutex_);
  for (const FoundBundle& bundle : found) {
    State* state = find(bundle.path);
    if (state != nullptr) state->seen = scan;
    if (state == nullptr || state->facts == nullptr || state->goneSince != 0 ||
        !state->facts->isReadFrom(bundle.info, bundle.entitlementsFile)) {
      news.push_back(&bundle);
    } else {
      const bool hasMoved = state->entry != entries[bundle.entry];
      if (hasMoved) state->entry = entries[bundle.entry];
      rouse(*state);
      if (hasMoved && !hasOwnVigil(*state))
        news.push_back(&bundle);
      else
        addNamed(*state, named);
    }
  }
}

void Catalog::addNamed(const State& state, NamedPlugIns& named) {
  for (const auto& proxy : state.proxies)
    if (proxy->hasNames() || (proxy->application() != nullptr && proxy->application()->hasNames()))
      named.emplace_back(proxy, state.entry);
}

NamedPlugIns Catalog::named(std::string_view path) const {
  const std::lock_guard lock(mutex_);
  NamedPlugIns out;
  if (const auto found = states_.find(path); found != states_.end()) addNamed(found->second, out);
  return out;
}

std::vector<Catalog::Missing> Catalog::missing(uint64_t scan,
                                               const std::unordered_set<std::string_view>* entries) const {
  const std::lock_guard lock(mutex_);
  std::vector<Missing> out;
  for (const auto& [path, state] : states_) {
    if (state.seen == scan || (entries != nullptr && !entries->contains(state.entry.view()))) continue;
    out.push_back({path, state.entry, state.isByPath});
  }
  return out;
}

std::vector<String> Catalog::registeredByPath() const {
  const std::lock_guard lock(mutex_);
  std::vector<String> out;
  for (const auto& [path, state] : states_)
    if (state.isByPath) out.push_back(path);
  return out;
}

std::vector<Registration> Catalog::takeUnsaved(size_t most) noexcept {
  const std::lock_guard lock(mutex_);
  std::vector<Registration> out;
  const size_t count = std::min(most, unsaved_.size());
  out.reserve(count);
  for (size_t i = unsaved_.size() - count; i < unsaved_.size(); i++) {
    State* state = find(unsaved_[i]);
    if (state == nullptr) continue;
    const bool isNew = state->row == 0;
    if (isNew) state->row = ++lastRow_;
    state->isUnsaved = false;
    out.push_back(*state);
    out.back().isNew = isNew;
  }
  unsaved_.resize(unsaved_.size() - count);
  return out;
}

void Catalog::giveBackUnsaved(const std::vector<Registration>& registrations) noexcept {
  const std::lock_guard lock(mutex_);
  for (const Registration& registration : registrations) {
    State* state = find(registration.path);
    if (state != nullptr && !std::exchange(state->isUnsaved, true)) unsaved_.push_back(state->path);
  }
}

void Catalog::markAllUnsaved() {
  const std::lock_guard lock(mutex_);
  for (auto& [path, state] : states_)
    if (!state.slots.empty() && !std::exchange(state.isUnsaved, true)) unsaved_.push_back(path);
}

}  // namespace platform::hollin
