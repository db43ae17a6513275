// Access policy: whether a host may use a plug-in, and what the user and the device allow the containing
// application. Only the application's rank is kept; everything else is asked anew for each request.

#include "Ambrel/ABProtocol.h"
#include "abd/RequestHost.h"
#include "abd/plugin/ABDPlugIn.h"
#include "abd/plugin/Explanation.h"
#include "platform/log/Log.h"
#include "platform/propertylist/PropertyList.h"

namespace abd {

namespace {

constexpr const char* kMetadataFile = "ZintraMetadata.plist";
constexpr int64_t kUnknownRank = -1;

using Reason = std::optional<std::string>;

/// By the host's entitlement that limits which plug-ins it may use.
Reason hostRestriction(const Value& restriction, RequestHost& host, const ABDPlugIn& plugIn) {
  if (restriction.isNone()) return std::nullopt;
  const Dictionary* rules = restriction.dictionary();
  if (rules == nullptr) return "invalid host restriction entitlement";
  if (!plugIn.matchRules(host.restriction(*rules)))
    return "the host's plug-in entitlement does not allow this plug-in";
  return std::nullopt;
}

/// `required` is what the plug-in names as the entitlement of its hosts. A name that is no string is an
/// entitlement that no host has.
Reason requiredEntitlement(const Value& required, RequestHost& host) {
  if (required.isNone()) return std::nullopt;
  const auto name = required.string();
  if (name && host.hasEntitlement(*name)) return std::nullopt;
  return format("the host does not have the \"%@\" entitlement", required);
}

Reason ageRating(bool isRestricted) {
  if (isRestricted) return "the containing Application is age restricted";
  return std::nullopt;
}

void note(Explanation& why, const Reason& reason, const char* passed, std::string change,
          Dictionary details) {
  if (reason)
    why.fail(stage::access, *reason, std::move(change), std::move(details));
  else
    why.pass(stage::access, passed, std::move(details));
}

}  // namespace

std::optional<std::string> ABDPlugIn::allowForClient(RequestHost& host, Explanation* why) const {
  Reason first;
  const auto goesOn = [&first, why](Reason& reason) {
    if (reason && !first) first = reason;
    return !first || why != nullptr;
  };
  const Value restriction = host.entitlementValueForKey(entitlement::allowedPlugIns);
  Reason reason = hostRestriction(restriction, host, *this);
  if (why != nullptr)
    note(*why, reason,
         restriction.isNone() ? "the host may use any plug-in" : "the host's restriction allows it",
         format("let the host's entitlement %s allow it", entitlement::allowedPlugIns),
         {{findingkey::key, entitlement::allowedPlugIns}, {findingkey::value, restriction}});
  if (!goesOn(reason)) return first;

  const Value& required = plugInDictionary()[plugInkey::hostEntitlement];
  reason = requiredEntitlement(required, host);
  if (why != nullptr) {
    const auto name = required.string();
    note(*why, reason, name ? "the host has the entitlement that it requires" : "it requires no entitlement",
         name ? format("give the host the entitlement %s", *name) : "",
         {{findingkey::key, required},
          {findingkey::value, name ? host.entitlementValueForKey(*name) : Value()}});
  }
  if (!goesOn(reason)) return first;

  reason = ageRating(ageRestricted(host.settings()));
  if (why != nullptr) {
    const std::optional<int64_t>& maximum = host.settings().maximumAppsRating();
    const int64_t rank = containerAgeRestriction();
    note(*why, reason, maximum ? "its application is within the device's age limit" : "there is no age limit",
         format("raise maximumAppsRating to %d", rank),
         {{findingkey::value, rank}, {findingkey::pattern, maximum ? Value(*maximum) : Value()}});
  }
  goesOn(reason);
  return first;
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
