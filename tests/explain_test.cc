// "explain" of the diagnostics service: it says what "match" does, and why.

#include <algorithm>
#include <random>
#include <set>

#include "platform/qmx/Encoding.h"
#include "platform/system/Preferences.h"
#include "tests/support/ChangingDevice.h"
#include "tests/support/DaemonTest.h"

namespace testsupport {
namespace {

constexpr const char* kDiagnostics = ".diagnostics";

Array explain(WireClient& client, const Dictionary& request) {
  const Dictionary reply = client.call(message("explain", request));
  EXPECT_EQ(errorOf(reply), "");
  const EncodedPropertyList* list = reply["explanations"].encoded();
  const Value all = list != nullptr ? qmx::decodePropertyList(*list).value_or(Value()) : Value();
  return all.isArray() ? *all.array() : Array();
}

/// Its text of the first test that failed, and the change that would do.
std::string verdict(const Value& explanation) {
  const std::string change(explanation["change"].string().value_or(""));
  for (const Value& finding : *explanation["findings"].array())
    if (!finding["passed"].booleanValue())
      return std::string(*finding["stage"].string()) + ": " + std::string(*finding["text"].string()) + "|" +
             change;
  return explanation["offered"].booleanValue() ? "offered" : "not offered for no reason";
}

class Explain : public DaemonTest {
 protected:
  void startWithManager() {
    start();
    manager.emplace(root, *daemon, hostBundle("Manager", {{kManager, true}}), false, kDiagnostics);
  }
  std::string why(const std::string& plugIn, const Dictionary& rules = {}, const Dictionary& more = {}) {
    const Array all =
        explain(manager->client(), merged({{"plugins", Array{plugIn}}, {"rules", rules}}, more));
    return all.size() == 1 ? verdict(all[0]) : std::to_string(all.size()) + " explanations";
  }
  std::string errorOfExplain(const Dictionary& request) {
    return errorOf(manager->client().call(message("explain", request)));
  }

