#include "platform/qmx/SDKRegistry.h"

#include <cstdlib>
#include <filesystem>

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

std::optional<Dictionary> entryAt(const std::string& path, FileIdentity* source) {
  FileIdentity file;
  auto entry = cache().dictionary(path, &file);
  if (entry && source != nullptr) *source = file;
  return entry;
}

}  // namespace

std::optional<Dictionary> copyExtensionSDKEntry(std::string_view name, FileIdentity* source) {
  if (!isSafeFileName(name)) return std::nullopt;
  static const auto& roots = *new std::vector<std::string>(Directories::shared().dataRoots());
  const std::string file = "/SDKs/" + std::string(name) + ".plist";
  for (const std::string& root : roots)
    if (auto entry = entryAt(root + file, source)) return entry;
  return std::nullopt;
}

std::optional<std::string> testSDKDirectory() {
  const char* directory = std::getenv("ABTEST_SDK");
  if (directory == nullptr || *directory == '\0') return std::nullopt;
  std::error_code error;
  const std::filesystem::path path = std::filesystem::absolute(directory, error);
  if (error) return std::nullopt;  // there is no working directory any more
  return path.string();
}

std::optional<Dictionary> testSDKEntry(std::string_view name, FileIdentity* source) {
  const auto directory = testSDKDirectory();
  if (!directory || !isSafeFileName(name)) return std::nullopt;
  return entryAt(*directory + "/" + std::string(name), source);
}

void clearSDKCache() {
  cache().clear();
}

}  // namespace platform::qmx
