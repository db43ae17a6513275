// "match": what a host sees, in which form, and what hides it.

#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <random>

#include "Ambrel/ABCollections.h"
#include "abd/requests/DuplicateResolver.h"
#include "platform/system/Preferences.h"
#include "tests/support/DaemonTest.h"

namespace testsupport {
namespace {

constexpr uint64_t kAllVersions = 0x1, kDuplicates = 0x4, kSystemOnly = 0x8, kAll = 0x200;
constexpr const char* kManager = "com.veltra.private.ambrel.manager";
constexpr const char* kAllowedPlugIns = "com.veltra.developer.ambrel.allowedplugins";
constexpr const char* kReplacePlugIn = "com.veltra.developer.replace-plugin";

class Match : public DaemonTest {
 protected:
  static std::string foundBy(Host& host, uint64_t flags = 0) {
    return identifiers(match(host.client(), {}, flags));
  }
  static std::string errorFor(WireClient& peer) {
    return errorOf(peer.call(message("match", {{"flags", kAll}})));
  }
  const std::string denied = "11: unauthorized discovery flag (ABDiscoverAll)";
};

TEST_F(Match, TheFormTellsAHostAllItNeedsToKnow) {
  const std::string application = root.install(
      "Notes.app",
      {{.identifier = "notes.share",
        .version = "2.5",
        .attributes = {{"Depth", Dictionary{{"a", Array{1, 2.5, true, Data(std::string_view("x"))}}}}},
        .info = {{"BWBundleDisplayName", "Share it"}, {"DTTool", "dropped"}}}});
  start();
  const std::vector<Dictionary> forms = match(*client);
  ASSERT_EQ(forms.size(), 1u);
  const Dictionary& form = forms[0];
  const std::string path = DeviceRoot::plugInPath(application, "notes.share");
  const Dictionary plain = {{"identifier", "notes.share"},
                            {"original-identifier", "notes.share"},
                            {"version", "2.5"},
                            {"path", path},
                            {"containingPath", application},
                            {"localizedDisplayName", "Share it"},
                            {"localizedContainingDisplayName", "Notes"},
                            {"systemResident", false},
                            {"hubProtocolVersion", 2},
                            {"annotations", Dictionary()}};
  for (const auto& [key, value] : plain) EXPECT_EQ(form[key], value) << key.view();
  EXPECT_TRUE(UUID::fromString(form["uuid"].string().value_or("")).has_value());
  EXPECT_NEAR(form["lastmodified"].realValue(), static_cast<double>(time(nullptr)), 60);
  EXPECT_EQ(form["info"], form["bundleInfo"]["ZQExtension"]);
  EXPECT_EQ(form["info"]["ZQExtensionAttributes"]["Depth"]["a"],
            Value(Array{1, 2.5, true, Data(std::string_view("x"))}));
  EXPECT_TRUE(form["bundleInfo"]["DTTool"].isNone());
  EXPECT_TRUE(form["extensions"]["."].isString()) << "an application extension shares its bundle";
  EXPECT_EQ(form["overrider"].isNone() && form["overriding"].isNone(), true);

  const std::vector<Dictionary> again = match(*client);
  EXPECT_NE(again.at(0)["extensions"], form["extensions"]) << "tokens are issued anew";
  EXPECT_EQ(again.at(0)["bundleInfo"], form["bundleInfo"]);
}

TEST_F(Match, RulesChooseAndNarrowingLosesNothing) {
  root.install("A.app", {{.identifier = "share.one"},
                         {.identifier = "share.two", .attributes = {{"Colours", 2}}},
                         {.identifier = "edit.one", .version = "1.10", .point = "com.example.edit"}});
  start();
  EXPECT_EQ(found(Dictionary()), "edit.one share.one share.two");
  EXPECT_EQ(found(Dictionary{{"ZQExtensionIdentifier", Array{"=edit.one", "share.one", "none"}}}),
            "edit.one share.one");
  EXPECT_EQ(found(Dictionary{{"ZQExtensionVersion", ">=1.9"}}), "edit.one");
  EXPECT_EQ(found(Dictionary{{"Colours", true}, {"ZQExtensionIdentifier", "<>share.one"}}), "share.two");
  EXPECT_EQ(found(Dictionary{{"ZQExtensionIdentifier", Array()}}), "");
  EXPECT_EQ(found(Dictionary{{"ZQExtensionPointName", "?SOUNDS-LIKE:share"}}), "");
  EXPECT_TRUE(daemon->logs("unrecognized match operator:?SOUNDS-LIKE:share"));
}

TEST_F(Match, RulesThatAreNoDictionaryFailBeforeTheFlagsAreLookedAtAndVersion2SucceedsWithoutMatches) {
  root.install("A.app", {{.identifier = "a"}});
  start();
  for (const Value& rules : {Value("text"), Value(Array()), Value(5), Value(false), Value(UUID::random())})
    EXPECT_EQ(error("match", {{"rules", rules}, {"flags", kAll}}),
              "4: invalid request format (bad rules dictionary)");
  EXPECT_EQ(error("match", {{"rules", Dictionary()}, {"flags", kAll}}), denied);
  EXPECT_EQ(Value(call("match", {{"version", 2}})), Value(Dictionary()));
}

TEST_F(Match, OfOneIdentifierTheNewestVersionIsReturnedUnlessMoreIsAskedFor) {
  root.install("Old.app", {{.identifier = "x", .version = "1.9"}});
  root.install("New.app", {{.identifier = "x", .version = "1.10"}});
  root.install("Third.app", {{.identifier = "x", .version = "1.10"}, {.identifier = "X", .version = "1"}});
  start();
  const auto versions = [&](uint64_t flags) {
    std::vector<std::string> list;
    for (const Dictionary& form : match(*client, Dictionary{{"ZQExtensionIdentifier", "x"}}, flags))
      list.emplace_back(*form["version"].string());
    std::ranges::sort(list);
    return list;
  };
  using Versions = std::vector<std::string>;
  EXPECT_EQ(versions(0), Versions{"1.10"});
  EXPECT_EQ(versions(kDuplicates), Versions{"1.10"}) << "by itself the flag has no effect";
  EXPECT_EQ(versions(kAllVersions), (Versions{"1.10", "1.9"}));
  EXPECT_EQ(versions(kAllVersions | kDuplicates), (Versions{"1.10", "1.10", "1.9"}));
  EXPECT_EQ(versions(0x1'0000'0000 | 0x2 | kAllVersions), (Versions{"1.10", "1.9"}))
      << "other bits are ignored";
  EXPECT_EQ(found(), "X x") << "identifiers are compared exactly";
}

TEST_F(Match, OfEqualVersionsTheSystemsIsPreferredElseTheLaterRegistered) {
  root.install("User.app", {{.identifier = "tie"}});
  root.install("First.app", {{.identifier = "later"}});
  start();
  ASSERT_EQ(found(), "later tie");
  usleep(1'100'000);  // registration times are whole seconds
  root.install("Vendor.app", {{.identifier = "tie"}}, true);
  root.install("Second.app", {{.identifier = "later"}});
  ASSERT_TRUE(eventually([&] { return match(*client, {}, kAllVersions | kDuplicates).size() == 4; }));
  const std::vector<Dictionary> forms = match(*client);
  EXPECT_EQ(forms.size(), 2u);
  EXPECT_EQ(formOf(forms, "tie")["systemResident"].boolean(), true);
  EXPECT_EQ(formOf(forms, "later")["localizedContainingDisplayName"].string(), "Second");
  EXPECT_EQ(found({}, kSystemOnly), "tie");
}

TEST_F(Match, APlugInWithoutAnApplicationIsSeenOnlyByManagers) {
  root.install("A.app", {{.identifier = "inside"}});
  root.writeBundle(root.path() + "/loose.appex", {.identifier = "loose"});
  const std::string manager = hostBundle("Manager", {{kManager, true}});
  start();
  ASSERT_EQ(error("add", {{"paths", Array{root.path() + "/loose.appex"}}}), "");
  EXPECT_EQ(found(), "inside");

  Host host(root, *daemon, manager);
  EXPECT_EQ(foundBy(host), "inside");
  EXPECT_EQ(foundBy(host, kAll), "inside loose");
  EXPECT_EQ(foundBy(host, kAll | kSystemOnly), "inside loose") << "visibility is not looked at";

  EXPECT_EQ(errorFor(*client), denied) << "no bundle, no entitlement";
  for (const Value& no : {Value(false), Value(0)}) {
    Host without(root, *daemon, hostBundle("Refused", {{kManager, no}}));
    EXPECT_EQ(errorFor(without.client()), denied) << "the entitlement equals false";
  }
  Host confined(root, *daemon, manager, {.isConfined = true});
  EXPECT_EQ(errorFor(confined.client()), denied) << "a sandboxed manager";
  EXPECT_EQ(foundBy(confined), "inside");
  const Dictionary hold = {{"paths", Array{root.dataUser() + "/Applications/A.app"}}, {"flags", 1}};
  ASSERT_EQ(error("lock", hold), "");
  EXPECT_EQ(found(), "");
  EXPECT_EQ(foundBy(host, kAll), "inside loose") << "nor are holds";

  hostBundle("Manager", {});
  EXPECT_EQ(errorFor(host.client()), denied) << "asked anew for each request";
  // What others may have written is not honoured.
  chmod((hostBundle("Manager", {{kManager, true}}) + "/Entitlements.plist").c_str(), 0646);
  EXPECT_EQ(errorFor(host.client()), denied);
  EXPECT_TRUE(daemon->logs("error retrieving entitlements for pid " + std::to_string(host.pid())));
}

TEST_F(Match, ADedicatedPlugInIsSeenOnlyByTheApplicationAroundIt) {
  const std::string application =
      root.install("Owner.app", {{.identifier = "own", .plugIn = {{"Dedicated", true}}}});
  const std::string other =
      root.install("Other.app", {{.identifier = "public", .plugIn = {{"Dedicated", false}}}});
  start();
  Host owner(root, *daemon, application), stranger(root, *daemon, other);
  EXPECT_EQ(foundBy(owner), "own public");
  EXPECT_EQ(foundBy(stranger), "public");
  EXPECT_EQ(found(), "public");
}

TEST_F(Match, ThePolicyOfHostAndPlugInHidesPlugIns) {
  root.install("rated/Game.app", {{.identifier = "game"}});
  root.install("A.app", {{.identifier = "open"},
                         {.identifier = "sealed", .plugIn = {{"ZQExtensionHostEntitlement", "org.key"}}}});
  writePropertyList(root.dataUser() + "/Applications/rated/ZintraMetadata.plist",
                    Dictionary{{"rating", Dictionary{{"rank", 300}}}});
  writePropertyList(root.configDevice() + "/Restrictions.plist", Dictionary{{"maximumAppsRating", 200}});
  start();
  EXPECT_EQ(found(), "open");
  const std::string pid = "client " + std::to_string(getpid()) + " cannot use plugin ";
  EXPECT_TRUE(daemon->logs(pid + "sealed: the host does not have the \"org.key\" entitlement"));
  EXPECT_TRUE(daemon->logs(pid + "game: the containing Application is age restricted"));
  const std::string restrictions = root.configUser() + "/Restrictions.plist";
  writePropertyList(restrictions, Dictionary{{"maximumAppsRating", 1000}});
  EXPECT_EQ(found(), "open") << "a user cannot lift the device's limit";
  writePropertyList(root.configDevice() + "/Restrictions.plist", Dictionary{{"maximumAppsRating", 300}});
  EXPECT_EQ(found(), "game open") << "the limit is read anew";
  writePropertyList(restrictions, Dictionary{{"maximumAppsRating", -1}});
  EXPECT_EQ(found(), "open") << "the lowest counts";
  writePropertyList(restrictions, Dictionary{{"maximumAppsRating", "-1"}});
  EXPECT_EQ(found(), "game open") << "no number, no limit";

  Host holder(root, *daemon, hostBundle("Holder", {{"org.key", "any value"}}));
  EXPECT_EQ(foundBy(holder), "game open sealed");
  Host restricted(root, *daemon,
                  hostBundle("Restricted", {{kAllowedPlugIns, Dictionary{{"ZQExtensionIdentifier", "open"}}},
                                            {"org.key", 0}}));
  EXPECT_EQ(foundBy(restricted), "open");
  EXPECT_TRUE(daemon->logs("game: the host's plug-in entitlement does not allow this plug-in"));
  // What it forbade stays when it can be read no more.
  chmod((root.path() + "/hosts/Restricted.app/Entitlements.plist").c_str(), 0666);
  EXPECT_EQ(foundBy(restricted), "open");
  EXPECT_TRUE(daemon->logs("error retrieving entitlements for pid " + std::to_string(restricted.pid())));
  Host anything(root, *daemon, hostBundle("Anything", {{kAllowedPlugIns, Dictionary()}}));
  EXPECT_EQ(foundBy(anything), "game open");
  Host invalid(root, *daemon, hostBundle("Invalid", {{kAllowedPlugIns, Array()}, {kManager, true}}));
  EXPECT_EQ(foundBy(invalid), "");
  EXPECT_TRUE(daemon->logs("open: invalid host restriction entitlement"));
  EXPECT_EQ(foundBy(invalid, kAll), "game open sealed") << "a manager's search asks no policy";
}

TEST_F(Match, TheUsersExclusionsHideFromEverybody) {
  root.install("A.app", {{.identifier = "wanted"}, {.identifier = "unwanted"}});
  const auto exclude = [&](const std::string& file, const Value& exclusions) {
    writePropertyList(root.configUser() + "/Preferences/" + file, Dictionary{{"exclusions", exclusions}});
  };
  const std::string thisHost = "ByHost/com.veltra.ambrel.userprefs." + hostIdentifier() + ".plist";
  start();
  Host host(root, *daemon, hostBundle("Manager", {{kManager, true}}));
  exclude("com.veltra.ambrel.userprefs.plist", Array{Dictionary()});
  EXPECT_EQ(found(), "unwanted wanted") << "the any-host scope is not looked at";

  exclude(thisHost, Array{"text", 5, Dictionary{{"ZQExtensionIdentifier", "unwanted"}}});
  EXPECT_EQ(found(), "wanted");
  EXPECT_TRUE(daemon->logs("client " + std::to_string(getpid()) + " plugin unwanted excluded"));
  EXPECT_EQ(foundBy(host, kAll), "wanted");
  exclude(thisHost, Array{Dictionary()});
  EXPECT_EQ(found(), "");
  exclude(thisHost, "no list");
  EXPECT_EQ(found(), "unwanted wanted");
}

TEST_F(Match, AReplacementAndWhatItReplacesNameEachOther) {
  root.install("Old.app", {{.identifier = "editor"}, {.identifier = "viewer"}, {.identifier = "lone"}});
  root.install("New.app", {{.identifier = "better", .entitlements = {{kReplacePlugIn, "editor"}}},
                           {.identifier = "both",
                            .point = "com.example.other",
                            .entitlements = {{kReplacePlugIn, Array{5, "viewer", "missing"}}}}});
  start();
  std::vector<Dictionary> forms = match(*client);
  EXPECT_EQ(identifiers(forms), "better both editor lone viewer");
  EXPECT_EQ(formOf(forms, "editor")["overrider"], formOf(forms, "better")["uuid"]);
  EXPECT_EQ(formOf(forms, "better")["overriding"].string(), "editor");
  EXPECT_EQ(formOf(forms, "viewer")["overrider"], formOf(forms, "both")["uuid"]);
  EXPECT_EQ(formOf(forms, "both")["overriding"].string(), "viewer");
  EXPECT_TRUE(formOf(forms, "lone")["overrider"].isNone());

  forms = match(*client, Dictionary{{"ZQExtensionIdentifier", Array{"better", "viewer"}}});
  EXPECT_TRUE(formOf(forms, "better")["overriding"].isNone()) << "what it replaces was not returned";
  EXPECT_TRUE(formOf(forms, "viewer")["overrider"].isNone()) << "what replaces it was not returned";
}

TEST_F(Match, AReplacementThatWasDisplacedAsADuplicateStillCounts) {
  // Candidates come in an unspecified order, so both orders are tried: the older version's declaration counts
  // exactly when it was accepted before the newer one displaced it.
  root.install("A.app", {{.identifier = "editor"}});
  const PlugInBundle older = {
      .identifier = "b", .version = "1", .entitlements = {{kReplacePlugIn, "editor"}}};
  const PlugInBundle newer = {.identifier = "b", .version = "2"};
  int counted = 0;
  for (const bool olderFirst : {true, false}) {
    const std::string first = root.install("First.app", {olderFirst ? older : newer});
    const std::string second = root.install("Second.app", {olderFirst ? newer : older});
    start();
    const std::vector<Dictionary> forms = match(*client);
    EXPECT_EQ(identifiers(forms), "b editor");
    EXPECT_EQ(formOf(forms, "b")["version"].string(), "2");
    EXPECT_TRUE(formOf(forms, "b")["overriding"].isNone());
    const Value overrider = formOf(forms, "editor")["overrider"];
    counted += overrider.isNone() ? 0 : 1;
    EXPECT_NE(overrider, formOf(forms, "b")["uuid"]);
    daemon.reset();
    for (const std::string& each : {first, second}) std::filesystem::remove_all(each);
  }
  EXPECT_LE(counted, 1);
}

// The resolver against the scan that it stands for.

using abd::DuplicateResolver;
using Candidate = DuplicateResolver::Candidate;

/// Scans all accepted candidates for each new one; answers the numbers of those that remain, in order.
std::vector<size_t> scan(const std::vector<Candidate>& candidates, uint64_t flags) {
  std::vector<size_t> accepted;
  for (size_t i = 0; i < candidates.size(); ++i) {
    const Candidate& p = candidates[i];
    bool isDropped = false;
    for (size_t at = 0; at < accepted.size(); ++at) {
      const Candidate& e = candidates[accepted[at]];
      if (!(e.identifier == p.identifier)) continue;
      const auto order = p.version && e.version ? ambrel::compareVersionString(*p.version, *e.version)
                                                : std::weak_ordering::equivalent;
      if ((flags & kAllVersions) != 0 && (order != 0 || (flags & kDuplicates) != 0)) continue;
      const bool isPreferred = (p.onSystemVolume && !e.onSystemVolume) || p.lastModified > e.lastModified;
      if (order > 0 || (order == 0 && isPreferred))
        accepted.erase(accepted.begin() + static_cast<std::ptrdiff_t>(at));
      else
        isDropped = true;
      break;
    }
    if (!isDropped) accepted.push_back(i);
  }
  return accepted;
}

std::vector<size_t> resolve(const std::vector<Candidate>& candidates, uint64_t flags) {
  DuplicateResolver resolver(flags);
  std::vector<size_t> accepted;
  std::vector<bool> isGone;
  for (size_t i = 0; i < candidates.size(); ++i) {
    const DuplicateResolver::Verdict verdict = resolver.admit(candidates[i]);
    if (!verdict.accepted) continue;
    if (verdict.displaced) isGone[*verdict.displaced] = true;
    accepted.push_back(i);
    isGone.push_back(false);
  }
  std::vector<size_t> remaining;
  for (size_t at = 0; at < accepted.size(); ++at)
    if (!isGone[at]) remaining.push_back(accepted[at]);
  return remaining;
}

TEST(Duplicates, AreResolvedAsAScanOfTheAcceptedOnesWould) {
  std::mt19937 random(20261122);
  const auto below = [&](unsigned limit) { return static_cast<unsigned>(random() % limit); };
  const char* const versions[] = {"1", "01", "1.0", "1.10", "1.9", "2a", "2b", "2"};
  for (int round = 0; round < 4000; ++round) {
    std::vector<Candidate> candidates(1 + below(14));
    for (Candidate& each : candidates) {
      each.identifier = below(2) == 0 ? "a" : "b";
      if (below(5) != 0) each.version = versions[below(std::size(versions))];
      each.onSystemVolume = below(2) == 0;
      each.lastModified = below(3);
    }
    for (const uint64_t flags : {uint64_t{0}, kDuplicates, kAllVersions, kAllVersions | kDuplicates})
      ASSERT_EQ(resolve(candidates, flags), scan(candidates, flags))
          << "round " << round << " flags " << flags;
  }
}

}  // namespace
}  // namespace testsupport
