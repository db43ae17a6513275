// The annotation store: what it reads, what it refuses and leaves alone, and that every change reaches the
// file.

#include <sys/stat.h>

#include <filesystem>

#include "abd/database/ABDAnnotationStore.h"
#include "platform/propertylist/PropertyList.h"
#include "tests/support/ThisServer.h"

namespace {

using namespace abd;
using namespace testsupport;

namespace fs = std::filesystem;

using Log = std::vector<std::string>;
using Record = std::shared_ptr<ABDPlugIn>;

class AnnotationStore : public testing::Test {
 protected:
  AnnotationStore() {
    fs::remove_all(directory());
    fs::create_directories(directory());
  }
  static std::string directory() { return thisDevice().path() + "/annotations"; }
  static std::string file() { return directory() + "/Annotations"; }
  static Dictionary stored() { return readDictionaryFile(file()).value_or(Dictionary()); }
  static Dictionary fileOf(const Dictionary& table) { return {{"version", 16}, {"data", table}}; }

  static const Record& plugIn() {
    static const Record record = registeredRecord({.identifier = "annotated"});
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

TEST_F(AnnotationStore, StartsSilentlyWithoutAFileAndRemovesARecordWithoutEntries) {
  EXPECT_EQ(logOf([] { ABDAnnotationStore first(file()); }), Log{});
  EXPECT_FALSE(fs::exists(file()));
  ABDAnnotationStore store(file());
  store.setAnnotation(Dictionary{{"election", 1}}, *plugIn());
  EXPECT_EQ(stored(), fileOf({{"annotated", Dictionary{{"election", 1}}}}));
  store.setAnnotation(std::nullopt, *plugIn());
  EXPECT_EQ(stored(), fileOf({}));
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

TEST_F(AnnotationStore, AFileThatCannotBeReadIsReported) {
  for (const auto& [version, read] : {std::pair<Value, const char*>("15b", "15"),
                                      {"v16", "0"},
                                      {Array{16}, "0"},
                                      {17, "17"},
                                      {"99999999999999999999", "2147483647"}}) {
    writePropertyList(file(), Dictionary{{"data", Dictionary()}, {"version", version}});
    EXPECT_EQ(refusal(), format("Ambrel 7 \"found database version %s needed version 16\"", read));
  }
  const auto expectRefusal = [](const char* text) { EXPECT_NE(refusal().find(text), std::string::npos); };
  writePropertyList(file(), Dictionary{{"version", "16 or so"}, {"data", Array()}});
  expectRefusal("\"data\" is not a dictionary");
  writePropertyList(file(), Array{16});
  expectRefusal("does not hold a dictionary");
  writeText(file(), "<plist><dict><key>version");
  expectRefusal("File 259");
  fs::remove(file());
  ASSERT_EQ(mkfifo(file().c_str(), 0600), 0);
  expectRefusal("POSIX");  // and nobody waits for a writer
}

}  // namespace
