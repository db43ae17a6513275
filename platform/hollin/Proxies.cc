#include "platform/hollin/Proxies.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "platform/hollin/Catalog.h"
#include "platform/log/Log.h"
#include "platform/qmx/Bundle.h"

namespace platform::hollin {

namespace {

std::optional<std::string> copied(const std::optional<String>& text) {
  return text ? std::optional<std::string>(text->view()) : std::nullopt;
}

/// 0 when `path` is a directory, which is made when nothing is there; a link is none.
int makeOneDirectory(const std::string& path) {
  if (mkdir(path.c_str(), 0700) == 0) return 0;
  if (errno != EEXIST) return errno;
  struct stat status {};
  if (lstat(path.c_str(), &status) != 0) return errno;
  return S_ISDIR(status.st_mode) ? 0 : ENOTDIR;
}

int makeContainer(const std::string& containers, const std::string& path) {
  int number = makeOneDirectory(path);
  if (number == ENOENT) {
    number = makeDirectories(containers);
    if (number == 0) number = makeOneDirectory(path);
  }
  return number == 0 ? makeOneDirectory(path + "/tmp") : number;
}

/// An SDK's protocol does not reach the plug-ins of a multiplexed bundle.
bool isDataPlugIn(const PlugInFacts& plugIn, bool isMultiplexed) {
  if (plugIn.protocol != Protocol::absent) return plugIn.protocol == Protocol::data;
  return !isMultiplexed && plugIn.sdk.size() != 0 && readSDKFacts(plugIn.sdk).isData;
}

}  // namespace

std::optional<URL> ApplicationProxy::bundleURL() const {
  return URL::file(path_, true);
}

qmx::BundleNames ApplicationProxy::localizedNames() const {
  return names_.get(std::string(path_.view()));
}

std::optional<URL> ApplicationProxy::bundleContainerURL() const {
  if (container_.size() == 0) return std::nullopt;
  return URL::file(container_, true);
}

std::vector<std::shared_ptr<const HLAmbrelProxy>> ApplicationProxy::ambrelPlugins() const {
  const auto catalog = catalog_.lock();
  if (catalog == nullptr) return {};
  return catalog->within(path_);
}

bool ApplicationProxy::isPlaceholder() const {
  return isPlaceholder_.get(*vigil_, [this] {
    const std::string file = std::string(path_.view()).append("/Placeholder");
    return faccessat(AT_FDCWD, file.c_str(), F_OK, AT_SYMLINK_NOFOLLOW) == 0;
  });
}

Surroundings Surroundings::of(const Directories& directories) {
  return {directories.dataUser.empty() ? String() : String(directories.dataUser + "/Containers")};
}

PlugInProxy::PlugInProxy(std::shared_ptr<const BundleFacts> facts, size_t index, const Slot& slot,
                         std::shared_ptr<const ApplicationProxy> application, bool isOnSystemVolume,
                         std::shared_ptr<const Surroundings> surroundings, std::shared_ptr<const Vigil> vigil)
    : facts_(std::move(facts)),
      application_(std::move(application)),
      surroundings_(std::move(surroundings)),
      vigil_(std::move(vigil)),
      original_(slot.original),
      uuid_(slot.uuid),
      registered_(slot.registered),
      index_(static_cast<uint32_t>(index)),
      isOnSystemVolume_(isOnSystemVolume) {}

PlugInProxy::PlugInProxy(const PlugInProxy& before, const Slot& slot)
    : PlugInProxy(before.facts_, before.index_, slot, before.application_, before.isOnSystemVolume_,
                  before.surroundings_, before.vigil_) {}

std::optional<URL> PlugInProxy::bundleURL() const {
  return URL::file(facts_->path, true);
}

qmx::BundleNames PlugInProxy::localizedNames(const qmx::BundleNames& own) const {
  return names_.get(std::string(facts_->path.view()), own);
}

std::optional<std::string> PlugInProxy::bundleIdentifier() const {
  return copied(facts_->bundleIdentifier);
}

std::optional<std::string> PlugInProxy::bundleVersion() const {
  return copied(facts_->bundleVersion);
}

Value PlugInProxy::ambrelDictionary(const Dictionary& info) const {
  const Value& top = info["ZQExtension"];
  return facts_->isMultiplexed ? top["Multiple"][pluginIdentifier()] : top;
}

std::optional<URL> PlugInProxy::dataContainerURL() const {
  return container(hasContainer_.load(std::memory_order_acquire));
}

std::optional<URL> PlugInProxy::preparedDataContainerURL() const {
  return container(false);
}

/// A container that is trusted to be there is not looked at.
std::optional<URL> PlugInProxy::container(bool isTrusted) const {
  const String& identifier = pluginIdentifier();
  const std::string containers(surroundings_->containers.view());
  if (containers.empty() || !isSafeFileName(identifier)) return std::nullopt;
  const std::string path = containers + "/" + std::string(identifier.view());
  if (isTrusted) return URL::file(path, true);
  const bool wasThere = hasContainer_.load(std::memory_order_acquire);
  if (!wasThere && isDataPlugIn(plugIn(), facts_->isMultiplexed)) return std::nullopt;
  if (!surroundings_->makesContainers) return URL::file(path, true);
  const int number = makeContainer(containers, path);
  hasContainer_.store(number == 0, std::memory_order_release);
  if (number == 0) return URL::file(path, true);
  systemLog("cannot make data container %@: %s", path, strerror(number));
  return std::nullopt;
}

std::optional<FilePlace> PlugInProxy::bundlePlace() const {
  return place_.get(*vigil_, [this] { return readablePlace(std::string(facts_->path.view())); });
}

}  // namespace platform::hollin
