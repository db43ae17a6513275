#include "platform/hollin/Registry.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>

#include <cerrno>

#include "platform/hollin/PlatformThread.h"
#include "platform/log/Failure.h"
#include "platform/qmx/Bundle.h"
#include "platform/qmx/SDKRegistry.h"

namespace platform::hollin {

namespace {

std::string stateOf(const Directories& directories) {
  return directories.state + "/Hollin";
}

std::shared_ptr<Catalog> makeCatalog(Announcer& announcer, const Directories& directories) {
  auto surroundings = std::make_shared<const Surroundings>(Surroundings::of(directories));
  return std::make_shared<Catalog>(announcer, std::move(surroundings));
}

/// The process's registry. Never destroyed: observers and requests may be running until the very end.
Registry* sharedRegistry = nullptr;

}  // namespace

Registry::Registry(const Directories& directories)
    : directories_(directories),
      catalog_(makeCatalog(announcer_, directories_)),
      store_(stateOf(directories_) + "/Registry.sqlite"),
      registrar_(*catalog_, store_),
      monitor_(directories_, *catalog_, registrar_) {}

Registry::~Registry() = default;

std::optional<Error> Registry::lock() {
  if (directories_.state.empty()) return Error::posix(ENOENT, "there is no state directory");
  const std::string directory = stateOf(directories_);
  if (const int number = makeDirectories(directory); number != 0) return Error::posix(number, directory);
  const std::string path = directory + "/Registry.lock";
  lock_ = FileDescriptor(::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600));
  if (!lock_) return Error::posix(errno, path);
  if (flock(lock_.get(), LOCK_EX | LOCK_NB) == 0) return std::nullopt;
  if (errno != EWOULDBLOCK) return Error::posix(errno, path);
  return Error{std::string(kPOSIXErrorDomain), EBUSY,
               "another process uses the registry in " + directory + " (" + path + " is locked)"};
}

/// Reads the store while the disk is scanned.
std::optional<Error> Registry::load(std::vector<Registration>& registrations, Scan& scan) {
  catalog_->setLocations(Locations::current(directories_));
  const auto find = [&scan, locations = catalog_->locations()] {
    Scanner scanner;
    for (const Locations::Root& root : locations->roots())
      if (!root.applications.empty()) scanner.scanApplications(root.applications);
    scan = scanner.take();
  };
  std::thread scanning = startPlatformThread("hollin-scan", find);
  auto error = store_.open(Date::now().secondsSince1970, registrations);
  scanning.join();
  return error;
}

std::variant<std::unique_ptr<Registry>, Error> Registry::open(const Directories& directories) {
  std::unique_ptr<Registry> registry(new Registry(directories));
  if (auto error = registry->lock()) return *std::move(error);
  std::vector<Registration> registrations;
  Scan scan;
  if (auto error = registry->load(registrations, scan)) return *std::move(error);
  registry->catalog_->restore(std::move(registrations));
  auto report = registry->registrar_.applyScan(scan, true, registry->catalog_->clock(), {});
  // Where nothing was known there are no differences to tell.
  if (registry->store_.isNew()) registry->announcer_.forget();
  registry->monitor_.start(std::move(report.registered));
  return registry;
}

void Registry::addObserver(HLApplicationWorkspaceObserverProtocol* observer) {
  announcer_.addObserver(observer);
}

void Registry::removeObserver(HLApplicationWorkspaceObserverProtocol* observer) {
  announcer_.removeObserver(observer);
}

void Registry::startPosting() {
  announcer_.startPosting();
}

std::shared_ptr<const HLProxyList> Registry::installedPlugins() const {
  return catalog_->all();
}

std::optional<HLProxyList> Registry::pluginsWithIdentifiers(const std::vector<std::string>* identifiers,
                                                            const std::vector<std::string>* protocols,
                                                            const std::string* version,
                                                            const Filter& filter) const {
  HLProxyList proxies = catalog_->find(identifiers, protocols, version);
  if (filter)
    std::erase_if(proxies, [&filter](const std::shared_ptr<const HLAmbrelProxy>& proxy) {
      return !filter(proxy->pluginIdentifier(), proxy->entitlements());
    });
  return proxies;
}

bool Registry::registerPlugin(const URL& url) {
  if (!registrar_.registerBundle(url.path())) return false;
  monitor_.registrationsChanged();
  return true;
}

