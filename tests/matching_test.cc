// The matching engine: operators, rule keys, kinds of values and patterns.

#include <algorithm>

#include "tests/support/ThisServer.h"

namespace {

using namespace abd;
using namespace testsupport;

class DeviceWithTypes : public testing::Test {
 protected:
  DeviceWithTypes() {
    writePropertyList(thisDevice().dataUser() + "/Types/test.plist",
                      Dictionary{{"type.child", Array{"type.parent"}}, {"type.parent", Array{"type.root"}}});
  }
};

class Operators : public DeviceWithTypes {
 protected:
  /// Each case is a value and, behind the blank, a pattern.
  static void expect(bool holds, const std::vector<std::string>& cases) {
    for (const std::string& each : cases) {
      const size_t blank = each.find(' ');
      EXPECT_EQ(ABDPlugIn::matchString(each.substr(0, blank), each.substr(blank + 1)), holds) << each;
    }
  }
};

TEST_F(Operators, CompareByNumberAndByCharacter) {
  expect(true, {"1.10 >=1.10", "2.0 >=1.10", "1.0.0 <>1.0", "2.00 =2.0", "1 <2", "2 <=2", "3 >2", "abc abc",
                "a*c a*c", " ", " =", " <a", "99999999999999999999 >99999999999999999998",
                // conformance looks up or down
                "type.child ?TY-CONFORMS:type.parent", "type.child ?TY-CONFORMS:type.root",
                "type.child ?TY-CONFORMS:type.child", "type.parent ?TY-IS:type.child",
                // the prefix is always an operator
                "=5 ==5", "<2 =<2", "<>a <>a", ">= >=", "?TY-IS:x =?TY-IS:x", "!a !a"});
  expect(false, {"1.9 >=1.10", "2.0.0 =2.0", "2 <2", "=2 <=2", "3 >3", "a <>a", "ABC abc", "abc a*c", "a ",
                 "type.parent ?TY-CONFORMS:type.child", "type.child ?TY-IS:type.parent",
                 "other ?TY-CONFORMS:type.parent", "=5 =5"});
}

TEST_F(Operators, AnUnknownOperatorIsLoggedEachTimeAndNeverHolds) {
  for (const std::string pattern : {"?", "?a", "?TY-CONFORMS", "?ty-is:a"}) {
    const auto log = logOf([&pattern] { EXPECT_FALSE(ABDPlugIn::matchString(pattern, pattern)); });
    EXPECT_EQ(log, std::vector<std::string>{"unrecognized match operator:" + pattern});
  }
}

class Rules : public DeviceWithTypes {
 protected:
  static const ABDPlugIn& plugIn() {
    static const auto record = installedRecord(
        "Rules.app",
        {.identifier = "rules.one",
         .attributes = {{"text", "value"},
                        {"list", Array{"a", 5, "type.child"}},
                        {"empty", Array()},
                        {"three", 3},
                        {"zero", 0},
                        {"yes", true},
                        {"no", false},
                        {"data", Data(std::string_view("d"))},
                        {"rule", Dictionary{{"type.parent", 1}}},
                        {"BWBundleName", "attribute"},
                        {"both", false},
                        {"ENTITLEMENT:given", "attribute"}},
         .info = {{"top", "level"}, {"both", "top"}},
         .entitlements = {{"given", Dictionary{{"a", 1}}}, {"denied", false}, {"", "nameless"}}});
    return *record;
  }
  static bool holds(const char* key, const Value& pattern) { return plugIn().matchKey(key, pattern); }
};

TEST_F(Rules, NamedKeysReadTheRecordAndOthersTheAttributesThenTheTopLevel) {
  const std::string uuid = plugIn().uuid().string();
  std::string lowerCase = uuid;
  std::ranges::transform(uuid, lowerCase.begin(), ::tolower);
  for (const auto& [key, pattern] : {std::pair<const char*, Value>("ZQExtensionIdentifier", "rules.one"),
                                     {"com.veltra.uuid", uuid},
                                     {"ZQExtensionContainingApp", *plugIn().containingPath()},
                                     {"ZQExtensionContainingApp", true},
                                     {"ENTITLEMENT:given", true},
                                     {"ENTITLEMENT:denied", false},
                                     {"ENTITLEMENT:missing", false},
                                     {"ENTITLEMENT:", "nameless"},
                                     {"top", "level"},
                                     {"BWBundleName", "attribute"},
                                     {"BWBundleIdentifier", "rules.one"},
                                     {"both", false},
                                     {"rule", true}})
    EXPECT_TRUE(holds(key, pattern)) << key << pattern.description();
  for (const auto& [key, pattern] : {std::pair<const char*, Value>("zqextensionidentifier", "rules.one"),
                                     {"com.veltra.uuid", lowerCase},
                                     {"ENTITLEMENT:given", "attribute"},
                                     {"entitlement:given", true},
                                     {"rule.type.parent", true}})
    EXPECT_FALSE(holds(key, pattern)) << key << pattern.description();
  EXPECT_TRUE(plugIn().match({}) && plugIn().match({{"text", "value"}, {"list", "a"}}));
  EXPECT_FALSE(plugIn().match({{"text", "value"}, {"list", "b"}})) << "every entry has to hold";
}

TEST_F(Rules, EveryKindOfPatternMeetsEveryKindOfValue) {
  const Value items = Dictionary{{"items", Array{Dictionary{{"types", Array{"type.child"}}}}}};
  // Under which patterns it holds. t: true, f: false, s: "=3", v: a list with "value", d: items, n: 3, e:
  // data
  const std::pair<const char*, std::string_view> cases[] = {
      {"text", "tv"}, {"list", "t"}, {"empty", "t"}, {"three", "t"}, {"zero", "f"},
      {"yes", "td"},  {"no", "f"},   {"data", "t"},  {"rule", "td"}, {"missing", "f"}};
  const std::pair<char, Value> patterns[] = {{'t', true},  {'t', 1},    {'f', false},
                                             {'f', 0.0},   {'s', "=3"}, {'v', Array{"x", "value"}},
                                             {'d', items}, {'n', 3},    {'e', Data(std::string_view("d"))}};
  for (const auto& [key, holdsUnder] : cases)
    for (const auto& [letter, pattern] : patterns)
      EXPECT_EQ(holds(key, pattern), contains(holdsUnder, {&letter, 1})) << key << pattern.description();
  EXPECT_TRUE(holds("list", "?TY-CONFORMS:type.parent"));
  EXPECT_FALSE(holds("list", "=5"));
}

}  // namespace
