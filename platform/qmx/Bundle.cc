#include "platform/qmx/Bundle.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string_view>

#include "platform/propertylist/PropertyListCache.h"
#include "platform/system/CanonicalOpen.h"
#include "platform/system/Directories.h"

namespace platform::qmx {

namespace {

// Records are built from an Info dictionary once and keep it; this cache only joins the few questions that
// come together about one bundle.
constexpr size_t kParsedDictionaries = 32;

PropertyListCache& cache() {
  // Never destroyed: the registry's threads read on while the process ends.
  static PropertyListCache& parsed = *new PropertyListCache(kParsedDictionaries);
  return parsed;
}

bool isKind(const std::string& path, mode_t kind) {
  struct stat status {};
  return stat(path.c_str(), &status) == 0 && (status.st_mode & S_IFMT) == kind;
}

/// The canonical path of a directory; "" when it is none.
std::string canonicalDirectory(const std::string& path) {
  if (openCanonical(path, O_DIRECTORY)) return path;
  std::string canonical = canonicalPath(path);
  return !canonical.empty() && isKind(canonical, S_IFDIR) ? canonical : std::string();
}

bool isExecutablesBundle(const std::string& directory) {
  return (directory.ends_with(".app") || directory.ends_with(".appex")) &&
         isKind(directory + "/Info.plist", S_IFREG);
}

}  // namespace

std::shared_ptr<const Bundle> Bundle::create(const std::string& path, Mode mode) {
  std::shared_ptr<Bundle> bundle(new Bundle);
  if (mode == directory) {
    bundle->path_ = canonicalDirectory(path);
    bundle->isRecognised_ = true;
    return bundle->path_.empty() ? nullptr : bundle;
  }
  std::string canonical = canonicalPath(path);
  for (size_t slash = canonical.rfind('/'); slash != std::string::npos && slash > 0;
       slash = canonical.rfind('/')) {
    canonical.resize(slash);
    if (!isExecutablesBundle(canonical)) continue;
    bundle->path_ = std::move(canonical);
    bundle->isRecognised_ = true;
    break;
  }
  return bundle;
}

std::shared_ptr<const Bundle> Bundle::mainBundle() {
  return create("/proc/self/exe", executable);
}

std::optional<std::string> Bundle::property(int number) const {
  if (!isRecognised_) return std::nullopt;
  if (number == bundlePath || number == supportPathProperty) return path_;
  return number == executablePathProperty ? executablePath() : std::nullopt;
}

std::optional<std::string> Bundle::executablePath(const char** refusal) const {
  const auto refuse = [refusal](const char* reason) {
    if (refusal != nullptr) *refusal = reason;
    return std::nullopt;
  };
  const auto info = infoDictionary();
  if (!info) return refuse("the Info dictionary cannot be read");
  const Value& given = (*info)["BWBundleExecutable"];
  if (given.isNone()) return refuse("the bundle names no executable");
  const auto name = given.string();
  if (!name || name->empty() || name->find('\0') != std::string_view::npos)
    return refuse("the name of the executable is no path");
  if (name->front() == '/') return refuse("the executable's path is absolute");
  // An executable that is missing still has a path: who starts it learns that it is missing.
  std::string resolved = canonicalPathOfFutureFile(path_ + "/" + std::string(*name));
  if (resolved == path_ || !isInside(resolved, path_))
    return refuse("the executable lies outside the bundle");
  return resolved;
}

std::optional<Dictionary> Bundle::infoDictionary() const {
  if (!isRecognised_) return std::nullopt;
  return infoDictionaryAt(path_);
}

std::optional<Dictionary> Bundle::infoDictionaryAt(std::string_view path) {
  return cache().dictionary(std::string(path).append("/Info.plist"));
}

void Bundle::flush() const {
  clearCaches();
}

std::string Bundle::description() const {
  return isRecognised_ ? "<Bundle " + path_ + ">" : std::string("<Bundle (none)>");
}

void Bundle::clearCaches() {
  cache().clear();
}

}  // namespace platform::qmx
