// The matching engine: operators, rule keys, kinds of values and patterns; and that a narrowed search loses
// nothing that the engine would find.

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "abd/database/SearchLiterals.h"
#include "tests/support/ThisServer.h"

namespace {

using namespace abd;
using testsupport::logOf;
using testsupport::PlugInBundle;
using testsupport::thisDevice;
using testsupport::thisServer;
using testsupport::writePropertyList;

struct Case {
  const char* value;
  const char* pattern;
  bool holds;
};

class DeviceWithTypes : public testing::Test {
 protected:
  void SetUp() override {
    writePropertyList(thisDevice().dataUser() + "/Types/test.plist",
                      Dictionary{{"type.child", Array{"type.parent"}}, {"type.parent", Array{"type.root"}}});
  }
};

class Operators : public DeviceWithTypes {
 protected:
  static void expect(const std::vector<Case>& cases) {
    for (const Case& each : cases)
      EXPECT_EQ(ABDPlugIn::matchString(each.value, each.pattern), each.holds)
          << '"' << each.value << "\" under \"" << each.pattern << '"';
  }
};

TEST_F(Operators, CompareByNumberAndByCharacter) {
  expect({{"1.10", ">=1.10", true},
          {"2.0", ">=1.10", true},
          {"1.9", ">=1.10", false},
          {"1.0.0", "<>1.0", true},
          {"2.0.0", "=2.0", false},
          {"2.0", "=2.0", true},
          {"2.00", "=2.0", true},
          {"1", "<2", true},
          {"2", "<2", false},
          {"2", "<=2", true},
          {"=2", "<=2", false},
          {"3", ">2", true},
          {"3", ">3", false},
          {"a", "<>a", false},
          {"abc", "abc", true},
          {"ABC", "abc", false},
          {"a*c", "a*c", true},
          {"abc", "a*c", false},
          {"", "", true},
          {"", "=", true},
          {"a", "", false},
          {"", "<a", true},
          {"99999999999999999999", ">99999999999999999998", true}});
}

TEST_F(Operators, ThePrefixIsAlwaysAnOperator) {
  expect({{"=5", "==5", true},
          {"=5", "=5", false},
          {"<2", "=<2", true},
          {"<>a", "<>a", true},
          {">=", ">=", true},
          {"?TY-IS:x", "=?TY-IS:x", true},
          {"!a", "!a", true}});
}

TEST_F(Operators, ConformanceLooksUpOrDown) {
  expect({{"type.child", "?TY-CONFORMS:type.parent", true},
          {"type.child", "?TY-CONFORMS:type.root", true},
          {"type.child", "?TY-CONFORMS:type.child", true},
          {"type.parent", "?TY-CONFORMS:type.child", false},
          {"type.parent", "?TY-IS:type.child", true},
          {"type.child", "?TY-IS:type.child", true},
          {"type.child", "?TY-IS:type.parent", false},
          {"other", "?TY-CONFORMS:type.parent", false}});
}

TEST_F(Operators, AnUnknownOperatorIsLoggedEachTimeAndNeverHolds) {
  for (const char* pattern : {"?", "?a", "?TY-CONFORMS", "?ty-is:a"}) {
    const auto log = logOf([pattern] { EXPECT_FALSE(ABDPlugIn::matchString(pattern, pattern)); });
    EXPECT_EQ(log, std::vector<std::string>{std::string("unrecognized match operator:") + pattern});
  }
}

TEST_F(Operators, ListsHoldWhenOneElementDoesAndNonStringsNever) {
  EXPECT_TRUE(ABDPlugIn::matchValue("b", Array{1, "a", ">a"}));
  EXPECT_FALSE(ABDPlugIn::matchValue("b", Array{"a", true, Dictionary()}));
  EXPECT_FALSE(ABDPlugIn::matchValue("b", Array()));
  EXPECT_FALSE(ABDPlugIn::matchValue("b", 1));
  EXPECT_FALSE(ABDPlugIn::matchValue(1, "1"));
}

class Rules : public DeviceWithTypes {
 protected:
  static const ABDPlugIn& plugIn() {
    static const auto record = testsupport::installedRecord(
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

TEST_F(Rules, HoldWhenEveryEntryHolds) {
  EXPECT_TRUE(plugIn().match({}));
  EXPECT_TRUE(plugIn().match({{"text", "value"}, {"list", "a"}}));
  EXPECT_FALSE(plugIn().match({{"text", "value"}, {"list", "b"}}));
}

TEST_F(Rules, NamedKeysReadTheRecord) {
  EXPECT_TRUE(holds("ZQExtensionIdentifier", "rules.one"));
  EXPECT_FALSE(holds("zqextensionidentifier", "rules.one"));
  EXPECT_TRUE(holds("com.veltra.uuid", plugIn().uuid().string()));
  std::string lowerCase = plugIn().uuid().string();
  std::transform(lowerCase.begin(), lowerCase.end(), lowerCase.begin(), ::tolower);
  EXPECT_FALSE(holds("com.veltra.uuid", lowerCase));
  EXPECT_TRUE(holds("ZQExtensionContainingApp", *plugIn().containingPath()));
  EXPECT_TRUE(holds("ZQExtensionContainingApp", true));
  EXPECT_TRUE(holds("ENTITLEMENT:given", true));
  EXPECT_FALSE(holds("ENTITLEMENT:given", "attribute"));
  EXPECT_TRUE(holds("ENTITLEMENT:denied", false));
  EXPECT_TRUE(holds("ENTITLEMENT:missing", false));
  EXPECT_TRUE(holds("ENTITLEMENT:", "nameless"));
  EXPECT_FALSE(holds("entitlement:given", true));
}

TEST_F(Rules, OtherKeysReadTheAttributesThenTheTopLevel) {
  EXPECT_TRUE(holds("top", "level"));
  EXPECT_TRUE(holds("BWBundleName", "attribute"));
  EXPECT_TRUE(holds("BWBundleIdentifier", "rules.one"));
  EXPECT_TRUE(holds("both", false));
  EXPECT_FALSE(holds("rule.type.parent", true));
  EXPECT_TRUE(holds("rule", true));
}

TEST_F(Rules, EveryKindOfPatternMeetsEveryKindOfValue) {
  const Value items = Dictionary{{"items", Array{Dictionary{{"types", Array{"type.child"}}}}}};
  const struct {
    const char* key;
    const char*
        holdsUnder;  // t: true, f: false, s: "=3", v: a list with "value", d: items, n: number 3, e: data
  } cases[] = {{"text", "tv"}, {"list", "t"}, {"empty", "t"}, {"three", "t"}, {"zero", "f"},
               {"yes", "td"},  {"no", "f"},   {"data", "t"},  {"rule", "td"}, {"missing", "f"}};
  const std::pair<char, Value> patterns[] = {{'t', true},  {'t', 1},    {'f', false},
                                             {'f', 0.0},   {'s', "=3"}, {'v', Array{"x", "value"}},
                                             {'d', items}, {'n', 3},    {'e', Data(std::string_view("d"))}};
  for (const auto& [key, holdsUnder] : cases)
    for (const auto& [letter, pattern] : patterns)
      EXPECT_EQ(holds(key, pattern), std::string_view(holdsUnder).find(letter) != std::string_view::npos)
          << key << " under " << pattern.description();
  EXPECT_TRUE(holds("list", "?TY-CONFORMS:type.parent"));
  EXPECT_FALSE(holds("list", "=5"));
}

TEST_F(Rules, ContainingApplicationFailsWhateverThePatternForAPlugInOutsideOne) {
  const auto lonely = testsupport::registeredRecord({.identifier = "rules.lonely"});
  for (const Value& pattern : {Value(false), Value(true), Value("")})
    EXPECT_FALSE(lonely->matchKey("ZQExtensionContainingApp", pattern));
}

TEST_F(Rules, ElectionsReadAsNumbersWithoutTheirMarks) {
  const auto elected = testsupport::registeredRecord({.identifier = "rules.elected"});
  const auto reads = [&](const Value& election, const char* text) {
    thisServer().setAnnotation(Dictionary{{"election", election}}, *elected);
    return elected->matchKey("ZQUserElection", text);
  };
  EXPECT_TRUE(elected->matchKey("ZQUserElection", "0"));
  EXPECT_TRUE(elected->matchKey("ZQUserElection", true));  // the text is there
  EXPECT_TRUE(reads(1, "1"));
  EXPECT_TRUE(reads(257, "1"));
  EXPECT_TRUE(reads(65537, "65537"));
  EXPECT_TRUE(reads(true, "1"));
  EXPECT_TRUE(reads(-1, "-65281"));
  EXPECT_TRUE(reads(2, ">=2"));
}

TEST(Literals, AreWhatAPatternCanOnlyBeTheSameAs) {
  const std::pair<const char*, std::optional<std::string>> cases[] = {
      {"name", "name"},
      {"9a", "9a"},
      {"=name", "name"},
      {"==5", "=5"},
      {"=", ""},
      {"", {}},
      {"<a", {}},
      {"?TY-IS:a", {}},
      {"-a", {}},
      {" a", {}},
      {"\xC3\xA9t\xC3\xA9", "\xC3\xA9t\xC3\xA9"},  // é
      {"\xD0\x96", "\xD0\x96"},                    // Ж
      {"\xE6\x97\xA5", "\xE6\x97\xA5"},            // 日
      {"\xF0\x90\x90\x80", "\xF0\x90\x90\x80"},    // 𐐀
      {"\xE2\x82\xAC", {}},                        // €
      {"\xF0\x9F\x98\x80", {}},                    // 😀
      {"\xC3", {}},
      {"\x80", {}}};
  for (const auto& [pattern, literal] : cases) EXPECT_EQ(literalOfPattern(pattern), literal) << pattern;
  EXPECT_EQ(literalOfPattern(5), std::nullopt);
}

TEST(Literals, OfAListAreNoneAsSoonAsOneElementHasNone) {
  using List = std::vector<std::string>;
  EXPECT_EQ(literalList("a"), List{"a"});
  EXPECT_EQ(literalList(Array{"a", "=b"}), (List{"a", "b"}));
  EXPECT_EQ(literalList(Array()), List());
  EXPECT_EQ(literalList(Array{"a", "<b"}), std::nullopt);
  EXPECT_EQ(literalList(Array{"a", 1}), std::nullopt);
  for (const Value& none : {Value(), Value("?"), Value(true), Value(Dictionary())})
    EXPECT_EQ(literalList(none), std::nullopt);
}

// --- Narrowing ---

class Narrowing : public testing::Test {
 protected:
  static constexpr int kBundles = 120;
  static constexpr int kRules = 600;

  size_t below(size_t count) { return std::uniform_int_distribution<size_t>(0, count - 1)(random_); }
  template <typename T>
  const T& anyOf(const std::vector<T>& choices) {
    return choices[below(choices.size())];
  }
  Value point() { return anyOf(points_); }

  /// What a dictionary may say about its extension point's name.
  Value pointAttribute() {
    switch (below(5)) {
      case 0:
        return {};
      case 1:
        return Array{point(), point()};
      case 2:
        return anyOf(std::vector<Value>{5, true, Array(), Array{7, point()}, Dictionary()});
      default:
        return point();
    }
  }
  Dictionary section() {
    Dictionary attributes = {{"flavour", anyOf(flavours_)}};
    attributes.set("ZQExtensionPointName", pointAttribute());
    Dictionary section = {{"ZQExtensionAttributes", attributes}};
    if (below(2) == 0) section.set("ZQExtensionPointIdentifier", anyOf(sdks_));
    return section;
  }

  void registerRandomBundle(int number) {
    const std::string identifier = "narrow." + std::to_string(number % (kBundles - 20));  // some twice
    PlugInBundle bundle{.identifier = identifier, .point = "", .plugIn = section()};
    if (below(4) == 0) bundle.info.set("ZQExtensionPointName", pointAttribute());
    if (below(4) == 0) {
      Dictionary multiple;
      for (const char* suffix : {".x", ".y"}) multiple.set(identifier + suffix, section());
      bundle.plugIn.set("Multiple", multiple);
    }
    testsupport::registerBundle(bundle, thisDevice().path() + "/narrow/" + std::to_string(number) + ".appex");
  }

  Value pattern(const std::vector<Value>& literals) {
    const auto one = [&]() -> Value {
      const std::string literal(*anyOf(literals).string());
      return below(3) == 0 ? "=" + literal : literal;
    };
    switch (below(6)) {
      case 0:
        return Array{one(), one(), one()};
      case 1:
        return Array{one(), ">" + std::string(*anyOf(literals).string())};
      case 2:
        return anyOf(std::vector<Value>{"<>nothing", ">a", true, Array{"none.such", one()}});
      default:
        return one();
    }
  }
  Dictionary rules() {
    Dictionary rules;
    const size_t kind = below(8);
    if (kind < 3 || kind == 7) rules.set("ZQExtensionIdentifier", pattern(identifiers_));
    if (kind >= 3) rules.set("ZQExtensionPointName", pattern(points_));
    if (below(4) == 0) rules.set("flavour", anyOf(flavours_));
    return rules;
  }

  static std::set<std::string> matching(const ABDPlugInSet& candidates, const Dictionary& rules) {
    std::set<std::string> found;
    for (const auto& candidate : candidates) {
      if (!candidate->match(rules)) continue;
      EXPECT_TRUE(found.insert(candidate->uuid().string()).second) << "a candidate stands there twice";
    }
    return found;
  }

  std::mt19937 random_{testsupport::testSeed()};
  std::vector<Value> points_ = {"point.a", "point.b", "Point.a", "point.a.b", "\xC3\xA9point"};
  std::vector<Value> sdks_ = {"sdk.one", "sdk.list", "sdk.bare", "point.a", "no.such.sdk"};
  std::vector<Value> flavours_ = {"sweet", "sour"};
  std::vector<Value> identifiers_;
};

TEST_F(Narrowing, LosesNothingThatTheEngineWouldFind) {
  SCOPED_TRACE("ABD_SEED=" + std::to_string(testsupport::testSeed()));
  const auto sdk = [](const char* name, const Value& pointName) {
    Dictionary attributes;
    attributes.set("ZQExtensionPointName", pointName);
    writePropertyList(thisDevice().dataUser() + "/SDKs/" + name + ".plist",
                      Dictionary{{"ZQExtension", Dictionary{{"ZQExtensionAttributes", attributes}}}});
  };
  sdk("sdk.one", "point.b");
  sdk("sdk.list", Array{"point.a.b", "Point.a"});
  sdk("sdk.bare", {});
  logOf([this] {
    for (int number = 0; number < kBundles; ++number) registerRandomBundle(number);
  });
  ABDPlugInSet all;
  logOf([&all] { all = thisServer().findPlugIns(std::nullopt).value(); });
  ASSERT_GE(all.size(), static_cast<size_t>(kBundles));
  for (const auto& each : all) identifiers_.emplace_back(each->identifier());

  int found = 0;
  for (int number = 0; number < kRules; ++number) {
    const Dictionary rule = rules();
    const auto narrowed = thisServer().findPlugIns(rule);
    ASSERT_TRUE(narrowed);
    EXPECT_LE(narrowed->size(), all.size());
    const auto expected = matching(all, rule);
    EXPECT_EQ(matching(*narrowed, rule), expected) << Value(rule).description();
    if (!expected.empty()) ++found;
  }
  EXPECT_GE(found, kRules / 3);
}

}  // namespace
