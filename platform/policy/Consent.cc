#include "platform/policy/Consent.h"

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
  return cache.settings(path);
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
