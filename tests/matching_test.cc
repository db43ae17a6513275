// The matching engine: operators, rule keys, kinds of values and patterns; and that a narrowed search loses
// nothing that the engine would find.

#include <algorithm>
#include <random>

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

// --- Narrowing ---

class Narrowing : public testing::Test {
 protected:
  static constexpr int kBundles = 120, kRules = 600;

  size_t below(size_t count) { return random_() % count; }
  template <typename T>
  T anyOf(const std::vector<T>& choices) {
    return choices[below(choices.size())];
  }
  Value point() { return anyOf(points_); }

  /// What a dictionary may say about its extension point's name.
  Value pointAttribute() {
    const Value odd = anyOf<Value>({5, true, Array(), Array{7, point()}, Dictionary()});
    return anyOf<Value>({Value(), Array{point(), point()}, odd, point(), point()});
  }
  Dictionary section() {
    Dictionary attributes = {{"flavour", anyOf(flavours_)}}, section;
    attributes.set("ZQExtensionPointName", pointAttribute());
    section.set("ZQExtensionAttributes", attributes);
    if (below(2) == 0) section.set("ZQExtensionPointIdentifier", anyOf(sdks_));
    return section;
  }
  void registerRandomBundle(int number) {
    const std::string identifier = "narrow." + std::to_string(number % (kBundles - 20));  // some twice
    PlugInBundle bundle{.identifier = identifier, .point = "", .plugIn = section()};
    if (below(4) == 0) bundle.info.set("ZQExtensionPointName", pointAttribute());
    if (below(4) == 0)
      bundle.plugIn.set("Multiple",
                        Dictionary{{identifier + ".x", section()}, {identifier + ".y", section()}});
    registerBundle(bundle, thisDevice().path() + "/narrow/" + std::to_string(number) + ".appex");
  }

  Value pattern(const std::vector<Value>& literals) {
    const auto one = [&](const char* prefix) { return prefix + std::string(*anyOf(literals).string()); };
    return anyOf<Value>({Array{one(""), one("="), one("")}, Array{one(""), one(">")}, one(""), one(""),
                         one("="), anyOf<Value>({"<>nothing", ">a", true, Array{"none.such", one("=")}})});
  }
  Dictionary rules() {
    Dictionary rules;
    const size_t kind = below(8);
    if (kind < 3) rules.set("ZQExtensionIdentifier", pattern(identifiers_));
    if (kind == 7)  // half of them, so that the name decides
      rules.set("ZQExtensionIdentifier", Array({identifiers_.begin(), identifiers_.begin() + kBundles / 2}));
    if (kind >= 3) rules.set("ZQExtensionPointName", pattern(points_));
    if (below(4) == 0) rules.set("flavour", below(2) == 0 ? anyOf(flavours_) : pattern(flavours_));
    return rules;
  }

  /// Whether a rule says literally what it wants: with "=", or a letter of any script or a digit in front.
  static bool isLiteral(const Value& pattern) {
    if (const Array* list = pattern.array()) return std::ranges::all_of(*list, isLiteral);
    const std::string_view text = pattern.string().value_or("");
    return !text.empty() && !text.starts_with("€") && text.find_first_of("<>?- ") != 0;
  }
  /// The plain reading of rules: every entry holds, and of a list one pattern by itself.
  static bool holds(const ABDPlugIn& record, const Dictionary& rules) {
    return std::ranges::all_of(rules, [&record](const Dictionary::Entry& rule) {
      const Array* list = rule.value.array();
      if (list == nullptr) return record.matchKey(rule.key.view(), rule.value);
      return std::ranges::any_of(*list, [&](const Value& each) {
        return each.isString() && record.matchKey(rule.key.view(), each);
      });
    });
  }
  static std::set<std::string> matching(const ABDPlugInSet& candidates, const Dictionary& rules) {
    std::set<std::string> found;
    for (const auto& candidate : candidates) {
      const bool matches = candidate->match(rules);
      EXPECT_EQ(matches, holds(*candidate, rules)) << Value(rules).description();
      EXPECT_TRUE(!matches || found.insert(candidate->uuid().string()).second) << "it stands there twice";
    }
    return found;
  }

  std::mt19937 random_{20261122};
  const std::vector<Value> points_ = {"point.a", "point.b", "Point.a", "point.a.b", "éa", "Жa",
                                      "日a",     "𐐀a",      "€a",      "-a",        " a", ""},
                           sdks_ = {"sdk.one", "sdk.list", "sdk.bare", "point.a", "no.such.sdk"},
                           flavours_ = {"sweet", "sour", "v007", "v7.", "v07.", "a1b", "a01b", "10", "1.00"};
  std::vector<Value> identifiers_;
};

TEST_F(Narrowing, LosesNothingThatTheEngineWouldFind) {
  for (const auto& [name, attributes] :
       {std::pair("sdk.one", Dictionary{{"ZQExtensionPointName", "point.b"}}),
        {"sdk.list", Dictionary{{"ZQExtensionPointName", Array{"point.a.b", "Point.a"}}}},
        {"sdk.bare", Dictionary()}})
    writePropertyList(thisDevice().dataUser() + "/SDKs/" + name + ".plist",
                      Dictionary{{"ZQExtension", Dictionary{{"ZQExtensionAttributes", attributes}}}});
  ABDPlugInSet all;
  logOf([&] {
    for (int number = 0; number < kBundles; ++number) registerRandomBundle(number);
    all = thisServer().findPlugIns(std::nullopt).value();
  });
  ASSERT_GE(all.size(), static_cast<size_t>(kBundles));
  for (const auto& each : all) identifiers_.emplace_back(each->identifier());
  int found = 0;
  for (int number = 0; number < kRules; ++number) {
    const Dictionary rule = rules();
    const auto expected = matching(all, rule);
    const ABDPlugInSet candidates = thisServer().findPlugIns(rule).value();
    EXPECT_EQ(matching(candidates, rule), expected) << Value(rule).description();
    if (!expected.empty()) ++found;
    const bool isNarrow = isLiteral(rule["ZQExtensionIdentifier"]) || isLiteral(rule["ZQExtensionPointName"]);
    EXPECT_EQ(candidates.size() < all.size(), isNarrow) << Value(rule).description();
  }
  EXPECT_GE(found, kRules / 3);
}

}  // namespace
