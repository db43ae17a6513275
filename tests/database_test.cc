// The database: its cache and its limit, look-ups, the narrowed search, elections, announcements.

#include <filesystem>
#include <set>

#include "tests/support/ThisServer.h"

namespace {

using namespace abd;
using namespace testsupport;

namespace fs = std::filesystem;

using Record = std::shared_ptr<ABDPlugIn>;

constexpr const char* kAutoElect = "com.veltra.developer.auto-elect-plugin";

class Database : public testing::Test {
 protected:
  Database() { thisServer().setCacheLimit(1000); }

  static Record look(const UUID& uuid) { return thisServer().findPlugIn(uuid); }
  /// Identifiers of the candidates for `rules`.
  static std::set<std::string> candidates(const std::optional<Dictionary>& rules) {
    std::set<std::string> found;
    const auto records = thisServer().findPlugIns(rules).value();
    for (const auto& record : records) found.emplace(record->identifier().view());
    return found;
  }
  static Value election(const ABDPlugIn& record) {
    return thisServer().annotationForPlugIn(record)["election"];
  }
  static void elect(const ABDPlugIn& record, const Value& election) {
    thisServer().setAnnotation(Dictionary{{"election", election}}, record);
  }
  /// Empties the cache but for one record, so that the next look-up builds its record anew.
  static void purge() {
    static int count = 0;
    thisServer().setCacheLimit(0);
    logOf([] { registeredRecord({.identifier = "purge." + std::to_string(count++)}); });
    thisServer().setCacheLimit(1000);
  }
};

TEST_F(Database, NarrowsTheSearchByLiteralsOnly) {
  registeredRecord({.identifier = "search.a", .point = "search.point"});
  registeredRecord({.identifier = "search.b", .point = "search.point"});
  registeredRecord({.identifier = "search.c", .point = "search.other"});
  const std::set<std::string> ofPoint = {"search.a", "search.b"};
  EXPECT_EQ(candidates(Dictionary{{"ZQExtensionPointName", "=search.point"}}), ofPoint);
  EXPECT_EQ(candidates(Dictionary{{"ZQExtensionPointName", "search.point"},
                                  {"ZQExtensionIdentifier", Array{"search.b", "=search.c"}}}),
            (std::set<std::string>{"search.b"}));
  EXPECT_EQ(candidates(Dictionary{{"ZQExtensionIdentifier", Array()}}), std::set<std::string>());
  EXPECT_EQ(candidates(Dictionary{{"ZQExtensionPointName", "search.none"}}), std::set<std::string>());
  const auto all = candidates(std::nullopt);
  for (const Dictionary& wide : {Dictionary(), Dictionary{{"ZQExtensionPointName", "?TY-IS:a"}},
                                 Dictionary{{"ZQExtensionIdentifier", Array{"search.a", "<search.b"}}},
                                 Dictionary{{"ZQUserElection", Array{"1"}}}})
    EXPECT_EQ(candidates(wide), all);
}

TEST_F(Database, PlaceholdersAreOnlyFoundByName) {
  const Record record = installedRecord("Coming.app", {.identifier = "coming"});
  writeText(*record->containingPath() + "/Placeholder", "");
  EXPECT_FALSE(candidates(Dictionary{{"ZQExtensionIdentifier", "coming"}}).contains("coming"));
  EXPECT_FALSE(candidates(std::nullopt).contains("coming"));
  EXPECT_EQ(look(record->uuid()), record);
  fs::remove(*record->containingPath() + "/Placeholder");
  EXPECT_TRUE(candidates(std::nullopt).contains("coming"));
}

TEST_F(Database, ElectionsNarrowByTheirLowBits) {
  const auto found = [](const char* name, const Value& elections) {
    return !candidates(Dictionary{{"ZQExtensionIdentifier", name}, {"ZQUserElection", elections}}).empty();
  };
  const Record record = registeredRecord({.identifier = "elected"});
  EXPECT_TRUE(found("elected", "0"));
  EXPECT_FALSE(found("elected", Array{"1", "2"}));
  elect(*record, 257);
  EXPECT_TRUE(found("elected", Array{"1", "2"}));
  EXPECT_FALSE(found("elected", "257"));
  elect(*record, -1);
  EXPECT_TRUE(found("elected", "=255"));
  EXPECT_TRUE(found("elected", ">5"));

  registerBundle({.identifier = "elected.auto", .entitlements = {{kAutoElect, true}}});
  registerBundle({.identifier = "elected.text", .entitlements = {{kAutoElect, "yes"}}});
  EXPECT_FALSE(found("elected.text", "1"));
  EXPECT_TRUE(found("elected.auto", "1"));
}

TEST_F(Database, ElectsWhoAsksForItUnlessSomeoneChose) {
  const Record record = registeredRecord({.identifier = "auto", .entitlements = {{kAutoElect, "yes"}}});
  EXPECT_EQ(election(*record), Value(1));
  thisServer().setAnnotation(Dictionary{{"election", 0}, {"extension", Dictionary{{"a", 1}}}}, *record);
  purge();
  look(record->uuid());
  EXPECT_EQ(thisServer().annotationForPlugIn(*record),
            Value(Dictionary{{"election", 1}, {"extension", Dictionary{{"a", 1}}}}));
  const Record declining =
      registeredRecord({.identifier = "auto.not", .entitlements = {{kAutoElect, false}}});
  EXPECT_TRUE(election(*declining).isNone());
}

TEST_F(Database, ARecordOfAnUninstalledPlugInIsAnsweredButNotKept) {
  const std::string path = registerBundle({.identifier = "racing"});
  const auto proxy = HLAmbrelProxy::ambrelProxyForURL(URL::file(path));
  ASSERT_NE(proxy, nullptr);
  ASSERT_EQ(thisServer().removePlugIn(URL::file(path)), std::nullopt);
  ASSERT_TRUE(proxy->isUninstalled());
  const Record first = thisServer().plugInForProxy(proxy);
  ASSERT_NE(first, nullptr);
  EXPECT_NE(thisServer().plugInForProxy(proxy), first);
}

}  // namespace
