// The record that daemon and clients share: set-up, its form, resolution against SDKs,
// canonicalization, diagnosis; and the helpers beneath it.

#include <cstdlib>

#include "Ambrel/ABCollections.h"
#include "Ambrel/ABPlugInCore.h"
#include "tests/support/ThisProcess.h"

namespace {

using namespace ambrel;
using testsupport::logOf, testsupport::thisDevice;
using testsupport::writePropertyList, testsupport::writeText;

using Log = std::vector<std::string>;

const URL kURL = URL::file("/apps/Notes.app/PlugIns/share.appex", true);

Dictionary plugInSection() {
  return {{"ZQExtensionProtocol", "Sharing"},
          {"ZQExtensionAttributes", Dictionary{{"ZQExtensionVersion", "2"}}}};
}

std::shared_ptr<ABPlugInCore> recordOf(Dictionary section, const char* name = "org.notes.share") {
  return ABPlugInCore::initWithName(name, kURL, Dictionary{{"ZQExtension", std::move(section)}}, {}, {});
}

class CoreRecord : public testing::Test {
 protected:
  CoreRecord() { thisDevice(); }
};

TEST(VersionComparison, OrdersRunsOfDigitsByTheirNumber) {
  // Each orders before the next; what stands behind a blank is equal.
  const std::vector<std::string> ascending = {
      // what stands before digits
      "", "-1", "/",
      // digits count by their number, of any length
      "0 000", "0a", "00b", "1 01", "1.0", "1.0.0", "1.2 1.002", "1.2a", "1.2b", "1.9", "1.10", "1.10a",
      "2.0", "10.0", "18446744073709551616", "18446744073709551617", "99999999999999999999999999999999999999",
      // what stands behind them
      ":", "A1", "A02", "A3", "a1", "a7b00 a007b0", "\xC3\xA9", "\xEF\xBF\xBD", "\xF0\x9F\x98\x80"};
  for (size_t i = 0; i < ascending.size(); ++i) {
    const std::string first = ascending[i].substr(0, ascending[i].find(' '));
    for (size_t j = 0; j < ascending.size(); ++j) {
      const std::string second = ascending[j].substr(ascending[j].find(' ') + 1);
      EXPECT_TRUE(compareVersionString(first, second) == (i <=> j)) << first << " and " << second;
      EXPECT_EQ(canonicalVersionString(first) == canonicalVersionString(second), i == j) << first << second;
    }
  }
}

TEST_F(CoreRecord, SetUpFailsForEachMissingPartWithItsMessage) {
  const Value info = Dictionary{{"ZQExtension", plugInSection()}};
  const auto setUp = [](const std::optional<String>& name, const Value& bundleInfo) {
    return logOf([&] { EXPECT_EQ(ABPlugInCore::initWithName(name, kURL, bundleInfo, {}, {}), nullptr); });
  };
  const std::string path = kURL.path();
  EXPECT_EQ(setUp({}, info), Log{"missing identifier in plug-in at " + path});
  EXPECT_EQ(setUp("a", {}), Log{"missing Info dictionary in plug-in a at " + path});
  const std::string malformed = "malformed plug-in dictionary in plug-in a at " + kURL.description() + ": ";
  EXPECT_EQ(setUp("a", Dictionary{{"ZQExtension", "x"}}), Log{malformed + "{ZQExtension = \"x\"}"});
  EXPECT_EQ(setUp("a", "text"), Log{malformed + "text"});
  for (const Value& multiple :
       {Value(Dictionary{{"b", Dictionary()}}), Value("x"), Value(Dictionary{{"a", 5}})})
    EXPECT_EQ(setUp("a", Dictionary{{"ZQExtension", Dictionary{{"Multiple", multiple}}}}).size(), 1u);
}

TEST_F(CoreRecord, AFormRestoresTheRecord) {
  auto record = recordOf(plugInSection());
  record->setOriginalIdentifier("org.notes.first");
  record->setContainingUrl(URL::file("/apps/Notes.app", true));
  record->setOnSystemVolume(true);
  record->setHubProtocolVersion(2);
  record->setLastModified(-5);
  record->setLocalizedName("Teilen");
  record->updateFromForm({{"annotations", Dictionary{{"election", 2}}}});
  const Dictionary form = record->exportForm();
  EXPECT_FALSE(form.contains("localizedShortName") || form.contains("hash"));
  const auto restored = ABPlugInCore::initWithForm(form);
  ASSERT_NE(restored, nullptr);
  EXPECT_TRUE(restored->isEqual(record.get()) && restored->hash() == record->hash());
  EXPECT_EQ(restored->exportForm(), form);
  EXPECT_EQ(restored->version(), Value("2"));

  const Dictionary least = {{"path", "/a.appex"}, {"identifier", "a"}, {"bundleInfo", form["bundleInfo"]}};
  const auto bare = ABPlugInCore::initWithForm(least);
  EXPECT_EQ(bare->hubProtocolVersion(), 1u);
  EXPECT_FALSE(bare->onSystemVolume() || bare->isEqual(ABPlugInCore::initWithForm(least).get()));
  for (const char* required : {"path", "identifier", "bundleInfo"})
    logOf([&] { EXPECT_EQ(ABPlugInCore::initWithForm(dictionaryChanging(least, required, {})), nullptr); });
}

class SDK : public testing::Test {
 protected:
  SDK() { thisDevice(); }
  ~SDK() override { unsetenv("ABTEST_SDK"); }

