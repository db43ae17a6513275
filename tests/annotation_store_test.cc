// The annotation store: what it reads, what it refuses and leaves alone, and that every change reaches the
// file.

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>

#include "abd/database/ABDAnnotationStore.h"
#include "abd/database/ABDUserPrefs.h"
#include "platform/log/Failure.h"
#include "platform/propertylist/PropertyList.h"
#include "platform/system/Preferences.h"
#include "tests/support/Daemon.h"
#include "tests/support/ThisServer.h"

namespace {

using namespace abd;
using testsupport::logOf;
using testsupport::thisDevice;
using testsupport::writePropertyList;
using testsupport::writeText;

namespace fs = std::filesystem;

using Log = std::vector<std::string>;
using Record = std::shared_ptr<ABDPlugIn>;

class AnnotationStore : public testing::Test {
 protected:
  void SetUp() override {
    thisDevice();
    fs::remove_all(directory());
    fs::create_directories(directory());
  }
  static std::string directory() { return thisDevice().path() + "/annotations"; }
  static std::string file() { return directory() + "/Annotations"; }
  static Dictionary stored() { return readDictionaryFile(file()).value_or(Dictionary()); }
  static Dictionary fileOf(const Dictionary& table) { return {{"version", 16}, {"data", table}}; }

  static const Record& plugIn() {
    static const Record record = testsupport::registeredRecord({.identifier = "annotated"});
    return record;
  }