bool Registry::unregisterPlugin(const URL& url) {
  if (!registrar_.unregisterBundle(url.path())) return false;
  monitor_.registrationsChanged();
  return true;
}

HLBundleStanding Registry::standingOf(const std::string& path) const {
  using State = HLBundleStanding::State;
  HLBundleStanding standing;
  standing.path = canonicalPathOfFutureFile(path);
  if (standing.path.empty()) standing.path = path;
  bool isUnregistered = false;
  standing.plugIns = catalog_->at(standing.path, isUnregistered);
  if (!standing.plugIns.empty()) {
    standing.state = State::registered;
    return standing;
  }
  struct stat status {};
  if (stat(standing.path.c_str(), &status) != 0 || !S_ISDIR(status.st_mode)) return standing;
  FileIdentity info, entitlements;
  identifyFiles(standing.path, info, entitlements);
  standing.refusal = readBundleFacts(standing.path, info, entitlements)->refusal;
  standing.state = !standing.refusal.empty()                                ? State::refused
                   : isUnregistered                                         ? State::unregistered
                   : !catalog_->locations()->entryOf(standing.path).empty() ? State::unseen
                                                                            : State::unwatched;
  return standing;
}

bool Registry::vouchesForSDK(std::string_view name, const FileIdentity& file) const {
  return file.isSettled() && catalog_->knowsSDK(name, file);
}

HLRegistryStatistics Registry::statistics() const {
  HLRegistryStatistics statistics;
  catalog_->count(statistics);
  statistics.announcements = announcer_.delivered();
  monitor_.count(statistics);
  return statistics;
}

void Registry::HLClearSchemaCaches() {
  qmx::Bundle::clearCaches();
  qmx::clearSDKCache();
}

std::shared_ptr<const HLAmbrelProxy> Registry::proxyForUUID(const UUID& uuid) const {
  return catalog_->withUUID(uuid);
}

std::shared_ptr<const HLAmbrelProxy> Registry::proxyForURL(const URL& url) const {
  if (auto proxy = catalog_->lowestAt(url.path())) return proxy;
  return catalog_->lowestAt(canonicalPath(url.path()));
}

std::shared_ptr<const HLApplicationProxy> Registry::applicationForURL(const URL& url) const {
  const std::string path = canonicalPath(url.path());
  if (path.empty()) return nullptr;
  if (auto known = catalog_->application(path)) return known;
  const auto locations = catalog_->locations();
  struct stat status {};
  if (!locations->isApplication(path) || stat(path.c_str(), &status) != 0 || !S_ISDIR(status.st_mode))
    return nullptr;
  return std::make_shared<ApplicationProxy>(catalog_, path, locations->containerOf(path),
                                            std::make_shared<const Vigil>());
}

Registry* Registry::shared() {
  return sharedRegistry;
}

}  // namespace platform::hollin

namespace platform {

std::optional<Error> HLApplicationWorkspace::open() {
  auto opened = hollin::Registry::open(Directories::shared());
  if (auto* error = std::get_if<Error>(&opened)) return std::move(*error);
  hollin::sharedRegistry = std::get<std::unique_ptr<hollin::Registry>>(opened).release();
  return std::nullopt;
}

HLApplicationWorkspace& HLApplicationWorkspace::defaultWorkspace() {
  if (hollin::sharedRegistry == nullptr) raiseInternalInconsistency("the application registry is not open");
  return *hollin::sharedRegistry;
}

std::shared_ptr<const HLApplicationProxy> HLApplicationProxy::applicationProxyForBundleURL(const URL& url) {
  return hollin::sharedRegistry == nullptr ? nullptr : hollin::sharedRegistry->applicationForURL(url);
}

std::shared_ptr<const HLAmbrelProxy> HLAmbrelProxy::ambrelProxyForUUID(const UUID& uuid) {
  return hollin::sharedRegistry == nullptr ? nullptr : hollin::sharedRegistry->proxyForUUID(uuid);
}

std::shared_ptr<const HLAmbrelProxy> HLAmbrelProxy::ambrelProxyForURL(const URL& url) {
  return hollin::sharedRegistry == nullptr ? nullptr : hollin::sharedRegistry->proxyForURL(url);
}

}  // namespace platform
