#include "platform/policy/Consent.h"

#include <variant>

#include "platform/propertylist/PropertyList.h"
#include "platform/propertylist/PropertyListCache.h"
#include "platform/system/Directories.h"

namespace platform {

std::string consentFile() {
  const std::string& directory = Directories::shared().configUser;
  return directory.empty() ? std::string() : directory + "/Consent.plist";
}

ConsentDecisions readConsentDecisions() {
  static PropertyListCache cache(1);
  const std::string path = consentFile();
  if (path.empty()) return Dictionary();
  if (auto dictionary = cache.settings(path)) return dictionary;
  // The cache does not tell a missing file from a bad one.
  const Result<Value> contents = readPropertyListFile(path);
  if (const Error* error = std::get_if<Error>(&contents)) {
    if (error->code == kFileReadNoSuchFile) return Dictionary();
    return std::nullopt;
  }
  const Dictionary* dictionary = std::get<Value>(contents).dictionary();
  return dictionary != nullptr ? std::optional(*dictionary) : std::nullopt;
}

std::optional<std::vector<ConsentEntry>> QSVAccessCopyInformationForBundle(
    const qmx::Bundle& bundle, const ConsentDecisions& decisions) {
  if (!decisions) return std::nullopt;
  std::vector<ConsentEntry> entries;
  const auto info = bundle.infoDictionary();
  const auto identifier = info ? (*info)["BWBundleIdentifier"].string() : std::nullopt;
  if (!identifier) return entries;
  const Dictionary* services = (*decisions)[*identifier].dictionary();
  if (services == nullptr) return entries;
  for (const auto& [service, granted] : *services) {
    entries.push_back(
        {std::string(service.view()), granted.isNumber() ? std::optional(granted.isTrue()) : std::nullopt});
  }
  return entries;
}

}  // namespace platform
