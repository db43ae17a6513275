// The database: the narrowed search, and records that come and go meanwhile.

#include <filesystem>
#include <future>
#include <set>

#include "abd/RequestSettings.h"
#include "platform/launcher/ServiceLauncher.h"
#include "tests/support/Daemon.h"
#include "tests/support/ThisServer.h"

namespace {

using namespace abd;
using namespace testsupport;

namespace fs = std::filesystem;

using Record = std::shared_ptr<ABDPlugIn>;

class Database : public testing::Test {
 protected:
  Database() { thisServer(); }

  static Record look(const UUID& uuid) { return thisServer().findPlugIn(uuid); }
  static Record findAt(const std::string& path) { return thisServer().findPlugInAtPath(URL::file(path)); }
  /// Identifiers of the candidates for `rules`.
  static std::set<std::string> candidates(const std::optional<Dictionary>& rules) {
    std::set<std::string> found;
    const auto records = thisServer().findPlugIns(rules).value();
    for (const auto& record : records) found.emplace(record->identifier().view());
    return found;
  }
};

TEST_F(Database, NarrowsTheSearchByLiteralsOnly) {
  for (const char* identifier : {"search.a", "search.b"})
    registeredRecord({.identifier = identifier, .point = "search.point"});
  registeredRecord({.identifier = "search.c", .point = "search.other"});
  using Names = std::set<std::string>;
  EXPECT_EQ(candidates(Dictionary{{"ZQExtensionPointName", "=search.point"}}),
            (Names{"search.a", "search.b"}));
  EXPECT_EQ(candidates(Dictionary{{"ZQExtensionPointName", "search.point"},
                                  {"ZQExtensionIdentifier", Array{"search.b", "=search.c"}}}),
            Names{"search.b"});
  EXPECT_EQ(candidates(Dictionary{{"ZQExtensionIdentifier", Array()}}), Names());
  const auto all = candidates(std::nullopt);
  for (const Dictionary& wide : {Dictionary(), Dictionary{{"ZQExtensionPointName", "?TY-IS:a"}},
                                 Dictionary{{"ZQExtensionIdentifier", Array{"search.a", "<search.b"}}},
                                 Dictionary{{"ZQUserElection", Array{"1"}}}})
    EXPECT_EQ(candidates(wide), all);
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

TEST_F(Database, AnSDKThatIsGoneBeforeTheRegistrySawItLeavesNoRecord) {
  const std::string path = registerBundle(
                        {.identifier = "flicker", .plugIn = {{"ZQExtensionPointIdentifier", "flicker"}}}),
                    sdk = thisDevice().dataUser() + "/SDKs/flicker.plist";
  const auto served = [&path] { return !findAt(path)->plugInDictionary()["served"].isNone(); };
  writePropertyList(sdk, Dictionary{{"ZQExtension", Dictionary{{"served", true}}}});
  EXPECT_TRUE(served());
  fs::remove(sdk);
  EXPECT_FALSE(served());
  EXPECT_TRUE(eventually([&path] { return findAt(path) == findAt(path); })) << "kept again";
}

TEST_F(Database, LaunchesGoWithTheInstallationThatTheyWereAllowedFor) {
  const std::string path = registerBundle({.identifier = "launched"});
  const auto proxy = HLAmbrelProxy::ambrelProxyForURL(URL::file(path));
  const Record former = look(proxy->pluginUUID());
  RequestSettings settings;
  const auto isAllowed = [&] { return externalService(getpid(), proxy->pluginUUID()).has_value(); };
  const auto announceLate = [&] {
    thisServer().removedPlugIns({proxy});
    std::promise<void> done;
    RunLoop::background().async([&done] { done.set_value(); });
    done.get_future().wait();
  };
  ASSERT_EQ(former->enableForPid(getpid(), settings), std::nullopt);
  ASSERT_EQ(thisServer().removePlugIn(URL::file(path)), std::nullopt);
  EXPECT_NE(former->enableForPid(getpid(), settings), std::nullopt) << "it is gone, announced or not";
  EXPECT_FALSE(isAllowed());
  ASSERT_EQ(thisServer().addPlugIn(URL::file(path)), std::nullopt);
  ASSERT_EQ(look(proxy->pluginUUID())->enableForPid(getpid(), settings), std::nullopt);
  announceLate();
  EXPECT_TRUE(isAllowed());
}

}  // namespace
