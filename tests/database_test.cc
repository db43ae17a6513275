// The database and what it keeps: records that come and go meanwhile, and the annotation store (what it
// reads, what it refuses and leaves alone).

#include <future>

#include "Ambrel/ABCollections.h"
#include "abd/RequestSettings.h"
#include "abd/database/ABDAnnotationStore.h"
#include "platform/launcher/ServiceLauncher.h"
#include "platform/propertylist/PropertyList.h"
#include "tests/support/Daemon.h"
#include "tests/support/ThisServer.h"

namespace {

using namespace abd;
using namespace testsupport;

using Log = std::vector<std::string>;
using Record = std::shared_ptr<ABDPlugIn>;

class Database : public testing::Test {
 protected:
  Database() { thisServer(); }

  static Record look(const UUID& uuid) { return thisServer().findPlugIn(uuid); }
  static Record findAt(const std::string& path) { return thisServer().findPlugInAtPath(URL::file(path)); }
};

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

// --- Annotations ---

class AnnotationStore : public testing::Test {
 protected:
  AnnotationStore() {
    fs::remove_all(directory());
    fs::create_directories(directory());
  }
  static std::string directory() { return thisDevice().path() + "/annotations"; }
  static std::string file() { return directory() + "/Annotations"; }
  /// Loads the file and answers what is logged for not doing so.
  static std::string refusal() {
    const Log log = logOf([] { EXPECT_EQ(ABDAnnotationStore(file()).annotations(), Dictionary()); });
    return log.size() == 1 ? log[0] : std::to_string(log.size()) + " entries";
  }
};

TEST_F(AnnotationStore, StartsSilentlyWithoutAFileAndKeepsWhatItDoesNotKnow) {
  writeText(directory() + "/.Annotations.tmp-0123ABCD", "left over");
  EXPECT_EQ(logOf([] { ABDAnnotationStore first(file()); }), Log{});
  EXPECT_TRUE(fs::is_empty(directory()));
  const Dictionary table = {{"other", Dictionary{{"more", Array{1, 2.5}}, {"election", "text"}}}, {"odd", 5}};
  const auto fileOf = [](const Dictionary& contents) {
    return Dictionary{{"version", 16}, {"data", contents}};
  };
  writePropertyList(file(), fileOf(table));
  const Record plugIn = registeredRecord({.identifier = "annotated"});
  ABDAnnotationStore store(file());
  EXPECT_TRUE(store.annotationForIdentifier("odd").isNone());
  store.setAnnotation(std::nullopt, *plugIn);
  store.setAnnotation(Dictionary{{"election", 1}}, *plugIn);
  EXPECT_EQ(readDictionaryFile(file()),
            fileOf(ambrel::dictionaryChanging(table, "annotated", Dictionary{{"election", 1}})));
  store.setAnnotation(std::nullopt, *plugIn);
  EXPECT_EQ(readDictionaryFile(file()), fileOf(table));
}

TEST_F(AnnotationStore, AFileThatCannotBeReadIsReportedAndKept) {
  const Record plugIn = registeredRecord({.identifier = "annotated"});
  for (const auto& [version, read] : {std::pair<Value, const char*>("15b", "15"),
                                      {"v16", "0"},
                                      {17, "17"},
                                      {"99999999999999999999", "2147483647"}}) {
    const Dictionary outdated = {{"data", Dictionary()}, {"version", version}};
    writePropertyList(file(), outdated);
    EXPECT_EQ(refusal(), "unable to load annotation database:file://" + file() +
                             " error:Ambrel 7 \"found database version " + read +
                             " needed version 16\" (resetting)");
    EXPECT_EQ(readDictionaryFile(file()), outdated) << "it stays until the first change";
    ABDAnnotationStore store(file());
    const Log log = logOf([&store, &plugIn] {
      for (int i = 1; i < 3; ++i) store.setAnnotation(Dictionary{{"election", i}}, *plugIn);
    });
    ASSERT_EQ(log.size(), 1u) << "set aside once";
    EXPECT_TRUE(log[0].starts_with("the annotation database that could not be loaded was kept as "))
        << log[0];
    EXPECT_EQ(readDictionaryFile(log[0].substr(log[0].find(file()))), outdated);
  }
  writePropertyList(file(), Dictionary{{"version", "16 or so"}, {"data", Array()}});
  EXPECT_NE(refusal().find("\"data\" is not a dictionary"), std::string::npos);
}

}  // namespace
