// Queries of the catalog, and the extension points that SDKs give to plug-ins.

#include <algorithm>

#include "platform/hollin/Catalog.h"

namespace platform::hollin {

namespace {

bool contains(const std::vector<String>& names, std::string_view name) {
  return std::any_of(names.begin(), names.end(), [name](const String& n) { return n.view() == name; });
}

/// Collects proxies, each once.
class Collector {
 public:
  explicit Collector(bool mayRepeat) : mayRepeat_(mayRepeat) {}
  void add(const std::shared_ptr<PlugInProxy>& proxy) {
    if (!mayRepeat_ || seen_.insert(proxy.get()).second) out_.push_back(proxy);
  }
  HLProxyList take() { return std::move(out_); }

 private:
  const bool mayRepeat_;
  std::unordered_set<const PlugInProxy*> seen_;
  HLProxyList out_;
};

}  // namespace

std::shared_ptr<const HLProxyList> Catalog::all() const {
  const std::lock_guard lock(mutex_);
  if (all_ == nullptr) {
    auto list = std::make_shared<HLProxyList>();
    list->reserve(plugIns_.size());
    plugIns_.forEach([&list](const auto& proxy) { list->push_back(proxy); });
    all_ = std::move(list);
  }
  return all_;
}

void Catalog::count(HLRegistryStatistics& statistics) const {
  const std::lock_guard lock(mutex_);
  statistics.bundles = bundles_;
  statistics.plugIns = plugIns_.size();
}

bool Catalog::hasName(const PlugInProxy& proxy, std::string_view name) const {
  const PlugInFacts& plugIn = proxy.plugIn();
  if (contains(plugIn.names, name)) return true;
  if (plugIn.sdk.size() == 0) return false;
  const auto found = sdks_.find(plugIn.sdk);
  return found != sdks_.end() && contains(found->second.facts.names, name);
}

HLProxyList Catalog::findByIdentifier(const std::vector<std::string>& identifiers) const {
  Collector collector(identifiers.size() > 1);
  for (const std::string& identifier : identifiers) {
    const auto found = byIdentifier_.find(identifier);
    if (found == byIdentifier_.end()) continue;
    found->second.forEach([&collector](const auto& proxy) { collector.add(proxy); });
  }
  return collector.take();
}

HLProxyList Catalog::findByName(const std::vector<std::string>& names) const {
  // A plug-in may be listed under its own name and its SDK's, and under several names.
  Collector collector(true);
  const auto add = [&collector](const auto& proxy) { collector.add(proxy); };
  for (const std::string& name : names) {
    if (const auto own = byName_.find(name); own != byName_.end()) own->second.forEach(add);
    const auto sdks = sdksByName_.find(name);
    if (sdks == sdksByName_.end()) continue;
    for (const String& sdk : sdks->second) sdks_.find(sdk)->second.plugIns.forEach(add);
  }
  return collector.take();
}

HLProxyList Catalog::find(const std::vector<std::string>* identifiers,
                          const std::vector<std::string>* protocols, const std::string* version) const {
  const std::lock_guard lock(mutex_);
  HLProxyList out;
  if (identifiers != nullptr) {
    out = findByIdentifier(*identifiers);
  } else if (protocols != nullptr) {
    out = findByName(*protocols);
  } else {
    plugIns_.forEach([&out](const auto& proxy) { out.push_back(proxy); });
  }
  std::erase_if(out, [&](const std::shared_ptr<const HLAmbrelProxy>& entry) {
    const auto& proxy = static_cast<const PlugInProxy&>(*entry);
    if (version != nullptr &&
        (!proxy.bundle().bundleVersion || proxy.bundle().bundleVersion->view() != std::string_view(*version)))
      return true;
    if (identifiers == nullptr || protocols == nullptr) return false;
    return std::none_of(protocols->begin(), protocols->end(),
                        [&](const std::string& name) { return hasName(proxy, name); });
  });
  return out;
}

std::shared_ptr<const HLAmbrelProxy> Catalog::withUUID(const UUID& uuid) const {
  const std::lock_guard lock(mutex_);
  const auto found = byUUID_.find(uuid);
  return found == byUUID_.end() ? nullptr : found->second;
}

std::shared_ptr<const HLAmbrelProxy> Catalog::lowestAt(std::string_view path) const {
  const std::lock_guard lock(mutex_);
  const auto found = states_.find(path);
  if (found == states_.end() || found->second.proxies.empty()) return nullptr;
  return found->second.proxies.front();
}

HLProxyList Catalog::at(std::string_view path, bool& isUnregistered) const {
  const std::lock_guard lock(mutex_);
  const auto found = states_.find(path);
  if (found == states_.end()) return {};
  isUnregistered = found->second.isUnregistered;
  return {found->second.proxies.begin(), found->second.proxies.end()};
}

HLProxyList Catalog::within(std::string_view application) const {
  const std::lock_guard lock(mutex_);
  const auto found = applications_.find(application);
  if (found == applications_.end()) return {};
  std::vector<const State*> bundles = found->second.bundles;
  std::sort(bundles.begin(), bundles.end(),
            [](const State* a, const State* b) { return a->path.view() < b->path.view(); });
  HLProxyList out;
  for (const State* bundle : bundles) out.insert(out.end(), bundle->proxies.begin(), bundle->proxies.end());
  return out;
}

std::shared_ptr<const HLApplicationProxy> Catalog::application(std::string_view path) const {
  const std::lock_guard lock(mutex_);
  const auto found = applications_.find(path);
  return found == applications_.end() ? nullptr : found->second.proxy;
}

std::vector<String> Catalog::unknownSDKs(const BundleFacts& facts, uint64_t& generation) const {
  const std::lock_guard lock(mutex_);
  generation = sdkGeneration_;
  std::vector<String> out;
  for (const PlugInFacts& plugIn : facts.plugIns) {
    if (plugIn.sdk.size() == 0 || contains(out, plugIn.sdk)) continue;
    const auto found = sdks_.find(plugIn.sdk);
    if (found == sdks_.end() || !found->second.isKnown) out.push_back(plugIn.sdk);
  }
  return out;
}

std::vector<String> Catalog::unknownSDKs(uint64_t& generation) const {
  const std::lock_guard lock(mutex_);
  generation = sdkGeneration_;
  std::vector<String> out;
  for (const auto& [name, sdk] : sdks_)
    if (!sdk.isKnown) out.push_back(name);
  return out;
}

bool Catalog::addSDK(const String& name, const SDKFacts& facts, uint64_t generation) noexcept {
  const std::lock_guard lock(mutex_);
  if (generation != sdkGeneration_) return false;
  SDK& sdk = sdks_[name];
  if (!sdk.isKnown) learn(name, sdk, facts);  // else plug-ins may have taken over what is known
  return true;
}

bool Catalog::knowsSDK(std::string_view name, const FileIdentity& file) const {
  const std::lock_guard lock(mutex_);
  const auto found = sdks_.find(name);
  return file == (found == sdks_.end() ? FileIdentity() : found->second.facts.file);
}

std::vector<String> Catalog::beginSDKRefresh() {
  const std::lock_guard lock(mutex_);
  sdkGeneration_++;
  std::vector<String> names;
  names.reserve(sdks_.size());
  for (const auto& [name, sdk] : sdks_) names.push_back(name);
  return names;
}

/// Names change together with the plug-ins: who took over the SDK as it was is marked by now, and found no
/// more.
void Catalog::setSDKs(std::span<const SDKReading> readings, double now, Outcome& outcome) noexcept {
  const std::lock_guard lock(mutex_);
  Change change{{}, {}, &outcome, now};
  for (const auto& [name, facts] : readings) {
    SDK& sdk = sdks_[name];
    std::vector<std::shared_ptr<PlugInProxy>> users;
    if (sdk.isKnown && !sdk.facts.isSame(facts))
      sdk.plugIns.forEach([&users](const auto& proxy) { users.push_back(proxy); });
    learn(name, sdk, facts);
    for (const auto& user : users) renew(*find(user->bundle().path), user->index(), change);
  }
  announcer_.enqueue(std::move(change.uninstalled), std::move(change.installed));
}

void Catalog::learn(const String& name, SDK& sdk, const SDKFacts& facts) {
  for (const String& point : sdk.facts.names) {
    const auto found = sdksByName_.find(point);
    std::erase(found->second, name);
    if (found->second.empty()) sdksByName_.erase(found);
  }
  for (const String& point : facts.names) sdksByName_[point].push_back(name);
  sdk.facts = facts;
  sdk.isKnown = true;
}

}  // namespace platform::hollin
