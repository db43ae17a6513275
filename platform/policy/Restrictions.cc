#include "platform/policy/Restrictions.h"

#include <algorithm>
#include <map>
#include <mutex>

#include "platform/log/Log.h"
#include "platform/propertylist/FileReplacement.h"
#include "platform/propertylist/PropertyListCache.h"
#include "platform/system/Directories.h"

namespace platform {

namespace {

/// Tells the log, once for each state of the file, that it restricts nothing.
void reportUnreadable(const std::string& file, const FileIdentity& identity) {
  static std::mutex mutex;
  static std::map<std::string, FileIdentity> reported;
  {
    const std::lock_guard lock(mutex);
    const auto [known, isNew] = reported.try_emplace(file, identity);
    if (!isNew && known->second == identity) return;
    known->second = identity;
  }
  systemLog("restrictions at %@ cannot be read and do not count", file);
}

}  // namespace

std::vector<std::string> restrictionFiles() {
  const Directories& directories = Directories::shared();
  std::vector<std::string> files = directories.configDevice;
  if (!directories.configUser.empty()) files.push_back(directories.configUser);
  for (std::string& file : files) file += "/Restrictions.plist";
  return files;
}

std::optional<int64_t> maximumAppsRating() {
  static const std::vector<std::string> files = restrictionFiles();
  static PropertyListCache cache(files.size());
  std::optional<int64_t> lowest;
  for (const std::string& file : files) {
    const auto identity = FileIdentity::ofFile(file);
    if (!identity) continue;
    const auto restrictions = cache.dictionary(file);
    if (!restrictions) {
      reportUnreadable(file, *identity);
      continue;
    }
    const Value& rating = (*restrictions)["maximumAppsRating"];
    if (!rating.isNumber() || rating.kind() == Value::Kind::boolean) continue;
    lowest = lowest ? std::min(*lowest, rating.integerValue()) : rating.integerValue();
  }
  return lowest;
}

}  // namespace platform
