#include "platform/system/Preferences.h"

#include <unistd.h>

#include <climits>
#include <string_view>
#include <variant>

#include "platform/propertylist/PropertyList.h"
#include "platform/propertylist/PropertyListCache.h"
#include "platform/system/Directories.h"

namespace platform {

namespace {

constexpr size_t kParsedDomains = 8;

std::string readHostIdentifier() {
  const Result<std::string> contents = readFile("/etc/machine-id", 4096);
  if (const std::string* text = std::get_if<std::string>(&contents)) {
    const std::string line = text->substr(0, text->find('\n'));
    if (isSafeFileName(line) && line != "uninitialized") return line;
  }
  char name[HOST_NAME_MAX + 1] = {};
  if (gethostname(name, HOST_NAME_MAX) == 0 && isSafeFileName(name)) return name;
  return "localhost";
}

}  // namespace

const std::string& hostIdentifier() {
  static const std::string identifier = readHostIdentifier();
  return identifier;
}

std::string hostPreferencesPath(const std::string& domain) {
  return Directories::shared().configUser + "/Preferences/ByHost/" + domain + "." + hostIdentifier() +
         ".plist";
}

Value hostPreference(const std::string& domain, std::string_view key) {
  static PropertyListCache cache(kParsedDomains);
  if (!isSafeFileName(domain) || Directories::shared().configUser.empty()) return {};
  const auto preferences = cache.settings(hostPreferencesPath(domain));
  return preferences ? (*preferences)[key] : Value();
}

}  // namespace platform