  /// Loads what is in the file and answers the reason that is logged for not doing so.
  static std::string refusal() {
    std::string reason;
    const Log log = logOf([] { EXPECT_EQ(ABDAnnotationStore(file()).annotations(), Dictionary()); });
    if (log.size() != 1) return std::to_string(log.size()) + " entries";
    const std::string prefix = "unable to load annotation database:file://" + file() + " error:";
    const std::string suffix = " (resetting)";
    if (!log[0].starts_with(prefix) || !log[0].ends_with(suffix)) return log[0];
    return log[0].substr(prefix.size(), log[0].size() - prefix.size() - suffix.size());
  }
};

TEST_F(AnnotationStore, AFirstStartIsSilentAndMakesNoFile) {
  EXPECT_EQ(logOf([] { ABDAnnotationStore store(file()); }), Log{});
  EXPECT_FALSE(fs::exists(file()));
}

TEST_F(AnnotationStore, MergesEntriesAndWritesEveryChange) {
  ABDAnnotationStore store(file());
  store.setAnnotation(Dictionary{{"election", 1}}, *plugIn());
  EXPECT_EQ(stored(), fileOf({{"annotated", Dictionary{{"election", 1}}}}));
  store.setAnnotation(Dictionary{{"extension", Dictionary{{"note", ""}}}}, *plugIn());
  const Dictionary both = {{"election", 1}, {"extension", Dictionary{{"note", ""}}}};
  EXPECT_EQ(stored(), fileOf({{"annotated", both}}));
  EXPECT_EQ(store.annotationForPlugIn(*plugIn()), Value(both));
  store.setAnnotation(Dictionary{{"election", 2}}, *plugIn());
  EXPECT_EQ(store.annotationForIdentifier("annotated")["election"], Value(2));
  EXPECT_EQ(ABDAnnotationStore(file()).annotations(), store.annotations());
  store.setAnnotation(std::nullopt, *plugIn());
  EXPECT_EQ(stored(), fileOf({}));
  EXPECT_TRUE(store.annotationForPlugIn(*plugIn()).isNone());
}

TEST_F(AnnotationStore, PlugInsOfOneKeyShareTheirRecord) {
  const Record replacer =
      testsupport::registeredRecord({.identifier = "annotated.replacer",
                                     .entitlements = {{"com.veltra.developer.replace-plugin", "annotated"}}});
  ABDAnnotationStore store(file());
  store.setAnnotation(Dictionary{{"election", 1}}, *replacer);
  EXPECT_EQ(store.annotationForPlugIn(*plugIn())["election"], Value(1));
  EXPECT_TRUE(store.annotationForIdentifier("annotated.replacer").isNone());
}

TEST_F(AnnotationStore, KeepsWhatItDoesNotKnow) {
  const Dictionary strange = {{"other", Dictionary{{"more", Array{1, 2.5, true}}, {"election", "text"}}},
                              {"odd", 5}};
  writePropertyList(file(), fileOf(strange));
  ABDAnnotationStore store(file());
  EXPECT_TRUE(store.annotationForIdentifier("odd").isNone());
  store.setAnnotation(Dictionary{{"election", 1}}, *plugIn());
  Dictionary expected = strange;
  expected.set("annotated", Dictionary{{"election", 1}});
  EXPECT_EQ(stored(), fileOf(expected));
}

TEST_F(AnnotationStore, AFileThatCannotBeReadIsReportedAndLeftUntilTheFirstChange) {
  const auto versionError = [](const std::string& version) {
    return "Ambrel 7 \"found database version " + version + " needed version 16\"";
  };
  for (const auto& [version, read] : {std::pair<Value, const char*>(15, "15"),
                                      {"15b", "15"},
                                      {"v16", "0"},
                                      {Value(), "0"},
                                      {Array{16}, "0"},
                                      {17, "17"},
                                      {"99999999999999999999", "2147483647"}}) {
    Dictionary contents = {{"data", Dictionary()}};
    contents.set("version", version);
    writePropertyList(file(), contents);
    EXPECT_EQ(refusal(), versionError(read));
  }
  writePropertyList(file(), Dictionary{{"version", 16}});
  EXPECT_NE(refusal().find("\"data\" is not a dictionary"), std::string::npos);
  writePropertyList(file(), Dictionary{{"version", 16}, {"data", Array()}});
  EXPECT_NE(refusal().find("\"data\" is not a dictionary"), std::string::npos);
  writePropertyList(file(), Array{16});
  EXPECT_NE(refusal().find("does not hold a dictionary"), std::string::npos);
  writeText(file(), "<plist><dict><key>version");
  EXPECT_NE(refusal().find("File 259"), std::string::npos);

  ABDAnnotationStore store(file());
  EXPECT_EQ(testsupport::readText(file()), "<plist><dict><key>version");
  store.setAnnotation(Dictionary{{"election", 1}}, *plugIn());
  EXPECT_EQ(stored(), fileOf({{"annotated", Dictionary{{"election", 1}}}}));
}

TEST_F(AnnotationStore, AcceptsAVersionThatIsWrittenAsText) {
  writePropertyList(file(), Dictionary{{"version", "16 or so"}, {"data", Dictionary{{"a", Dictionary()}}}});
  EXPECT_EQ(ABDAnnotationStore(file()).annotations().size(), 1u);
}

TEST_F(AnnotationStore, AFileInThePlaceOfAnotherKindIsReported) {
  fs::create_directory(file());
  EXPECT_NE(refusal().find("POSIX"), std::string::npos);
  fs::remove(file());
  ASSERT_EQ(mkfifo(file().c_str(), 0600), 0);
  EXPECT_NE(refusal().find("POSIX"), std::string::npos);  // and nobody waits for a writer
}

TEST_F(AnnotationStore, AFailedSaveIsLoggedAndItsChangeIsInTheNextOne) {
  ABDAnnotationStore store(file());
  store.setAnnotation(Dictionary{{"election", 1}}, *plugIn());
  fs::rename(directory(), directory() + ".away");
  const Log log = logOf([&store] { store.setAnnotation(Dictionary{{"election", 2}}, *plugIn()); });
  ASSERT_EQ(log.size(), 1u);
  EXPECT_TRUE(log[0].starts_with("unable to save annotations:file://" + file() + " error:POSIX 2 "));
  EXPECT_EQ(store.annotationForPlugIn(*plugIn())["election"], Value(2));
  fs::rename(directory() + ".away", directory());
  EXPECT_EQ(stored()["data"]["annotated"]["election"], Value(1));
  store.setAnnotation(Dictionary{{"extension", Dictionary()}}, *plugIn());
  EXPECT_EQ(stored()["data"]["annotated"], Value(Dictionary{{"election", 2}, {"extension", Dictionary()}}));
}

TEST_F(AnnotationStore, ARelativePathMeansTheDirectoryOfTheStart) {
  const fs::path before = fs::current_path();
  fs::current_path(directory());
  ABDAnnotationStore store("Relative");
  fs::current_path(before);
  EXPECT_EQ(store.annotationsURL().path(), directory() + "/Relative");
  store.setAnnotation(Dictionary{{"election", 1}}, *plugIn());
  EXPECT_TRUE(fs::exists(directory() + "/Relative"));
  const ABDAnnotationStore missing(directory() + "/none/Annotations");
  EXPECT_FALSE(fs::exists(directory() + "/none"));
}

TEST_F(AnnotationStore, LivesInItsOwnDirectoryByDefault) {
  const std::string directory = thisDevice().state() + "/com.veltra.ambrel";
  fs::remove_all(directory);
  EXPECT_EQ(ABDAnnotationStore::defaultDatabaseURL().path(), directory + "/Annotations");
  EXPECT_EQ(fs::status(directory).permissions(), fs::perms::owner_all);
  EXPECT_EQ(ABDAnnotationStore::defaultDatabaseURL().path(), directory + "/Annotations");
}

TEST_F(AnnotationStore, ADefaultDirectoryThatCannotBeMadeIsAnInternalInconsistency) {
  const std::string directory = thisDevice().state() + "/com.veltra.ambrel";
  fs::remove_all(directory);
  writeText(directory, "in the way");
  try {
    ABDAnnotationStore::defaultDatabaseURL();
    ADD_FAILURE() << "nothing was raised";
  } catch (const InternalInconsistency& failure) {
    EXPECT_TRUE(std::string_view(failure.what())
                    .starts_with("unable to create plugin annotations directory:file://" + directory +
                                 "/ error:POSIX "));
  }
  fs::remove(directory);
}

TEST_F(AnnotationStore, ADaemonWithoutAPerUserDirectoryEnds) {
  std::vector<std::string> environment = {"HOME=", "XDG_STATE_HOME=", "ABD_LOG=stderr"};  // the first counts
  for (const std::string& variable : thisDevice().environment()) environment.push_back(variable);
  const std::string errors = directory() + "/errors";
  testsupport::Process daemon({ABD_PROGRAM, "-S", "abd.homeless"}, environment, errors);
  EXPECT_EQ(daemon.waitForExit(), 128 + SIGABRT);
  EXPECT_NE(testsupport::readText(errors).find("unable to locate user directory: errno 2"),
            std::string::npos);
}

TEST_F(AnnotationStore, ExclusionsAreThoseOfThisHostAsTheyAreNow) {
  const ABDUserPrefs preferences;
  EXPECT_TRUE(preferences.exclusions().isNone());
  const Dictionary excluded = {{"exclusions", Array{Dictionary{{"a", "b"}}}}};
  writePropertyList(thisDevice().configUser() + "/Preferences/com.veltra.ambrel.userprefs.plist", excluded);
  EXPECT_TRUE(preferences.exclusions().isNone());
  writePropertyList(hostPreferencesPath("com.veltra.ambrel.userprefs"), excluded);
  EXPECT_EQ(preferences.exclusions(), excluded["exclusions"]);
  fs::remove(hostPreferencesPath("com.veltra.ambrel.userprefs"));
  EXPECT_TRUE(preferences.exclusions().isNone());
}

}  // namespace
