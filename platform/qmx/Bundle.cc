#include "platform/qmx/Bundle.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <string_view>
#include <vector>

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

/// The file names, without suffix, under which the user's language may be found, the closest first:
/// "de_DE.UTF-8" gives de_DE, de-DE and de.
std::vector<std::string> languageNames() {
  std::string language;
  for (const char* variable : {"LC_ALL", "LC_MESSAGES", "LANG"}) {
    const char* value = std::getenv(variable);
    if (value == nullptr || *value == '\0') continue;
    language = value;
    break;
  }
  language.resize(std::min(language.find_first_of(".@"), language.size()));
  if (language == "C" || language == "POSIX" || !isSafeFileName(language)) return {};
  std::vector<std::string> names{language};
  const size_t territory = language.find('_');
  if (territory != std::string::npos) {
    language[territory] = '-';
    names.push_back(language);
    names.push_back(language.substr(0, territory));
  }
  return names;
}

/// The bundle's own words in the user's language, or none.
std::optional<Dictionary> localization(const std::string& path) {
  static const auto& names = *new std::vector<std::string>(languageNames());
  // Most bundles have none: one question instead of one for each name.
  if (names.empty() || access((path + "/Localizations").c_str(), F_OK) != 0) return std::nullopt;
  for (const std::string& name : names)
    if (auto words = cache().dictionary(path + "/Localizations/" + name + ".plist")) return words;
  return std::nullopt;
}

std::optional<std::string> firstString(const std::optional<Dictionary>& words, const Dictionary& info,
                                       std::string_view key) {
  if (words)
    if (const auto text = (*words)[key].string()) return std::string(*text);
  if (const auto text = info[key].string()) return std::string(*text);
  return std::nullopt;
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
  if (number != executablePathProperty) return std::nullopt;
  const auto info = infoDictionary();
  if (!info) return std::nullopt;
  const auto name = (*info)["BWBundleExecutable"].string();
  if (!name || name->empty() || name->front() == '/' || name->find('\0') != std::string_view::npos)
    return std::nullopt;
  // An executable that is missing still has a path: who starts it learns that it is missing.
  std::string resolved = canonicalPathOfFutureFile(path_ + "/" + std::string(*name));
  if (resolved == path_ || !isInside(resolved, path_)) return std::nullopt;
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

std::optional<std::string> localizedBundleName(const std::string& path, const Dictionary& info) {
  return localizedBundleNames(path, info).display;
}

std::optional<std::string> localizedBundleShortName(const std::string& path, const Dictionary& info) {
  return localizedBundleNames(path, info).brief;
}

BundleNames localizedBundleNames(const std::string& path, const Dictionary& info) {
  const auto words = localization(path);
  BundleNames names;
  names.brief = firstString(words, info, "BWBundleName");
  names.display = firstString(words, info, "BWBundleDisplayName");
  if (!names.display) names.display = names.brief;
  return names;
}

}  // namespace platform::qmx
