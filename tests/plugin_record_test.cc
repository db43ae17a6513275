// The daemon's record: building from the registry, names, entitlements, forms, what the user and the device
// allow, and the preparation of launches.

#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdlib>
#include <filesystem>

#include "platform/launcher/ProcessAssertions.h"
#include "platform/launcher/ServiceLauncher.h"
#include "platform/qmx/Encoding.h"
#include "platform/security/Sandbox.h"
#include "tests/support/ThisServer.h"

namespace {

using namespace abd;
using testsupport::logOf;
using testsupport::PlugInBundle;
using testsupport::registerBundle;
using testsupport::registeredRecord;
using testsupport::thisDevice;
using testsupport::thisServer;
using testsupport::writePropertyList;

namespace fs = std::filesystem;

using Log = std::vector<std::string>;
using Record = std::shared_ptr<ABDPlugIn>;

bool contains(const Log& log, std::string_view entry) {
  return std::find(log.begin(), log.end(), entry) != log.end();
}

class PlugInRecord : public testing::Test {
 protected:
  void SetUp() override { thisServer(); }
};

TEST_F(PlugInRecord, DropsTheEntriesOfBuildTools) {
  const Dictionary info = {
      {"DT", 1}, {"DTPlatform", "x"}, {"BWBundleIdentifier", "a"}, {"aDT", 1}, {"dtX", 1}};
  EXPECT_EQ(ABDPlugIn::prunedInfoDictionaryFor(info),
            (Dictionary{{"BWBundleIdentifier", "a"}, {"aDT", 1}, {"dtX", 1}}));
  const Dictionary clean = {{"BWBundleIdentifier", "a"}};
  EXPECT_TRUE(ABDPlugIn::prunedInfoDictionaryFor(clean).isSameObject(clean));
  EXPECT_EQ(ABDPlugIn::prunedInfoDictionaryFor(std::nullopt), Dictionary());
}

TEST_F(PlugInRecord, TakesTheHubVersionFromTheSectionOrTheStyle) {
  const auto version = [](const char* name, const Dictionary& section, const Dictionary& info) {
    return registeredRecord({.identifier = name, .plugIn = section, .info = info})->hubProtocolVersion();
  };
  EXPECT_EQ(version("hub.given", {{"HubProtocolVersion", 5}}, {{"Ambrel", true}}), 5u);
  EXPECT_EQ(version("hub.old", {}, {{"Ambrel", false}}), 1u);
  EXPECT_EQ(version("hub.new", {}, {}), 2u);
}

TEST_F(PlugInRecord, DescribesWhereItLiesAndWhenItCame) {
  const Record record = testsupport::installedRecord("container/Placed.app", {.identifier = "placed"});
  EXPECT_EQ(record->containingPath(), thisDevice().dataUser() + "/Applications/container/Placed.app");
  EXPECT_EQ(record->path(), *record->containingPath() + "/PlugIns/placed.appex");
  EXPECT_EQ(record->originalIdentifier(), String("placed"));
  EXPECT_FALSE(record->onSystemVolume());
  EXPECT_NEAR(static_cast<double>(record->lastModified()), Date::now().secondsSince1970, 60);
  EXPECT_EQ(registeredRecord({.identifier = "alone"})->containingUrl(), std::nullopt);
}

TEST_F(PlugInRecord, AMisconfiguredPlugInIsReportedAndHasNoRecord) {
  const auto report = [](const PlugInBundle& bundle) {
    const std::string path = registerBundle(bundle);
    const Log log = logOf([&path] { EXPECT_EQ(thisServer().findPlugInAtPath(URL::file(path)), nullptr); });
    const std::string prefix = "ignoring mis-configured plug-in at " + path + ": ";
    return log.size() == 1 && log[0].starts_with(prefix) ? log[0].substr(prefix.size()) : "";
  };
  EXPECT_EQ(report({.identifier = "bad.hybrid", .plugIn = {{"EmbeddedCode", 1}}}),
            "hybrid plug-ins are not supported on this platform");
  EXPECT_EQ(report({.identifier = "bad.proxy", .plugIn = {{"PassProxy", 1}}}),
            "the \"PassProxy\" key is not supported on this platform");
  // An identifier that cannot be a directory's name: only data plug-ins live without a data container.
  const Log log = logOf([] {
    const std::string path = thisDevice().path() + "/bundles/nocontainer.appex";
    registerBundle({.identifier = "no/container"}, path);
    EXPECT_EQ(thisServer().findPlugInAtPath(URL::file(path)), nullptr);
    const std::string data = thisDevice().path() + "/bundles/data.appex";
    registerBundle({.identifier = "data/plugin", .plugIn = {{"ZQExtensionProtocol", "#Data"}}}, data);
    EXPECT_NE(thisServer().findPlugInAtPath(URL::file(data)), nullptr);
  });
  EXPECT_TRUE(contains(log, "ignoring mis-configured plug-in at " + thisDevice().path() +
                                "/bundles/nocontainer.appex: this plug-in has no sandbox data container"));
}

TEST_F(PlugInRecord, EntitlementsCountUnlessTheyAreFalse) {
  const Record record = registeredRecord(
      {.identifier = "entitled",
       .entitlements = {{"true", true}, {"text", "no"}, {"two", 2}, {"false", false}, {"zero", 0}}});
  for (const char* held : {"true", "text", "two"}) EXPECT_TRUE(record->hasEntitlement(held)) << held;
  for (const char* lacking : {"false", "zero", "missing"})
    EXPECT_FALSE(record->hasEntitlement(lacking)) << lacking;
}

TEST_F(PlugInRecord, AnnotatesThePlugInThatItReplaces) {
  const auto key = [](const char* name, const Value& replaced) {
    return std::string(registeredRecord({.identifier = name,
                                         .entitlements = {{"com.veltra.developer.replace-plugin", replaced}}})
                           ->annotationKey()
                           .view());
  };
  EXPECT_EQ(key("replacer.text", "original"), "original");
  EXPECT_EQ(key("replacer.list", Array{"original"}), "replacer.list");
}

TEST_F(PlugInRecord, NamesAreReadOnceWhenTheyAreThere) {
  const Record record = testsupport::installedRecord(
      "Named.app",
      {.identifier = "named", .info = {{"BWBundleDisplayName", "Display"}, {"BWBundleName", "Short"}}});
  EXPECT_EQ(record->localizedContainingName(), String("Named"));
  EXPECT_EQ(record->localizedName(), String("Display"));
  EXPECT_EQ(record->localizedShortName(), String("Short"));
  writePropertyList(
      record->path() + "/Info.plist",
      testsupport::infoDictionary({.identifier = "named", .info = {{"BWBundleName", "Changed"}}}));
  EXPECT_EQ(record->localizedName(), String("Display"));
  EXPECT_EQ(record->localizedShortName(), String("Short"));
}

// --- Forms ---

Value encodedForms(const std::vector<PlugInForm>& forms) {
  qmx::EncodedListBuilder builder;
  builder.beginArray(forms.size());
  for (const PlugInForm& form : forms) form.encodeInto(builder);
  return qmx::decodePropertyList(builder.finish()).value_or(Value());
}

TEST_F(PlugInRecord, ItsRequestFormSaysWhatItsWholeFormSays) {
  const Record record = testsupport::installedRecord("Formed.app", {.identifier = "formed"});
  PlugInForm form = record->requestForm();
  for (const auto& [key, value] : record->exportForm()) EXPECT_EQ(form[key], value) << key.view();
  EXPECT_TRUE(form["overrider"].isNone());

  Dictionary expected = record->exportForm();
  EXPECT_EQ(encodedForms({form, form}), Value(Array{expected, expected}));
  form.set("annotations", Dictionary{{"election", 1}});
  form.set("overrider", "uuid");
  EXPECT_EQ(form["annotations"]["election"], Value(1));
  expected.set("annotations", Dictionary{{"election", 1}});
  expected.set("overrider", "uuid");
  EXPECT_EQ(encodedForms({form}), Value(Array{expected}));
  EXPECT_EQ(record->requestForm()["overrider"], Value());
  EXPECT_EQ(record->requestForm()["annotations"], Value(Dictionary()));
}

TEST_F(PlugInRecord, ANameThatAppearsLaterIsInTheNextForm) {
  PlugInBundle bundle = {.identifier = "late", .info = {{"BWBundleName", 5}}};
  const Record record = registeredRecord(bundle);
  EXPECT_TRUE(record->requestForm()["localizedDisplayName"].isNone());
  EXPECT_FALSE(record->exportForm().contains("localizedDisplayName"));
  bundle.info = {{"BWBundleName", "Late"}};
  writePropertyList(record->path() + "/Info.plist", testsupport::infoDictionary(bundle));
  const PlugInForm form = record->requestForm();
  EXPECT_EQ(form["localizedDisplayName"], Value("Late"));
  EXPECT_EQ(encodedForms({form}), Value(Array{record->exportForm()}));
  EXPECT_EQ(record->exportForm()["localizedShortName"], Value("Late"));
}

// --- What the user and the device allow ---

TEST_F(PlugInRecord, AgeRatingsLimitByRank) {
  const auto rated = [](const std::string& name, const Value& metadata) {
    const std::string container = thisDevice().dataUser() + "/Applications/" + name;
    writePropertyList(container + "/ZintraMetadata.plist", metadata);
    return testsupport::installedRecord(name + "/Rated.app", {.identifier = "rated." + name});
  };
  const Record adult = rated("adult", Dictionary{{"rating", Dictionary{{"rank", 300}}}});
  const Record limit = rated("limit", Dictionary{{"rating", Dictionary{{"rank", 200}}}});
  const Record odd = rated("odd", Dictionary{{"rating", Array{"rank"}}});
  const Record text = rated("text", Dictionary{{"rating", Dictionary{{"rank", "300"}}}});
  const Record lonely = registeredRecord({.identifier = "rated.lonely"});

  EXPECT_FALSE(adult->ageRestricted());
  const std::string restrictions = thisDevice().configUser() + "/Restrictions.plist";
  writePropertyList(restrictions, Dictionary{{"maximumAppsRating", 200}});
  EXPECT_TRUE(adult->ageRestricted());
  for (const Record& allowed : {limit, odd, text, lonely}) EXPECT_FALSE(allowed->ageRestricted());
  EXPECT_EQ(odd->containerAgeRestriction(), -1);
  EXPECT_EQ(text->containerAgeRestriction(), -1);
  EXPECT_EQ(lonely->containerAgeRestriction(), -1);

  writePropertyList(thisDevice().dataUser() + "/Applications/adult/ZintraMetadata.plist", Dictionary());
  EXPECT_EQ(adult->containerAgeRestriction(), 300);  // read once
  fs::remove(restrictions);
  EXPECT_FALSE(adult->ageRestricted());
}

TEST_F(PlugInRecord, ConsentIsReadAnewOnEveryCall) {
  const Record record = testsupport::installedRecord("Consented.app", {.identifier = "consented"});
  const std::string file = thisDevice().configUser() + "/Consent.plist";
  EXPECT_TRUE(record->allowedQSVServices().empty());
  writePropertyList(file, Dictionary{{"app.Consented", Dictionary{{"a", true}, {"b", false}, {"c", true}}}});
  EXPECT_EQ(record->allowedQSVServices(), (std::set<std::string>{"a", "c"}));
  EXPECT_TRUE(registeredRecord({.identifier = "consent.lonely"})->allowedQSVServices().empty());
  testsupport::writeText(file, "no property list");
  const Log unreadable = logOf([&] { EXPECT_TRUE(record->allowedQSVServices().empty()); });
  ASSERT_FALSE(unreadable.empty());
  EXPECT_TRUE(unreadable.back().starts_with("QSVAccessCopyInformationForBundle failed for "));
  fs::remove(file);

  const Record gone = testsupport::installedRecord("Vanished.app", {.identifier = "vanished"});
  fs::remove_all(*gone->containingPath());
  const Log vanished = logOf([&] { EXPECT_TRUE(gone->allowedQSVServices().empty()); });
  EXPECT_TRUE(contains(vanished, "failed to create bundle for " + gone->path()));
}

// --- Launch ---

TEST_F(PlugInRecord, SharesWhatItSaysWithTokens) {
  const std::string path = thisDevice().path() + "/bundles/sharing.plugin";
  testsupport::writeText(path + "/images/a.png", "a");
  registerBundle({.identifier = "sharing",
                  .plugIn = {{"ZQExtensionProtocol", "P"},
                             {"Shared", Array{"images/a.png", 5, ".", "../sharing.secret"}}}},
                 path);
  testsupport::writeText(thisDevice().path() + "/bundles/sharing.secret", "s");
  const Record record = thisServer().findPlugInAtPath(URL::file(path));
  PlugInForm form = record->requestForm();
  const Log log = logOf([&] { record->augmentForm(form); });
  const Dictionary tokens = *form["extensions"].dictionary();
  EXPECT_EQ(tokens.size(), 2u);
  EXPECT_EQ(verifyReadToken(std::string(*tokens["."].string())), path);
  EXPECT_EQ(verifyReadToken(std::string(*tokens["images/a.png"].string())), path + "/images/a.png");
  ASSERT_EQ(log.size(), 1u);
  EXPECT_TRUE(log[0].starts_with("failed to make extension for " + path +
                                 "/../sharing.secret in plug-in at " + path + ": "));

  EXPECT_EQ(record->issueResourceExtensions("images").size(), 1u);
  EXPECT_EQ(record->issueResourceExtensions(7).size(), 0u);
  EXPECT_NE(record->issueResourceExtensions("."), record->issueResourceExtensions("."));

  registerBundle({.identifier = "private", .plugIn = {{"ZQExtensionProtocol", "P"}}},
                 thisDevice().path() + "/bundles/private.plugin");
  const Record closed =
      thisServer().findPlugInAtPath(URL::file(thisDevice().path() + "/bundles/private.plugin"));
  PlugInForm closedForm = closed->requestForm();
  closed->augmentForm(closedForm);
  EXPECT_TRUE(closedForm["extensions"].isNone());
}

Dictionary registration(const Record& record) {
  EXPECT_EQ(record->enableForPid(getpid()), std::nullopt);
  return externalService(getpid(), record->uuid()).value_or(Dictionary());
}

TEST_F(PlugInRecord, RegistersWithItsEnvironmentAndItsOwnDescription) {
  const Record record = registeredRecord(
      {.identifier = "launched",
       .info = {
           {"QMXService", Dictionary{{"EnvironmentVariables", Dictionary{{"HOME", "/own"}, {"EXTRA", "1"}}},
                                     {"_SandboxProfile", "forged"},
                                     {"_OmitSandboxParameters", false},
                                     {"ServiceType", "Application"}}}}});
  setenv("ABTEST_SDK", "/sdks", 1);
  Dictionary service;
  const Log log = logOf([&] { service = registration(record); });
  unsetenv("ABTEST_SDK");
  const std::string container = thisDevice().dataUser() + "/Containers/launched";
  EXPECT_EQ(service["LaunchDescription"],
            Value(Dictionary{{"BWBundlePackageType", "QMX!"},
                             {"QMXService",
                              Dictionary{{"EnvironmentVariables", Dictionary{{"HOME", "/own"},
                                                                             {"EXTRA", "1"},
                                                                             {"BWFIXED_USER_HOME", container},
                                                                             {"TMPDIR", container + "/tmp"},
                                                                             {"ABTEST_SDK", "/sdks"}}},
                                         {"_SandboxProfile", "plugin"},
                                         {"_OmitSandboxParameters", true},
                                         {"ServiceType", "Application"}}}}));
  EXPECT_EQ(service["PlugInIdentifier"], Value("launched"));
  EXPECT_EQ(service["BundleIdentifier"], Value("launched"));
  EXPECT_EQ(service["BundleVersion"], Value("100"));
  EXPECT_EQ(service["ExecutablePath"], Value(record->path() + "/run"));
  EXPECT_EQ(log, (Log{"assigning plug-in launched(1.0) to plugin sandbox",
                      "enabling pid=" + std::to_string(getpid()) + " for plug-in launched(1.0) " +
                          record->uuid().string() + " " + record->path()}));
}

TEST_F(PlugInRecord, ItsExtensionPointAndTheUserChooseItsSandbox) {
  const auto profile = [](const Record& record) {
    std::string chosen;
    logOf([&] {
      chosen =
          registration(record)["LaunchDescription"]["QMXService"]["_SandboxProfile"].string().value_or("");
    });
    return chosen;
  };
  const auto keyboard = [](const std::string& name, const Value& open) {
    PlugInBundle bundle = {.identifier = "keyboard." + name,
                           .plugIn = {{"ZQExtensionPointIdentifier", "com.veltra.keyboard-service"}}};
    bundle.attributes.set("RequestsOpenAccess", open);
    Record record;
    logOf([&] { record = testsupport::installedRecord(name + ".app", bundle); });
    return record;
  };
  const Record open = keyboard("Open", true);
  const Record closed = keyboard("Closed", {});
  const Record text = keyboard("Text", "YES");
  EXPECT_EQ(profile(open), "keyboard");
  const std::string consent = thisDevice().configUser() + "/Consent.plist";
  const Dictionary granted = {{"kQSVServiceKeyboardNetwork", true}};
  writePropertyList(consent,
                    Dictionary{{"app.Open", granted}, {"app.Closed", granted}, {"app.Text", granted}});
  EXPECT_EQ(profile(open), "plugin");
  EXPECT_EQ(profile(closed), "keyboard");
  EXPECT_EQ(profile(text), "keyboard");
  fs::remove(consent);

  Record filter;
  logOf([&] {
    filter = registeredRecord({.identifier = "filter",
                               .plugIn = {{"ZQExtensionPointIdentifier", "com.veltra.fennix.filter-data"}}});
  });
  EXPECT_EQ(profile(filter), "network-filter");
}

TEST_F(PlugInRecord, ARefusedLaunchSaysWhoAndWhy) {
  const Record record = registeredRecord({.identifier = "refused"});
  const std::string name = "refused(" + record->uuid().string() + ")";
  const auto refuse = [&](pid_t pid, int number) {
    const Log log = logOf([&] {
      EXPECT_EQ(record->enableForPid(pid),
                ABError(4, "unable to enable plug-in " + name + " for pid " + std::to_string(pid)));
    });
    EXPECT_TRUE(contains(log, "qmx error " + std::to_string(number) + " allowing pid " + std::to_string(pid) +
                                  " to use plug-in refused(1.0) " + record->uuid().string() + " at " +
                                  record->path()));
  };
  refuse(999999999, ESRCH);
  fs::permissions(record->path() + "/run", fs::perms::owner_read);
  refuse(getpid(), EACCES);
  fs::remove(record->path() + "/run");
  refuse(getpid(), ENOENT);
  fs::remove_all(record->path());
  logOf([&] {
    EXPECT_EQ(record->enableForPid(getpid()),
              ABError(4, "cannot obtain executable path for plug-in " + name));
  });
}

TEST_F(PlugInRecord, ADataPlugInIsEnabledWithoutAHome) {
  const Record record =
      registeredRecord({.identifier = "homeless", .plugIn = {{"ZQExtensionProtocol", "#Data"}}});
  Dictionary service;
  const Log log = logOf([&] { service = registration(record); });
  EXPECT_EQ(service["LaunchDescription"]["QMXService"]["EnvironmentVariables"], Value(Dictionary()));
  EXPECT_TRUE(contains(log, "no data container for plug-in homeless(1.0) " + record->uuid().string() +
                                " at " + record->path()));
}

TEST_F(PlugInRecord, IsBusyWhileAnInstanceHoldsItsAssertion) {
  const Record record = registeredRecord({.identifier = "working"});
  EXPECT_EQ(record->checkBusy(), std::nullopt);
  auto assertion = BusyAssertion::take("working");
  ASSERT_NE(assertion, nullptr);
  EXPECT_EQ(record->checkBusy(), (Dictionary{{kLauncherBundleIdentifierKey, "working"}}));
  assertion = nullptr;
  EXPECT_EQ(record->checkBusy(), std::nullopt);
}

}  // namespace
