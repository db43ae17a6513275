// Resolution against extension-point SDKs, canonicalization, diagnosis.

#include <cstdlib>
#include <filesystem>

#include "Ambrel/ABCollections.h"
#include "Ambrel/ABPlugInCore.h"
#include "tests/support/ThisProcess.h"

namespace {

using namespace ambrel;
using testsupport::logOf;
using testsupport::thisDevice;
using testsupport::writePropertyList, testsupport::writeText;

class SDK : public testing::Test {
 protected:
  SDK() { thisDevice(); }
  ~SDK() override { unsetenv("ABTEST_SDK"); }

  static void registerSDK(const std::string& name, const Dictionary& section) {
    writePropertyList(thisDevice().dataUser() + "/SDKs/" + name + ".plist",
                      Dictionary{{"ZQExtension", section}});
  }
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
  const Dictionary sdk = {{"new", 1}, {"both", 1}, {"CleanTimeout", 30}};
  const Dictionary info = {{"own", 2}, {"both", 2}, {"CleanTimeout", 5}};
  const Dictionary merged = {{"new", 1}, {"own", 2}, {"both", 2}, {"CleanTimeout", 30}};
  EXPECT_EQ(ABPlugInCore::mergeDictionary(level(sdk, level(sdk, sdk)), level(info, level(info, info))),
            level(merged, level(merged, merged)));
  EXPECT_EQ(ABPlugInCore::mergeDictionary(
                {{"shape", Dictionary{{"x", 1}}}, {"list", Array{1}}, {"Shared", Array{"a", "b"}}},
                {{"shape", "text"}, {"list", Array{2}}, {"Shared", Array{"b", "c", "c"}}}),
            (Dictionary{{"shape", "text"}, {"list", Array{2}}, {"Shared", Array{"b", "c", "a"}}}));
}

TEST_F(SDK, UnitesSharedResourcesOfAnyShape) {
  const auto unite = [](const Value& sdk, const Value& info) {
    return ABPlugInCore::mergeSharedResources(sdk, info);
  };
  EXPECT_EQ(unite("a", "b"), Value(Array{"b", "a"}));
  EXPECT_EQ(unite("a", Array{"a"}), Value(Array{"a"}));
  EXPECT_EQ(unite(Array{1, 1.0, true, 2, Array{1}}, Array{"1", Array{1}}), Value(Array{"1", Array{1}, 1, 2}));
  EXPECT_EQ(unite(Dictionary(), Array{"b"}), Value(Array{"b"}));
  EXPECT_EQ(unite(Array{"a"}, 5), Value(5));
}

TEST_F(SDK, ATestDirectoryComesBeforeTheRegisteredSDKs) {
  registerSDK("point.both", {{"From", "registry"}});
  writePropertyList(thisDevice().dataSystem() + "/SDKs/point.one.plist",
                    Dictionary{{"ZQExtension", Dictionary{{"From", "system"}}}});
  registerSDK("point.one", {{"From", "registry"}});
  const std::string directory = thisDevice().path() + "/sdks";
  writePropertyList(directory + "/point.both", Dictionary{{"ZQExtension", Dictionary{{"From", "test"}}}});
  writePropertyList(directory + "/point.array", Array{1});
  registerSDK("point.array", {{"From", "registry"}});
  setenv("ABTEST_SDK", directory.c_str(), 1);
  const auto from = [](const char* name) {
    return resolve({{"ZQExtensionPointIdentifier", name}})->plugInDictionary()["From"];
  };
  EXPECT_EQ(from("point.both"), Value("test"));
  EXPECT_EQ(from("point.one"), Value("registry")) << "the user's comes before the system's";
  writeText(thisDevice().dataUser() + "/SDKs/point.one.plist", "damaged");
  EXPECT_EQ(from("point.one"), Value("system"));
  EXPECT_EQ(from("point.array"), Value("registry"));
  for (const char* name : {"", "..", "../sdks/point.both"})
    logOf([&] { EXPECT_TRUE(from(name).isNone()) << name; });
}

TEST_F(SDK, AnUnknownSDKIsLoggedAndABadNameLeavesTheRecordAsItWas) {
  const auto unknown = logOf([] {
    EXPECT_EQ(resolve({{"ZQExtensionPointIdentifier", "no.such"}})->version(), Value("1"));
  });
  EXPECT_EQ(unknown, std::vector<std::string>{"plug-in sdk \"no.such\" not registered"});

  const auto invalid = logOf([] {
    const auto record = resolve({{"ZQExtensionPointIdentifier", Array{1}}});
    EXPECT_TRUE(record->attributes().isNone());
    EXPECT_TRUE(record->version().isNone());
    EXPECT_FALSE(record->exportForm().contains("version"));
  });
  EXPECT_EQ(invalid, std::vector<std::string>{"invalid SDK key:(1)"});
}

TEST_F(SDK, MergedAttributesKeepThePlugInsValues) {
  registerSDK("point.attributes", {{"ZQExtensionAttributes", Dictionary{{"a", "sdk"}, {"b", "sdk"}}},
                                   {"ZQExtensionProtocol", "FromSDK"},
                                   {"CleanTimeout", 30}});
  const auto record = resolve({{"ZQExtensionPointIdentifier", "point.attributes"},
                               {"ZQExtensionAttributes", Dictionary{{"b", "own"}}},
                               {"ZQExtensionProtocol", "Own"},
                               {"CleanTimeout", 5}});
  EXPECT_EQ(record->attributes(),
            Value(Dictionary{
                {"a", "sdk"}, {"b", "own"}, {"com.veltra.format", "standard"}, {"ZQExtensionVersion", "1"}}));
  EXPECT_EQ(record->protocolSpec(), Value("Own"));
  EXPECT_EQ(record->plugInDictionary()["CleanTimeout"], Value(30));
  EXPECT_EQ(record->bundleInfoDictionary()["ZQExtension"], record->plugInDictionary());
}

TEST_F(SDK, MergesIntoTheSectionOfAMultiplexedBundleNotIntoItsPlugIns) {
  registerSDK("point.multiple", {{"Extra", 1}});
  const auto record =
      resolve({{"Multiple",
                Dictionary{{"a", Dictionary{{"ZQExtensionPointIdentifier", "point.multiple"}}}, {"b", 1}}}});
  EXPECT_EQ(record->topDictionary()["Extra"], Value(1));
  EXPECT_TRUE(record->plugInDictionary()["Extra"].isNone());
  EXPECT_EQ(record->topDictionary()["Multiple"]["b"], Value(1));
  EXPECT_EQ(record->topDictionary()["Multiple"]["a"], record->plugInDictionary());
}

TEST_F(SDK, CanonicalizationGivesApplicationExtensionsTheirDefaults) {
  const auto record = resolve({{"Shared", Array{"a", "b"}}});
  EXPECT_EQ(record->protocolSpec(), Value("ZQObject"));
  EXPECT_EQ(record->plugInDictionary()["PrincipalClass"], Value("ZQObject"));
  EXPECT_EQ(record->plugInDictionary()["Shared"], Value(Array{"."}));
  EXPECT_EQ(record->diagnose(), std::nullopt);

  const auto other = resolve({{"Shared", "a"}}, {}, "/a.plugin");
  EXPECT_TRUE(other->protocolSpec().isNone());
  EXPECT_EQ(other->plugInDictionary()["Shared"], Value("a"));
}

TEST_F(SDK, CanonicalizationRecordsVersionAndFormat) {
  const auto version = [](const Dictionary& attributes, const Dictionary& info) {
    return resolve({{"ZQExtensionAttributes", attributes}}, info)->version();
  };
  EXPECT_EQ(version({{"ZQExtensionVersion", "7"}}, {{"BWBundleShortVersionString", "3"}}), Value("7"));
  EXPECT_EQ(version({}, {{"BWBundleShortVersionString", "3"}}), Value("3"));
  EXPECT_EQ(version({}, {}), Value("1"));
  const Dictionary forged = {{"com.veltra.format", "forged"}};
  EXPECT_EQ(resolve({{"ZQExtensionAttributes", forged}})->attributes()["com.veltra.format"],
            Value("standard"));
  EXPECT_EQ(resolve({{"EmbeddedCode", 0}})->attributes()["com.veltra.format"], Value("hybrid"));
}

TEST_F(SDK, DiagnosisNamesTheFirstFault) {
  EXPECT_EQ(diagnosis({{"ZQExtensionProtocol", "P"}}, "/a.plugin"), "");
  EXPECT_EQ(diagnosis({}, "/a.plugin"), "missing \"ZQExtensionProtocol\" key in Info.plist or SDK");
  for (const Value& attributes : {Value(Array{1}), Value("x")})
    EXPECT_EQ(diagnosis({{"ZQExtensionAttributes", attributes}}),
              "missing \"ZQExtensionAttributes\" key in Info.plist or SDK");
  EXPECT_EQ(diagnosis({{"PrincipalClass", "Own"}, {"PassProxy", true}}),
            "Application Extensions may not use the \"PrincipalClass\" key");
  EXPECT_EQ(diagnosis({{"PassProxy", false}, {"EmbeddedCode", 1}}),
            "the \"PassProxy\" key is not supported on this platform");
  EXPECT_EQ(diagnosis({{"EmbeddedCode", 1}}), "hybrid plug-ins are not supported on this platform");

  EXPECT_EQ(*ABPlugInCore().diagnose()->text,
            "missing identifier (no ZQExtensionIdentifier, nor even BWBundleIdentifier)");
  logOf([] {  // an SDK name of a wrong type leaves the record without attributes
    EXPECT_EQ(diagnosis({{"ZQExtensionPointIdentifier", 1}, {"ZQExtensionProtocol", "P"}}),
              "missing \"ZQExtensionAttributes\" key in Info.plist or SDK");
  });
}

}  // namespace