  std::optional<Host> manager;
};

TEST_F(Explain, NamesTheTestThatFailsAndTheChangeThatWouldDo) {
  const std::string application = root.install(
      "rated/A.app", {{.identifier = "plain", .attributes = {{"Colour", "red"}}},
                      {.identifier = "own", .plugIn = {{"Dedicated", true}}},
                      {.identifier = "sealed", .plugIn = {{"ZQExtensionHostEntitlement", "org.key"}}},
                      {.identifier = "broken", .plugIn = {{"PrincipalClass", "Own"}}},
                      {.identifier = "twice", .version = "1.9"}});
  root.install("B.app", {{.identifier = "twice", .version = "1.10"},
                         {.identifier = "better",
                          .entitlements = {{"com.veltra.developer.replace-plugin", "plain"}}}});
  const std::string loose = root.path() + "/loose.appex",
                    plain = DeviceRoot::plugInPath(application, "plain"),
                    old = DeviceRoot::plugInPath(application, "twice");
  root.writeBundle(loose, {.identifier = "loose"});
  writePropertyList(root.dataUser() + "/Applications/rated/ZintraMetadata.plist",
                    Dictionary{{"rating", Dictionary{{"rank", 300}}}});
  startWithManager();

  EXPECT_EQ(why("plain"), "offered");
  EXPECT_EQ(why(plain, {{"Colour", "red"}, {"ZQExtensionPointName", "com.example.share"}}), "offered");
  EXPECT_EQ(
      why(uuid("plain").string(), {{"Colour", Array{"blue", "=green"}}}),
      "rule: Colour is \"red\", which does not fit (\"blue\", \"=green\")|search without the rule Colour");
  EXPECT_EQ(why("plain", {{"ZQExtensionPointName", "other"}}),
            "candidate: the search looks only at plug-ins whose ZQExtensionPointName is \"other\""
            "|search without the rule ZQExtensionPointName")
      << "the rule that does not hold either is no second reason";
  EXPECT_EQ(why("plain", {{"ZQExtensionPointName", "other"}, {"ZQUserElection", "1"}}).back(), '|');
  EXPECT_EQ(why("plain", {{"ZQExtensionPointName", "com.example.share"}, {"ZQUserElection", "1"}}),
            "candidate: the search looks only at plug-ins whose ZQUserElection is \"1\""
            "|search without the rule ZQUserElection");
  EXPECT_EQ(why("own"), "visibility: it is dedicated to its own application, which " + root.path() +
                            "/hosts/Manager.app (pid " + std::to_string(manager->pid()) +
                            ") is not|search as " + application);
  EXPECT_EQ(why("own", {}, {{"bundle", application}}), "offered");
  EXPECT_EQ(why("plain", {}, {{"flags", kSystemOnly}}),
            "visibility: the search is for the system volume only, where it is not"
            "|search without --system-only (flag 0x8)");
  EXPECT_EQ(why("broken"), "record: Application Extensions may not use the \"PrincipalClass\" key|");
  EXPECT_EQ(why("sealed"),
            "access: the host does not have the \"org.key\" entitlement"
            "|give the host the entitlement org.key");
  EXPECT_EQ(why(old), "duplicate: version 1.10 at " + root.dataUser() +
                          "/Applications/B.app/PlugIns/twice.appex is preferred: its version is newer"
                          "|search with --all-versions --duplicates (flags 0x5)");
  EXPECT_EQ(why(old, {}, {{"flags", kAllVersions}}), "offered");
  EXPECT_EQ(why(old, {{"ZQExtensionPointName", "other"}}).back(), '|') << "it would lose still";
  EXPECT_EQ(why(root.path()), "registration: " + root.path() + " is no plug-in bundle: " + root.path() +
                                  "/Info.plist: No such file or directory|");
  EXPECT_EQ(why(loose),
            "registration: " + loose + " lies in no application that is watched, and was not registered|");
  ASSERT_EQ(error("add", {{"paths", Array{loose}}}), "");
  EXPECT_EQ(why(loose),
            "visibility: it is in no application and not on the system volume"
            "|install it in an application: X.app/PlugIns");
  EXPECT_EQ(why("none.such"), "registration: nothing is registered as none.such|");
  ASSERT_EQ(error("remove", {{"paths", Array{plain}}}), "");
  EXPECT_EQ(why(plain), "registration: " + plain + " was unregistered and has not changed since|");
  ASSERT_EQ(error("add", {{"paths", Array{plain}}}), "");

  const Array replaced = explain(manager->client(), {{"plugins", Array{"plain"}}});
  EXPECT_EQ((*replaced[0]["findings"].array())[replaced[0]["findings"].array()->size() - 1]["text"],
            Value("hosts are told that better replaces it"));
  const Dictionary held = call("lock", {{"paths", Array{plain}}, {"flags", 2}});
  EXPECT_TRUE(why("plain").starts_with("hold: it is held by "));
  EXPECT_TRUE(why("plain").ends_with("|release the hold: abctl release " + held["uuids"].uuid()->string()));
  ASSERT_EQ(error("lock", {{"uuids", Array{held["uuids"]}}}), "");
  writePropertyList(root.configDevice() + "/Restrictions.plist", Dictionary{{"maximumAppsRating", 200}});
  EXPECT_EQ(why("plain"),
            "access: the containing Application is age restricted|raise maximumAppsRating to 300");
  writePropertyList(
      root.configUser() + "/Preferences/ByHost/com.veltra.ambrel.userprefs." + hostIdentifier() + ".plist",
      Dictionary{{"exclusions", Array{Dictionary{{"Colour", "red"}}}}});
  EXPECT_EQ(why("plain", {}, {{"flags", kAll}}),
            "exclusion: the user has excluded it by {Colour = \"red\"}|take that entry out of the user's "
            "exclusions");
}

TEST_F(Explain, IsForManagersAndNotForThemOnTheMainService) {
  startWithManager();
  Host without(root, *daemon, hostBundle("Refused"), false, kDiagnostics),
      confined(root, *daemon, hostBundle("Manager", {{kManager, true}}), true, kDiagnostics);
  for (Host* each : {&without, &confined})
    for (const char* request : {"explain", "match", "none"})
      EXPECT_EQ(errorOf(each->client().call(message(request))), "11: unauthorized request");
  EXPECT_EQ(error("explain"), "4: unrecognized request");
  EXPECT_EQ(errorOf(manager->client().call(message("match"))), "4: unrecognized request");
  for (const Value& names :
       {Value(), Value("text"), Value(Array{5}), Value(Array(std::vector<Value>(4097, "x")))})
    EXPECT_EQ(errorOfExplain({{"plugins", names}}), "4: invalid request format (plug-ins)");
  EXPECT_EQ(errorOfExplain({{"plugins", Array{"x"}}, {"rules", 5}}),
            "4: invalid request format (bad rules dictionary)");
  EXPECT_EQ(errorOfExplain({{"plugins", Array{"x"}}, {"pid", 1}}), "4: process 1 is not connected");
  EXPECT_EQ(errorOfExplain({{"plugins", Array{"x"}}, {"bundle", "hosts"}}), "9: invalid path: hosts");
}

// --- Random devices ---

class ExplainRandom : public testing::Test {
 protected:
  template <typename T>
  T anyOf(const std::vector<T>& choices) {
    return choices[random_() % choices.size()];
  }
  /// So many that they are looked up in a set, in another spelling than that of the plug-ins.
  static Array versions() {
    Array all;
    for (int i = 0; i < 300; ++i) all.append("0" + std::to_string(i % 3) + ".0" + std::to_string(i / 3));
    return all;
  }
  Dictionary anyRules() {
    static const std::vector<std::pair<const char*, std::vector<Value>>> choices = {
        {"ZQExtensionPointName", {"share", Array{"edit", "=sdk.a", "edit"}, "point.a", "éa", "-a", "", true}},
        {"ZQExtensionIdentifier", {"common", Array{"common", "usual", "p1"}, "<>usual", ">p"}},
        {"ZQUserElection", {"1", Array{"0", "2"}, "<>0"}},
        {"Colour", {"red", "<>red", false, Array{"green"}}},
        {"ZQExtensionVersion", {versions()}},
        {"ENTITLEMENT:special", {true, false}},
        {"ZQExtensionContainingApp", {true, ">/"}}};
    Dictionary rules;
    for (const auto& [key, patterns] : choices)
      if (random_() % 4 == 0) rules.set(key, anyOf(patterns));
    return rules;
  }
  /// The same rules in a form that lets no search look at less than all: nothing is less than no text.
  static Dictionary asked(const Dictionary& rules) {
    Dictionary wide = rules;
    for (const auto& [key, pattern] : rules) {
      Array patterns = pattern.isArray() ? *pattern.array() : Array{pattern};
      patterns.append("<");
      if (pattern.kind() != Value::Kind::boolean) wide.set(key, patterns);
    }
    return wide;
  }
  /// Where the change is one of the search, the search is made with it.
  void tryChange(WireClient& host, const Value& explanation, std::string_view change, Dictionary rules,
                 uint64_t flags) {
    constexpr std::string_view kRule = "search without the rule ";
    if (change.starts_with(kRule))
      rules.remove(change.substr(kRule.size()));
    else if (change.starts_with("search with "))
      flags |= kAllVersions | kDuplicates;
    else if (change.starts_with("search without --system-only"))
      flags &= ~kSystemOnly;
    else
      return;
    EXPECT_TRUE(std::ranges::any_of(match(host, rules, flags), [&](const Dictionary& form) {
      return form["uuid"] == explanation["uuid"];
    })) << explanation.description();
    ++explained_["changed"];
  }
  void compare(WireClient& host, WireClient& diagnostics, const Array& plugIns, const Dictionary& more) {
    const Dictionary rules = anyRules();
    const uint64_t flags =
        anyOf<uint64_t>({0, kAllVersions, kAllVersions | kDuplicates, kSystemOnly, more.empty() ? kAll : 0});
    std::multiset<std::string> found, all, offered;
    for (const Dictionary& form : match(host, rules, flags)) found.emplace(*form["uuid"].string());
    for (const Dictionary& form : match(host, asked(rules), flags)) all.emplace(*form["uuid"].string());
    EXPECT_EQ(found, all) << Value(rules).description() << " " << flags;
    const Dictionary request = {{"plugins", plugIns}, {"rules", rules}, {"flags", flags}};
    for (const Value& each : explain(diagnostics, merged(request, more))) {
      const bool isOffered = each["offered"].booleanValue();
      if (isOffered) offered.emplace(*each["uuid"].string());
      EXPECT_EQ(verdict(each) == "offered", isOffered) << each.description();
      EXPECT_NE(verdict(each), "not offered for no reason") << each.description();
      EXPECT_TRUE(!isOffered || !each["change"].isString()) << each.description();
      if (const auto change = each["change"].string()) tryChange(host, each, *change, rules, flags);
      ++explained_[verdict(each).substr(0, verdict(each).find(':'))];
    }
    EXPECT_EQ(offered, found) << Value(rules).description() << " " << flags;
  }

