#include "platform/policy/Restrictions.h"

#include <algorithm>

#include "platform/propertylist/PropertyListCache.h"
#include "platform/system/Directories.h"

namespace platform {

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
    const auto restrictions = cache.settings(file);
    if (!restrictions) continue;
    const Value& rating = (*restrictions)["maximumAppsRating"];
    if (!rating.isNumber() || rating.kind() == Value::Kind::boolean) continue;
    lowest = lowest ? std::min(*lowest, rating.integerValue()) : rating.integerValue();
  }
  return lowest;
}

}  // namespace platform
