// The daemon's record: building from the registry, forms, and what it shares.

#include <fcntl.h>

#include "abd/RequestSettings.h"
#include "platform/security/Sandbox.h"
#include "tests/support/Daemon.h"
#include "tests/support/ThisServer.h"

namespace {

using namespace abd;
using namespace testsupport;

using Log = std::vector<std::string>;
using Record = std::shared_ptr<ABDPlugIn>;

class PlugInRecord : public testing::Test {
 protected:
  PlugInRecord() {
    thisDevice();
    thisServer();
  }
};

TEST_F(PlugInRecord, TakesTheHubVersionFromTheSectionOrTheStyle) {
  const auto version = [](const char* name, const Dictionary& section, const Dictionary& info) {
    return registeredRecord({.identifier = name, .plugIn = section, .info = info})->hubProtocolVersion();
  };
  EXPECT_EQ(version("hub.given", {{"HubProtocolVersion", 5}}, {{"Ambrel", true}}), 5u);
  EXPECT_EQ(version("hub.old", {}, {{"Ambrel", false}}), 1u);
  EXPECT_EQ(version("hub.new", {}, {}), 2u);
}

TEST_F(PlugInRecord, OneWhoseServiceNoRegistrationCanHoldIsReportedAndOffered) {
  const std::string path = registerBundle(
      {.identifier = "strange", .info = {{"QMXService", Dictionary{{"Names", Array{1, "text"}}}}}});
  std::string info = readText(path + "/Info.plist");
  writeText(path + "/Info.plist", info.replace(info.find("<string>text</string>"), 21, "<real>nan</real>"));
  const Log log = logOf([&] { EXPECT_NE(thisServer().findPlugInAtPath(URL::file(path)), nullptr); });
  EXPECT_EQ(entriesWith(log, "plug-in strange at " + path + " cannot be launched"), 1u);
  EXPECT_EQ(entriesWith(log, "its \"QMXService\" says at \"Names.1\""), 1u);
}

TEST_F(PlugInRecord, AMisconfiguredPlugInIsReportedAndHasNoRecord) {
  const std::string path = thisDevice().path() + "/bundles/bad.appex";
  for (const auto& [bundle, text] :
       {std::pair(PlugInBundle{.identifier = "bad.proxy", .plugIn = {{"PassProxy", 1}}},
                  "the \"PassProxy\" key is not supported on this platform"),
        // An identifier that cannot be a directory's name: only data plug-ins live without a data container.
        {PlugInBundle{.identifier = "no/container"}, "this plug-in has no sandbox data container"}}) {
    const Log log = logOf([&] { EXPECT_EQ(registeredRecord(bundle, path), nullptr); });
    EXPECT_EQ(entriesWith(log, "ignoring mis-configured plug-in at " + path + ": " + text), 1u);
  }
  EXPECT_NE(
      registeredRecord({.identifier = "data/plugin", .plugIn = {{"ZQExtensionProtocol", "#Data"}}}, path),
      nullptr);
}

TEST_F(PlugInRecord, SharesWhatItSaysWithTokens) {
  const std::string path = thisDevice().path() + "/bundles/sharing.plugin";
  writeText(path + "/images/a.png", "a");
  writeText(thisDevice().path() + "/bundles/sharing.secret", "s");
  const Record record =
      registeredRecord({.identifier = "sharing",
                        .plugIn = {{"ZQExtensionProtocol", "P"},
                                   {"Shared", Array{"images/a.png", 5, ".", "../sharing.secret"}}}},
                       path);
  PlugInForm form = record->requestForm();
  const Log log = logOf([&] { record->augmentForm(form); });
  EXPECT_EQ(form["extensions"].dictionary()->size(), 2u);
  EXPECT_EQ(entriesWith(log, "failed to make extension for " + path + "/../sharing.secret in plug-in at " +
                                 path + ": "),
            1u);
  // What was judged is judged again when another lies there, and a link in the bundle's place leads nowhere.
  const auto tokenOf = [&record](const char* name) {
    const Value token = record->issueResourceExtensions(name)[name];
    return token.isNone() ? std::nullopt : verifyReadToken(std::string(*token.string()));
  };
  EXPECT_EQ(tokenOf("images/a.png"), path + "/images/a.png");
  fs::rename(path + "/images/a.png", path + "/images/b.png");
  fs::create_symlink(path + "/images/b.png", path + "/images/a.png");
  EXPECT_EQ(tokenOf("images/a.png"), path + "/images/b.png");
  EXPECT_EQ(tokenOf("."), path);
  // Another bundle of the same files.
  fs::copy(path, path + ".new", fs::copy_options::recursive | fs::copy_options::create_hard_links);
  ASSERT_EQ(renameat2(AT_FDCWD, (path + ".new").c_str(), AT_FDCWD, path.c_str(), RENAME_EXCHANGE), 0);
  EXPECT_TRUE(eventually([&] { return tokenOf(".") == path; }));
  fs::rename(path, path + ".away");
  fs::create_directory_symlink(path + ".away", path);
  EXPECT_TRUE(eventually([&] { return !tokenOf("."); }));
  EXPECT_EQ(tokenOf("images/a.png"), std::nullopt);

  const Record closed = registeredRecord({.identifier = "private", .plugIn = {{"ZQExtensionProtocol", "P"}}},
                                         thisDevice().path() + "/bundles/private.plugin");
  PlugInForm closedForm = closed->requestForm();
  closed->augmentForm(closedForm);
  EXPECT_TRUE(closedForm["extensions"].isNone());
}

TEST_F(PlugInRecord, AnApplicationThatIsGoneIsReportedWhereItIsNeeded) {
  const Record vanished = installedRecord("Vanished.app", {.identifier = "vanished"});
  fs::remove_all(*vanished->containingPath());
  RequestSettings settings;
  const Log log = logOf([&] { EXPECT_TRUE(vanished->allowedQSVServices(settings).empty()); });
  EXPECT_EQ(entriesWith(log, "failed to create bundle for " + vanished->path()), 1u);
}

}  // namespace
