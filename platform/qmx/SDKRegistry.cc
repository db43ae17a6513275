#include "platform/qmx/SDKRegistry.h"

#include <cstdlib>

#include "platform/propertylist/PropertyListCache.h"
#include "platform/system/Directories.h"

namespace platform::qmx {

namespace {

constexpr size_t kParsedSDKs = 64;

PropertyListCache& cache() {
  // Never destroyed: the registry's threads read on while the process ends.
  static PropertyListCache& parsed = *new PropertyListCache(kParsedSDKs);
  return parsed;
}

}  // namespace

std::optional<Dictionary> copyExtensionSDKEntry(std::string_view name) {
  if (!isSafeFileName(name)) return std::nullopt;
  static const auto& roots = *new std::vector<std::string>(Directories::shared().dataRoots());
  const std::string file = "/SDKs/" + std::string(name) + ".plist";
  for (const std::string& root : roots)
    if (auto entry = cache().dictionary(root + file)) return entry;
  return std::nullopt;
}

std::optional<Dictionary> testSDKEntry(std::string_view name) {
  const char* directory = std::getenv("ABTEST_SDK");
  if (directory == nullptr || !isSafeFileName(name)) return std::nullopt;
  return cache().dictionary(std::string(directory) + "/" + std::string(name));
}

void clearSDKCache() {
  cache().clear();
}

}  // namespace platform::qmx