  /// A resolved record of an application extension (or, with another suffix, of any plug-in).
  static std::shared_ptr<ABPlugInCore> resolve(const Dictionary& section, const Dictionary& more = {},
                                               const char* path = "/a.appex") {
    Dictionary info = more;
    info.set("ZQExtension", section);
    auto record = ABPlugInCore::initWithName("a", URL::file(path), info, {}, {});
    if (record != nullptr) record->resolveSDK();
    return record;
  }
  static std::string diagnosis(const Dictionary& section, const char* path = "/a.appex") {
    const auto error = resolve(section, {}, path)->diagnose();
    if (!error) return "";
    EXPECT_EQ(error->code, 12);
    EXPECT_EQ(error->domain, "Ambrel");
    return *error->text;
  }
};

TEST_F(SDK, FillsInWhatThePlugInLacksLevelByLevel) {
  const auto level = [](const Dictionary& entries, const Value& below) {
    return ambrel::dictionaryChanging(entries, "section", below);
  };
  const Dictionary sdk = {{"new", 1}, {"both", 1}, {"CleanTimeout", 30}, {"shape", Dictionary{{"x", 1}}}};
  const Dictionary info = {{"own", 2}, {"both", 2}, {"CleanTimeout", 5}, {"shape", "text"}};
  const Dictionary merged = {{"new", 1}, {"own", 2}, {"both", 2}, {"CleanTimeout", 30}, {"shape", "text"}};
  EXPECT_EQ(ABPlugInCore::mergeDictionary(level(sdk, level(sdk, sdk)), level(info, level(info, info))),
            level(merged, level(merged, merged)));
}

TEST_F(SDK, UnitesSharedResourcesOfAnyShapeAndNoOtherLists) {
  const auto unite = [](const Value& sdk, const Value& info) {
    return ABPlugInCore::mergeDictionary({{"Shared", sdk}, {"list", sdk}},
                                         {{"Shared", info}, {"list", info}});
  };
  for (const auto& [sdk, info, united] :
       {std::tuple<Value, Value, Value>("a", "b", Array{"b", "a"}),
        {"a", Array{"a"}, Array{"a"}},
        {Array{1, 1.0, true, 2, Array{1}}, Array{"1", Array{1}}, Array{"1", Array{1}, 1, 2}},
        {Dictionary(), Array{"b"}, Array{"b"}},
        {Array{"a", "b"}, Array{"b", "c", "c"}, Array{"b", "c", "a"}},
        {Array{"a"}, 5, 5}})
    EXPECT_EQ(unite(sdk, info), (Dictionary{{"Shared", united}, {"list", info}}));
}

TEST_F(SDK, ATestDirectoryComesBeforeTheRegisteredSDKsAndTheUsersBeforeTheSystems) {
  const auto put = [](const std::string& file, const char* from) {
    writePropertyList(thisDevice().path() + file, Dictionary{{"ZQExtension", Dictionary{{"From", from}}}});
  };
  put("/data/veltra/SDKs/point.plist", "user");
  put("/share/veltra/SDKs/point.plist", "system");
  put("/sdks/point", "test");
  setenv("ABTEST_SDK", (thisDevice().path() + "/sdks").c_str(), 1);
  const auto from = [](const char* name) {
    return resolve({{"ZQExtensionPointIdentifier", name}})->plugInDictionary()["From"];
  };
  EXPECT_EQ(from("point"), Value("test"));
  writePropertyList(thisDevice().path() + "/sdks/point", Array{1});
  EXPECT_EQ(from("point"), Value("user"));
  writeText(thisDevice().dataUser() + "/SDKs/point.plist", "damaged");
  EXPECT_EQ(from("point"), Value("system"));
  for (const char* name : {"", "..", "../sdks/point"})
    logOf([&] { EXPECT_TRUE(from(name).isNone()) << name; });
}

TEST_F(SDK, AnUnknownSDKIsLoggedAndABadNameLeavesTheRecordAsItWas) {
  const auto log = logOf([] {
    EXPECT_EQ(resolve({{"ZQExtensionPointIdentifier", "no.such"}})->version(), Value("1"));
    const auto record = resolve({{"ZQExtensionPointIdentifier", Array{1}}});
    EXPECT_TRUE(record->attributes().isNone());
    EXPECT_FALSE(record->exportForm().contains("version"));
  });
  EXPECT_EQ(log, (std::vector<std::string>{"plug-in sdk \"no.such\" not registered", "invalid SDK key:(1)"}));
}

TEST_F(SDK, MergesIntoTheSectionOfAMultiplexedBundleNotIntoItsPlugIns) {
  writePropertyList(thisDevice().dataUser() + "/SDKs/point.multiple.plist",
                    Dictionary{{"ZQExtension", Dictionary{{"Extra", 1}}}});
  const auto record =
      resolve({{"Multiple",
                Dictionary{{"a", Dictionary{{"ZQExtensionPointIdentifier", "point.multiple"}}}, {"b", 1}}}});
  EXPECT_EQ(record->topDictionary()["Extra"], Value(1));
  EXPECT_TRUE(record->plugInDictionary()["Extra"].isNone());
  EXPECT_EQ(record->topDictionary()["Multiple"]["b"], Value(1));
  EXPECT_EQ(record->topDictionary()["Multiple"]["a"], record->plugInDictionary());
}

TEST_F(SDK, CanonicalizationFillsInDefaultsVersionAndFormat) {
  const auto record = resolve({{"Shared", Array{"a", "b"}}});
  EXPECT_EQ(record->protocolSpec(), Value("ZQObject"));
  EXPECT_EQ(record->plugInDictionary()["PrincipalClass"], Value("ZQObject"));
  EXPECT_EQ(record->plugInDictionary()["Shared"], Value(Array{"."}));
  EXPECT_EQ(record->bundleInfoDictionary()["ZQExtension"], record->plugInDictionary());
  const auto other = resolve({{"Shared", "a"}}, {}, "/a.plugin");
  EXPECT_TRUE(other->protocolSpec().isNone());
  EXPECT_EQ(other->plugInDictionary()["Shared"], Value("a"));

  const auto attributes = [](const Dictionary& own, const Dictionary& info, const Dictionary& section) {
    return resolve(dictionaryChanging(section, "ZQExtensionAttributes", own), info)->attributes();
  };
  const Dictionary brief = {{"BWBundleShortVersionString", "3"}};
  EXPECT_EQ(attributes({{"ZQExtensionVersion", "7"}, {"com.veltra.format", "forged"}}, brief, {}),
            Value(Dictionary{{"ZQExtensionVersion", "7"}, {"com.veltra.format", "standard"}}));
  EXPECT_EQ(attributes({}, brief, {{"EmbeddedCode", 0}}),
            Value(Dictionary{{"ZQExtensionVersion", "3"}, {"com.veltra.format", "hybrid"}}));
  EXPECT_EQ(attributes({}, {}, {})["ZQExtensionVersion"], Value("1"));
}

TEST_F(SDK, DiagnosisNamesTheFirstFault) {
  EXPECT_EQ(diagnosis({}), "");
  EXPECT_EQ(diagnosis({{"ZQExtensionProtocol", "P"}}, "/a.plugin"), "");
  EXPECT_EQ(diagnosis({}, "/a.plugin"), "missing \"ZQExtensionProtocol\" key in Info.plist or SDK");
  EXPECT_EQ(diagnosis({{"ZQExtensionAttributes", "x"}}),
            "missing \"ZQExtensionAttributes\" key in Info.plist or SDK");
  EXPECT_EQ(diagnosis({{"PrincipalClass", "Own"}, {"PassProxy", true}}),
            "Application Extensions may not use the \"PrincipalClass\" key");
  EXPECT_EQ(diagnosis({{"PassProxy", false}, {"EmbeddedCode", 1}}),
            "the \"PassProxy\" key is not supported on this platform");
  EXPECT_EQ(diagnosis({{"EmbeddedCode", 1}}), "hybrid plug-ins are not supported on this platform");
  EXPECT_EQ(*ABPlugInCore().diagnose()->text,
            "missing identifier (no ZQExtensionIdentifier, nor even BWBundleIdentifier)");
}

}  // namespace
