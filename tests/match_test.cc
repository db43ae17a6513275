// "match": what a host sees, in which form, and what hides it.

#include <sys/stat.h>

#include <numeric>
#include <random>
#include <set>

#include "Ambrel/ABCollections.h"
#include "abd/requests/DuplicateResolver.h"
#include "platform/system/Preferences.h"
#include "tests/support/DaemonTest.h"

namespace testsupport {
namespace {

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
  const Value deep = Dictionary{{"a", Array{1, 2.5, true, Data(std::string_view("x"))}}};
  const std::string application =
      root.install("Notes.app", {{.identifier = "notes.share",
                                  .version = "2.5",
                                  .attributes = {{"Depth", deep}},
                                  .info = {{"BWBundleDisplayName", "Share it"}, {"DTTool", "dropped"}}}});
  start();
  const Dictionary form = this->form("notes.share");
  Dictionary plain = form;
  for (const char* key : {"bundleInfo", "info", "uuid", "lastmodified", "extensions"}) plain.remove(key);
  EXPECT_EQ(Value(plain).description(),
            "{annotations = {}; containingPath = \"" + application +
                "\"; hubProtocolVersion = 2; "
                "identifier = \"notes.share\"; localizedContainingDisplayName = \"Notes\"; "
                "localizedDisplayName = \"Share it\"; localizedShortName = \"notes.share\"; "
                "original-identifier = \"notes.share\"; path = \"" +
                DeviceRoot::plugInPath(application, "notes.share") +
                "\"; systemResident = false; version = \"2.5\"}");
  EXPECT_NE(uuidIn(form), UUID());
  EXPECT_NEAR(form["lastmodified"].realValue(), static_cast<double>(time(nullptr)), 60);
  EXPECT_EQ(form["info"], form["bundleInfo"]["ZQExtension"]);
  EXPECT_EQ(form["info"]["ZQExtensionAttributes"]["Depth"], deep);
  EXPECT_TRUE(form["bundleInfo"]["DTTool"].isNone());
  EXPECT_TRUE(form["extensions"]["."].isString()) << "an application extension shares its bundle";
  EXPECT_NE(this->form("notes.share")["extensions"], form["extensions"]) << "tokens are issued anew";
}

TEST_F(Match, RulesThatAreNoDictionaryFailBeforeTheFlagsAreLookedAtAndVersion2SucceedsWithoutMatches) {
  start();
  for (const Value& rules : {Value("text"), Value(Array()), Value(5), Value(false), Value(UUID::random())})
    EXPECT_EQ(error("match", {{"rules", rules}, {"flags", kAll}}),
              "4: invalid request format (bad rules dictionary)");
  EXPECT_EQ(error("match", {{"rules", Dictionary()}, {"flags", kAll}}), denied);
  EXPECT_EQ(Value(call("match", {{"version", 2}})), Value(Dictionary()));
}

TEST_F(Match, OfOneIdentifierTheNewestIsReturnedUnlessMoreIsAskedFor) {
  root.install("Old.app", {{.identifier = "x", .version = "1.9"}, {.identifier = "X", .version = "1"}});
  root.install("First.app", {{.identifier = "x", .version = "1.10"}, {.identifier = "tie"}});
  start();
  ASSERT_EQ(found(), "X tie x") << "identifiers are compared exactly";
  usleep(1'100'000);  // registration times are whole seconds
  root.install("Second.app", {{.identifier = "x", .version = "1.10"}});
  root.install("Vendor.app", {{.identifier = "tie"}}, true);
  ASSERT_TRUE(eventually([&] { return match(*client, {}, kAllVersions | kDuplicates).size() == 6; }));
  const auto found = [this](uint64_t flags) {
    std::multiset<std::string> all;
    for (const Dictionary& form :
         match(*client, Dictionary{{"ZQExtensionIdentifier", Array{"x", "tie"}}}, flags))
      all.insert(std::string(*form["version"].string()) +
                 std::string(*form["localizedContainingDisplayName"].string()) + " ");
    return std::accumulate(all.begin(), all.end(), std::string());
  };
  for (const uint64_t flags : {uint64_t{0}, kDuplicates, uint64_t{0x1'0000'0002}})
    EXPECT_EQ(found(flags), "1.0Vendor 1.10Second ") << "the system's, else the later registered";
  EXPECT_EQ(found(kAllVersions), "1.0Vendor 1.10Second 1.9Old ");
  EXPECT_EQ(found(kAllVersions | kDuplicates), "1.0First 1.0Vendor 1.10First 1.10Second 1.9Old ");
  EXPECT_EQ(found(kSystemOnly), "1.0Vendor ");
}

TEST_F(Match, APlugInWithoutAnApplicationIsSeenOnlyByManagers) {
  root.install("A.app", {{.identifier = "inside"}});
  const std::string loose = root.path() + "/loose.appex";
  root.writeBundle(loose, {.identifier = "loose"});
  const std::string manager = hostBundle("Manager", {{kManager, true}});
  start();
  ASSERT_EQ(error("add", {{"paths", Array{loose}}}), "");
  ASSERT_EQ(error("lock", {{"paths", Array{root.dataUser() + "/Applications/A.app"}}, {"flags", 1}}), "");
  EXPECT_EQ(found(), "");

  Host host(root, *daemon, manager), confined(root, *daemon, manager, true),
      without(root, *daemon, hostBundle("Refused", {{kManager, 0}}));
  EXPECT_EQ(foundBy(host), "");
  EXPECT_EQ(foundBy(host, kAll | kSystemOnly), "inside loose") << "visibility and holds are not looked at";
  EXPECT_EQ(errorFor(*client), denied) << "no bundle, no entitlement";
  EXPECT_EQ(errorFor(without.client()), denied) << "the entitlement equals false";
  EXPECT_EQ(errorFor(confined.client()), denied) << "a sandboxed manager";

  hostBundle("Manager", {});
  EXPECT_EQ(errorFor(host.client()), denied) << "asked anew for each request";
  // What others may have written is not honoured.
  chmod((hostBundle("Manager", {{kManager, true}}) + "/Entitlements.plist").c_str(), 0646);
  EXPECT_EQ(errorFor(host.client()), denied);
  EXPECT_TRUE(daemon->logs("error retrieving entitlements for pid " + std::to_string(host.pid())));
}

TEST_F(Match, ADedicatedPlugInIsSeenOnlyByTheApplicationAroundIt) {
  const auto installed = [this](const char* name, bool isDedicated) {
    return root.install(name + std::string(".app"),
                        {{.identifier = name, .plugIn = {{"Dedicated", isDedicated}}}});
  };
  const std::string application = installed("own", true), other = installed("public", false);
  start();
  Host owner(root, *daemon, application), stranger(root, *daemon, other);
  EXPECT_EQ(foundBy(owner), "own public");
  EXPECT_EQ(foundBy(stranger), "public");
  EXPECT_EQ(found(), "public");
}

TEST_F(Match, ThePolicyOfHostAndPlugInHidesPlugIns) {
  root.install("rated/Game.app", {{.identifier = "game"}});
  root.install("odd/A.app",
               {{.identifier = "open"},
                {.identifier = "sealed", .plugIn = {{"ZQExtensionHostEntitlement", "org.key"}}}});
  for (const auto& [name, rank] : {std::pair<std::string, Value>("rated", 300), {"odd", "300"}})
    writePropertyList(root.dataUser() + "/Applications/" + name + "/ZintraMetadata.plist",
                      Dictionary{{"rating", Dictionary{{"rank", rank}}}});
  start();
  const auto limit = [this](const std::string& config, const Value& rating) {
    writePropertyList(config + "/Restrictions.plist", Dictionary{{"maximumAppsRating", rating}});
    return found();
  };
  EXPECT_EQ(limit(root.configDevice(), 200), "open");
  const std::string pid = "client " + std::to_string(getpid()) + " cannot use plugin ";
  EXPECT_TRUE(daemon->logs(pid + "sealed: the host does not have the \"org.key\" entitlement"));
  EXPECT_TRUE(daemon->logs(pid + "game: the containing Application is age restricted"));
  EXPECT_EQ(limit(root.configUser(), 1000), "open") << "a user cannot lift the device's limit";
  EXPECT_EQ(limit(root.configDevice(), 300), "game open") << "the limit is read anew";
  EXPECT_EQ(limit(root.configUser(), -1), "open") << "the lowest counts";
  EXPECT_EQ(limit(root.configUser(), "-1"), "game open") << "no number, no limit";

  Host holder(root, *daemon, hostBundle("Holder", {{"org.key", "any value"}}));
  EXPECT_EQ(foundBy(holder), "game open sealed");
  const Dictionary onlyOpen = {{kAllowedPlugIns, Dictionary{{"ZQExtensionIdentifier", "open"}}},
                               {"org.key", 0}};
  Host restricted(root, *daemon, hostBundle("Restricted", onlyOpen));
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
  const auto excluding = [&](const std::string& file, const Value& exclusions) {
    writePropertyList(root.configUser() + "/Preferences/" + file, Dictionary{{"exclusions", exclusions}});
    return found();
  };
  const std::string thisHost = "ByHost/com.veltra.ambrel.userprefs." + hostIdentifier() + ".plist";
  start();
  EXPECT_EQ(excluding("com.veltra.ambrel.userprefs.plist", Array{Dictionary()}), "unwanted wanted")
      << "the any-host scope is not looked at";
  EXPECT_EQ(excluding(thisHost, Array{"text", 5, Dictionary{{"ZQExtensionIdentifier", "unwanted"}}}),
            "wanted");
  EXPECT_TRUE(daemon->logs("client " + std::to_string(getpid()) + " plugin unwanted excluded"));
  Host host(root, *daemon, hostBundle("Manager", {{kManager, true}}));
  EXPECT_EQ(foundBy(host, kAll), "wanted");
  EXPECT_EQ(excluding(thisHost, Array{Dictionary()}), "");
  EXPECT_EQ(excluding(thisHost, "no list"), "unwanted wanted");
}

TEST_F(Match, AReplacementAndWhatItReplacesNameEachOther) {
  root.install("Old.app", {{.identifier = "editor"}, {.identifier = "viewer"}, {.identifier = "lone"}});
  root.install("New.app", {{.identifier = "better", .entitlements = {{kReplacePlugIn, "editor"}}},
                           {.identifier = "both",
                            .point = "com.example.other",
                            .entitlements = {{kReplacePlugIn, Array{5, "viewer", "missing"}}}}});
  start();
  std::vector<Dictionary> forms = match(*client);
  for (const auto& [old, fresh] : {std::pair("editor", "better"), {"viewer", "both"}}) {
    EXPECT_EQ(formOf(forms, old)["overrider"], formOf(forms, fresh)["uuid"]);
    EXPECT_EQ(formOf(forms, fresh)["overriding"].string(), old);
  }
  EXPECT_TRUE(formOf(forms, "lone")["overrider"].isNone());
  // A replacement that is displaced as a duplicate after it was found counts still.
  const std::string one = root.path() + "/1.app/PlugIns/b.appex",
                    two = root.path() + "/2.app/PlugIns/b.appex";
  root.writeBundle(one, {.identifier = "b", .entitlements = {{kReplacePlugIn, "lone"}}});
  root.writeBundle(two, {.identifier = "b", .version = "2"});
  ASSERT_EQ(error("add", {{"paths", Array{one, two}}}), "");
  forms = match(*client);
  EXPECT_TRUE(formOf(forms, "lone")["overrider"].isString() && formOf(forms, "b")["overriding"].isNone());
  EXPECT_NE(formOf(forms, "lone")["overrider"], formOf(forms, "b")["uuid"]);
  // What it replaces, or what replaces it, was not returned.
  forms = match(*client, Dictionary{{"ZQExtensionIdentifier", Array{"better", "viewer"}}});
  EXPECT_TRUE(formOf(forms, "better")["overriding"].isNone() &&
              formOf(forms, "viewer")["overrider"].isNone());
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
      isDropped = order < 0 || (order == 0 && !isPreferred);
      if (!isDropped) accepted.erase(accepted.begin() + static_cast<std::ptrdiff_t>(at));
      break;
    }
    if (!isDropped) accepted.push_back(i);
  }
  return accepted;
}

std::vector<size_t> resolve(const std::vector<Candidate>& candidates, uint64_t flags) {
  DuplicateResolver resolver(flags);
  std::vector<size_t> accepted;
  for (size_t i = 0; i < candidates.size(); ++i) {
    const DuplicateResolver::Verdict verdict = resolver.admit(candidates[i]);
    if (verdict.accepted && verdict.rival) accepted[*verdict.rival] = candidates.size();
    if (verdict.accepted) accepted.push_back(i);
  }
  std::erase(accepted, candidates.size());
  return accepted;
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