  std::mt19937_64 random_{20261123};
  std::map<std::string, int> explained_;
};

TEST_F(ExplainRandom, SaysOfferedOfExactlyWhatIsFound) {
  for (uint64_t seed = 100; seed < 104; ++seed) {
    ChangingDevice device(seed);
    const DeviceRoot& root = device.root();
    device.entitleHosts();
    for (int world = 0; world < 6; ++world) {
      for (int i = 0; i < 12; ++i) device.change();
      const Daemon daemon(root, {.environment = {"ABTEST_SDK=" + device.testSDKs()}});
      Host manager(root, daemon, device.managerBundle()), guest(root, daemon, device.guestBundle()),
          diagnostics(root, daemon, device.managerBundle(), false, kDiagnostics);
      std::set<std::string> paths;
      for (const Dictionary& form : match(manager.client(), {}, kAll | kAllVersions | kDuplicates))
        paths.emplace(*form["path"].string());
      const Array plugIns(std::vector<Value>(paths.begin(), paths.end()));
      if (!paths.empty())
        manager.client().call(message("lock", {{"paths", Array{*paths.begin()}}, {"flags", 2}}));
      for (int i = 0; i < 15; ++i) {
        compare(manager.client(), diagnostics.client(), plugIns, {});
        compare(guest.client(), diagnostics.client(), plugIns, {{"pid", guest.pid()}});
        compare(guest.client(), diagnostics.client(), plugIns, {{"bundle", device.guestBundle()}});
      }
    }
  }
  for (const char* stage :
       {"offered", "candidate", "visibility", "hold", "rule", "access", "duplicate", "changed"})
    EXPECT_GT(explained_[stage], 0) << stage;
}

}  // namespace
}  // namespace testsupport
