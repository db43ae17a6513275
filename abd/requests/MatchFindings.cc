#include "abd/requests/MatchFindings.h"

#include "Ambrel/ABInfoKeys.h"
#include "Ambrel/ABProtocol.h"
#include "abd/ABDPlugInHold.h"
#include "abd/ABDQmxClient.h"
#include "abd/ABDServer.h"
#include "abd/RequestHost.h"
#include "abd/plugin/Rules.h"
#include "platform/log/Log.h"

namespace abd {

namespace {

constexpr const char* kWellFormed = "its bundle is well-formed";

using Preference = DuplicateResolver::Preference;

std::string pathOf(const HLAmbrelProxy& proxy) {
  const auto url = proxy.bundleURL();
  return url ? url->path() : std::string("(lost)");
}

/// Long values are cut: the details have them whole.
std::string shortText(const Value& value) {
  constexpr size_t kLongest = 200;
  std::string text = value.isString() ? format("\"%@\"", *value.string()) : value.description();
  if (text.size() <= kLongest) return text;
  text.resize(kLongest);
  while (!text.empty() && (static_cast<unsigned char>(text.back()) & 0xC0) == 0x80) text.pop_back();
  if (!text.empty() && static_cast<unsigned char>(text.back()) >= 0xC0) text.pop_back();
  return text + "...";
}

Array arrayOf(const std::vector<std::string>& texts) {
  return Array(std::vector<Value>(texts.begin(), texts.end()));
}

void explainRegistration(const HLAmbrelProxy& proxy, Explanation& why) {
  why.pass(stage::registration, format("registered at %@", pathOf(proxy)),
           {{findingkey::since, proxy.registrationDate()}});
}

}  // namespace

void explainStanding(const HLBundleStanding& standing, Explanation& why) {
  using State = HLBundleStanding::State;
  const std::string& path = standing.path;
  switch (standing.state) {
    case State::registered:
      return;
    case State::refused:
      return why.fail(stage::registration, format("%@ is no plug-in bundle: %@", path, standing.refusal), "");
    case State::unregistered:
      return why.fail(stage::registration, format("%@ was unregistered and has not changed since", path),
                      format("register it again: abctl add %@", path));
    case State::unseen:
      return why.fail(stage::registration,
                      format("%@ has not been taken up yet: is it still being written?", path), "");
    case State::unwatched:
      return why.fail(stage::registration,
                      format("%@ lies in no application that is watched, and was not registered", path),
                      "install it in an application: X.app/PlugIns");
    case State::absent:
      return why.fail(stage::registration, format("there is no directory at %@", path), "");
  }
}

void explainCandidate(const HLAmbrelProxy& proxy, Explanation& why) {
  explainRegistration(proxy, why);
  why.pass(stage::record, kWellFormed);
  why.pass(stage::candidate, "the search looks at it");
}

void explainMissingRecord(const HLAmbrelProxy& proxy, const ABRecordTrace& trace, Explanation& why) {
  explainRegistration(proxy, why);
  why.fail(stage::record,
           trace.flaws.empty() ? "the registry has lost its bundle" : trace.flaws.back().reason, "");
}

void explainNarrowing(const HLAmbrelProxy& proxy, const Narrowing& narrowing, bool byIdentifier, bool byPoint,
                      Explanation& why) {
  explainRegistration(proxy, why);
  why.pass(stage::record, kWellFormed);
  const auto fail = [&why](const char* key, const Narrowing::Literals& literals) {
    const Array asked = arrayOf(*literals);
    why.fail(stage::candidate,
             format("the search looks only at plug-ins whose %s is %@", key,
                    literals->size() == 1 ? shortText(asked[0]) : "one of " + shortText(asked)),
             format("search without the rule %s", key),
             {{findingkey::key, key}, {findingkey::pattern, asked}});
  };
  if (byIdentifier) fail(rulekey::identifier, narrowing.identifiers);
  if (byPoint) fail(attributekey::pointName, narrowing.points);
  if (!byIdentifier && !byPoint && narrowing.elections) fail(rulekey::election, narrowing.elections);
}

void explainVisibility(const ABDPlugIn& plugIn, const RequestHost& host, bool isInPlace, bool isOwn,
                       Explanation& why) {
  if (isInPlace) {
    why.pass(stage::visibility, plugIn.onSystemVolume()
                                    ? "it is on the system volume"
                                    : format("it is in the application %@", *plugIn.containingPath()));
  } else if (!plugIn.containingUrl()) {
    why.fail(stage::visibility, "it is in no application and not on the system volume",
             "install it in an application: X.app/PlugIns");
  } else {
    why.fail(stage::visibility, "the search is for the system volume only, where it is not",
             "search without --system-only (flag 0x8)");
  }
  if (!plugIn.isDedicated()) return;
  if (isOwn)
    why.pass(stage::visibility, "it is dedicated to the application that searches");
  else
    why.fail(stage::visibility,
             format("it is dedicated to its own application, which %@ is not", host.name()),
             format("search as %@", plugIn.containingPath().value_or("its application")));
}

void explainHolds(ABDServer& server, const ABDPlugIn& plugIn, bool isHeld, Explanation& why) {
  if (!isHeld) return why.pass(stage::hold, "nobody holds it");
  for (const std::shared_ptr<ABDPlugInHold>& hold : server.holdsOnPlugIn(plugIn)) {
    const std::shared_ptr<ABDQmxClient> client = hold->client();
    Dictionary details = {{findingkey::since, hold->created()}, {findingkey::token, hold->uuid().string()}};
    if (client != nullptr) details.set(findingkey::pid, client->pid());
    const auto bundle =
        client != nullptr && client->bundle() != nullptr ? client->bundle()->path() : std::nullopt;
    if (bundle) details.set(findingkey::bundle, *bundle);
    why.fail(stage::hold,
             format("it is held by %@", client != nullptr ? client->name() : "a client that died"),
             format("release the hold: abctl release %@", hold->uuid()), std::move(details));
  }
}

void explainRules(const std::vector<ABDPlugIn::TriedRule>& tried, Explanation& why) {
  if (tried.empty()) why.pass(stage::rule, "the search has no rules");
  for (const ABDPlugIn::TriedRule& each : tried) {
    Dictionary details = {{findingkey::key, each.key}, {findingkey::pattern, each.pattern}};
    if (!each.value.isNone()) details.set(findingkey::value, each.value);
    const std::string value = each.value.isNone() ? std::string("absent") : shortText(each.value);
    const std::string asked = shortText(each.pattern);
    if (each.holds)
      why.pass(stage::rule, format("%@ is %@, which fits %@", each.key, value, asked), std::move(details));
    else
      why.fail(stage::rule, format("%@ is %@, which does not fit %@", each.key, value, asked),
               format("search without the rule %@", each.key), std::move(details));
  }
}

void explainExclusion(const Dictionary& exclusion, Explanation& why) {
  why.fail(stage::exclusion, format("the user has excluded it by %@", shortText(exclusion)),
           "take that entry out of the user's exclusions", {{findingkey::pattern, exclusion}});
}

void explainRival(const ABDPlugIn& rival, Preference by, Explanation& why) {
  const std::string version(rival.version().string().value_or("(none)"));
  const char* const reason = by == Preference::version ? "its version is newer"
                             : by == Preference::systemVolume
                                 ? "of the same version, it is on the system volume"
                                 : "of the same version, it was registered later or found first";
  why.fail(stage::duplicate, format("version %@ at %@ is preferred: %s", version, rival.path(), reason),
           "search with --all-versions --duplicates (flags 0x5)",
           {{findingkey::uuid, rival.uuid().string()}});
}

void explainReplacement(const ABDPlugIn& replacing, Explanation& why) {
  why.pass(stage::replacement, format("hosts are told that %@ replaces it", replacing.identifier()),
           {{findingkey::uuid, replacing.uuid().string()}});
}

}  // namespace abd
