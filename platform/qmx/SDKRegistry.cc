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

std::vector<std::string> registeredFiles(std::string_view name) {
  static const auto& roots = *new std::vector<std::string>(Directories::shared().dataRoots());
  std::vector<std::string> files;
  if (!isSafeFileName(name)) return files;
  for (const std::string& root : roots) files.push_back(root + "/SDKs/" + std::string(name) + ".plist");
  return files;
}

std::optional<std::string> testFile(std::string_view name) {
  const auto directory = testSDKDirectory();
  if (!directory || !isSafeFileName(name)) return std::nullopt;
  return *directory + "/" + std::string(name);
}

}  // namespace

std::optional<Dictionary> copyExtensionSDKEntry(std::string_view name, FileIdentity* source) {
  for (const std::string& file : registeredFiles(name))
    if (auto entry = entryAt(file, source)) return entry;
  return std::nullopt;
}

std::vector<std::string> sdkFiles(std::string_view name) {
  std::vector<std::string> files = registeredFiles(name);
  if (auto test = testFile(name)) files.insert(files.begin(), *std::move(test));
  return files;
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
  const auto file = testFile(name);
  return file ? entryAt(*file, source) : std::nullopt;
}

void clearSDKCache() {
  cache().clear();
}

}  // namespace platform::qmx
