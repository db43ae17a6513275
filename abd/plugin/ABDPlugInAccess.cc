// Access policy: whether a host may use a plug-in, and what the user and the device allow the containing
// application. Only the application's rank is kept; everything else is asked anew for each request.

#include "Ambrel/ABProtocol.h"
#include "abd/ABDQmxClient.h"
#include "abd/RequestSettings.h"
#include "abd/plugin/ABDPlugIn.h"
#include "platform/log/Log.h"
#include "platform/propertylist/PropertyList.h"

namespace abd {

namespace {

constexpr const char* kMetadataFile = "ZintraMetadata.plist";
constexpr int64_t kUnknownRank = -1;

using Reason = std::optional<std::string>;

/// By the host's entitlement that limits which plug-ins it may use.
Reason hostRestriction(ABDQmxClient& client, const ABDPlugIn& plugIn) {
  const Value restriction = client.entitlementValueForKey(entitlement::allowedPlugIns);
  if (restriction.isNone()) return std::nullopt;
  const Dictionary* rules = restriction.dictionary();
  if (rules == nullptr) return "invalid host restriction entitlement";
  if (!plugIn.matchRules(client.restriction(*rules)))
    return "the host's plug-in entitlement does not allow this plug-in";
  return std::nullopt;
}

/// `required` is what the plug-in names as the entitlement of its hosts. A name that is no string is an
/// entitlement that no host has.
Reason requiredEntitlement(const Value& required, ABDQmxClient& client) {
  if (required.isNone()) return std::nullopt;
  const auto name = required.string();
  if (name && client.hasEntitlement(*name)) return std::nullopt;
  return format("the host does not have the \"%@\" entitlement", required);
}

Reason ageRating(bool isRestricted) {
  if (isRestricted) return "the containing Application is age restricted";
  return std::nullopt;
}

}  // namespace

std::optional<std::string> ABDPlugIn::allowForClient(ABDQmxClient& client) const {
  if (auto reason = hostRestriction(client, *this)) return reason;
  if (auto reason = requiredEntitlement(plugInDictionary()[plugInkey::hostEntitlement], client))
    return reason;
  return ageRating(ageRestricted(client.settings()));
}

std::set<std::string> ABDPlugIn::allowedQSVServices(RequestSettings& settings) const {
  if (!containingUrl()) return {};
  const auto bundle = qmx::Bundle::create(containingUrl()->path(), qmx::Bundle::directory);
  if (bundle == nullptr) {
    systemLog("failed to create bundle for %@", path());
    return {};
  }
  bundle->flush();
  const auto decisions = QSVAccessCopyInformationForBundle(*bundle, settings.consent());
  if (!decisions) {
    systemLog("QSVAccessCopyInformationForBundle failed for %@", bundle);
    return {};
  }
  std::set<std::string> granted;
  for (const ConsentEntry& decision : *decisions)
    if (decision.granted.value_or(false)) granted.insert(decision.service);
  return granted;
}

bool ABDPlugIn::ageRestricted(RequestSettings& settings) const {
  const auto& maximum = settings.maximumAppsRating();
  return maximum && containerAgeRestriction() > *maximum;
}

int64_t ABDPlugIn::containerAgeRestriction() const {
  int64_t rank = containerAgeRestriction_.load(std::memory_order_relaxed);
  if (rank != kRankNotRead) return rank;
  rank = kUnknownRank;
  const auto application = containingApplication();
  const auto container = application != nullptr ? application->bundleContainerURL() : std::nullopt;
  if (container) {
    const auto metadata = readDictionaryFile(container->appending(kMetadataFile).path());
    const Value& stored = metadata ? (*metadata)["rating"]["rank"] : kNone;
    if (stored.isNumber()) rank = stored.integerValue();
  }
  containerAgeRestriction_.store(rank, std::memory_order_relaxed);
  return rank;
}

}  // namespace abd
