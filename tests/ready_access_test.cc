// "ready" and "access": checks, refusals and what is left for the service launcher.

#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <filesystem>

#include "platform/propertylist/PropertyList.h"
#include "tests/support/Daemon.h"

namespace testsupport {
namespace {

namespace fs = std::filesystem;

class Ready : public testing::Test {
 protected:
  void start(Daemon::Options options = {}) {
    daemon.emplace(root, std::move(options));
    client.emplace(daemon->connect());
  }
  Dictionary ready(const std::vector<UUID>& uuids) {
    return client->call(message("ready", {{"uuids", uuidArray(uuids)}, {"flags", 99}}));
  }
  std::string registrationPath(const UUID& plugIn) const {
    return root.runtime() + "/Launcher/" + std::to_string(getpid()) + "/" + plugIn.string() + ".plist";
  }
  Dictionary registration(const UUID& plugIn) const {
    return readDictionaryFile(registrationPath(plugIn)).value_or(Dictionary());
  }
  bool isRegistered(const UUID& plugIn) const { return fs::exists(registrationPath(plugIn)); }
  const Value& service(const Dictionary& registered) const {
    return registered["LaunchDescription"]["QMXService"];
  }

  const DeviceRoot root;
  std::optional<Daemon> daemon;
  std::optional<WireClient> client;
};

TEST_F(Ready, RegistersThePlugInForTheHostWithItsEnvironment) {
  const std::string application = root.install(
      "A.app", {{.identifier = "a",
                 .version = "4.2",
                 .info = {{"QMXService",
                           Dictionary{{"EnvironmentVariables", Dictionary{{"OWN", "1"}, {"TMPDIR", "/own"}}},
                                      {"_SandboxProfile", "none"},
                                      {"Niceness", 5}}}}}});
  start({.environment = {"ABTEST_SDK=" + root.path() + "/sdks"}});
  const UUID uuid = uuidOf(*client, "a");
  EXPECT_EQ(Value(ready({uuid, uuid})), Value(Dictionary()));

  const Dictionary registered = registration(uuid);
  const std::string path = DeviceRoot::plugInPath(application, "a");
  const std::string container = root.dataUser() + "/Containers/a";
  EXPECT_EQ(registered["PlugInIdentifier"].string(), "a");
  EXPECT_EQ(registered["BundleIdentifier"].string(), "a");
  EXPECT_EQ(registered["BundleVersion"].string(), "100");
  EXPECT_EQ(registered["ExecutablePath"].string(), path + "/run");
  EXPECT_EQ(registered["LaunchDescription"]["BWBundlePackageType"].string(), "QMX!");
  EXPECT_EQ(service(registered),
            Value(Dictionary{{"EnvironmentVariables", Dictionary{{"HOME", container},
                                                                 {"BWFIXED_USER_HOME", container},
                                                                 {"TMPDIR", "/own"},
                                                                 {"ABTEST_SDK", root.path() + "/sdks"},
                                                                 {"OWN", "1"}}},
                             {"Niceness", 5},
                             {"_SandboxProfile", "plugin"},
                             {"_OmitSandboxParameters", true}}));
  EXPECT_TRUE(daemon->logs("assigning plug-in a(4.2) to plugin sandbox"));
  EXPECT_EQ(daemon->logCount("enabling pid=" + std::to_string(getpid()) + " for plug-in a(4.2) " +
                             uuid.string() + " " + path),
            1u)
      << "named twice, enabled once";
}

TEST_F(Ready, ChoosesTheSandboxByExtensionPointAndConsent) {
  const auto keyboard = [](const char* identifier, const Dictionary& attributes) {
    return PlugInBundle{.identifier = identifier,
                        .attributes = attributes,
                        .plugIn = {{"ZQExtensionPointIdentifier", "com.veltra.keyboard-service"}}};
  };
  root.install("Keys.app", {keyboard("asks", {{"RequestsOpenAccess", true}}), keyboard("silent", {})});
  root.install("Filter.app", {{.identifier = "filter",
                               .plugIn = {{"ZQExtensionPointIdentifier", "com.veltra.fennix.filter-data"}}}});
  start();
  const auto profile = [&](const char* identifier) {
    const UUID uuid = uuidOf(*client, identifier);
    EXPECT_EQ(errorOf(ready({uuid})), "");
    return std::string(service(registration(uuid))["_SandboxProfile"].string().value_or("?"));
  };
  const auto consent = [&](bool granted) {
    writePropertyList(root.configUser() + "/Consent.plist",
                      Dictionary{{"app.Keys", Dictionary{{"kQSVServiceKeyboardNetwork", granted}}}});
  };
  EXPECT_EQ(profile("asks"), "keyboard");
  consent(true);
  EXPECT_EQ(profile("asks"), "plugin") << "consent is read anew";
  EXPECT_EQ(profile("silent"), "keyboard");
  consent(false);
  EXPECT_EQ(profile("asks"), "keyboard");
  EXPECT_EQ(profile("filter"), "network-filter");
  EXPECT_TRUE(daemon->logs("assigning plug-in filter(1.0) to network-filter sandbox"));
  writeText(root.configUser() + "/Consent.plist", "no property list");
  EXPECT_EQ(profile("asks"), "keyboard");
  EXPECT_TRUE(daemon->logs("QSVAccessCopyInformationForBundle failed for "));
}

TEST_F(Ready, ARefusalEnablesNothingOfTheList) {
  root.install("A.app", {{.identifier = "free"},
                         {.identifier = "sealed", .plugIn = {{"ZQExtensionHostEntitlement", "org.key"}}},
                         {.identifier = "held"}});
  writePropertyList(root.path() + "/hosts/Holder.app/Entitlements.plist", Dictionary{{"org.key", true}});
  start();
  Host holder(root, *daemon, root.path() + "/hosts/Holder.app");
  const UUID free = uuidOf(*client, "free"), held = uuidOf(*client, "held"),
             sealed = uuidOf(holder.client(), "sealed");
  EXPECT_EQ(errorOf(ready({free, sealed})),
            "11: access to plugin sealed denied: the host does not have the \"org.key\" entitlement");
  EXPECT_TRUE(daemon->logs("denied access to pid " + std::to_string(getpid()) + " for plugin sealed(" +
                           sealed.string() + "): the host does not have the \"org.key\" entitlement"));
  client->call(
      message("lock", {{"paths", Array{*formOf(match(*client), "held")["path"].string()}}, {"flags", 2}}));
  EXPECT_EQ(errorOf(ready({free, held})), "11: access to plugin held denied: the plug-in is on hold");
  EXPECT_EQ(errorOf(ready({free, UUID::random()})), "4: no such plugin (uuid not found)");
  EXPECT_FALSE(isRegistered(free));

  EXPECT_EQ(errorOf(holder.client().call(message("ready", {{"uuids", Array{sealed}}}))), "");
  EXPECT_TRUE(fs::exists(root.runtime() + "/Launcher/" + std::to_string(holder.pid()) + "/" +
                         sealed.string() + ".plist"));
}

TEST_F(Ready, DataPlugInsNeedNoEnabling) {
  root.install("A.app",
               {{.identifier = "data",
                 .plugIn = {{"ZQExtensionProtocol", "#Data"}, {"ZQExtensionHostEntitlement", "org.key"}}},
                {.identifier = "code"}});
  start();
  const Dictionary body = message("match", {{"flags", 0}});
  // Discovery asks the policy of data plug-ins too, so the UUID comes from a host that has the entitlement.
  writePropertyList(root.path() + "/hosts/Holder.app/Entitlements.plist", Dictionary{{"org.key", true}});
  Host holder(root, *daemon, root.path() + "/hosts/Holder.app");
  const UUID data = uuidOf(holder.client(), "data"), code = uuidOf(*client, "code");
  EXPECT_EQ(errorOf(ready({data})), "") << "no policy is asked";
  EXPECT_FALSE(daemon->logs("enabling pid="));
  EXPECT_EQ(errorOf(ready({data, code, data})), "");
  EXPECT_TRUE(isRegistered(code));
  EXPECT_FALSE(isRegistered(data));
  EXPECT_FALSE(fs::exists(root.dataUser() + "/Containers/data"));
}

TEST_F(Ready, AFailureIsAnsweredOnceAndTheOthersAreStillEnabled) {
  const std::string application = root.install(
      "A.app",
      {{.identifier = "good"}, {.identifier = "bad.1"}, {.identifier = "bad.2"}, {.identifier = "fine"}});
  for (const char* bad : {"bad.1", "bad.2"})
    fs::permissions(DeviceRoot::plugInPath(application, bad) + "/run", fs::perms::owner_read);
  start();
  const UUID good = uuidOf(*client, "good"), bad1 = uuidOf(*client, "bad.1"), bad2 = uuidOf(*client, "bad.2"),
             fine = uuidOf(*client, "fine");
  const std::string pid = std::to_string(getpid());
  const std::string error = errorOf(ready({good, bad1, bad2, fine}));
  EXPECT_TRUE(error == "4: unable to enable plug-in bad.1(" + bad1.string() + ") for pid " + pid ||
              error == "4: unable to enable plug-in bad.2(" + bad2.string() + ") for pid " + pid)
      << error;
  EXPECT_EQ(daemon->logCount("enabling pid="), 4u);
  EXPECT_EQ(daemon->logCount("qmx error 13 allowing pid " + pid + " to use plug-in bad."), 2u);
  EXPECT_TRUE(isRegistered(good) && isRegistered(fine));
  EXPECT_TRUE(client->isSilent()) << "one reply";
}

TEST_F(Ready, ABundleThatIsGoneHasNoExecutableAndNoToken) {
  const std::string bundle = root.path() + "/Loose.app/PlugIns/lost.appex";
  root.writeBundle(bundle, {.identifier = "lost"});
  start();
  ASSERT_EQ(errorOf(client->call(message("add", {{"paths", Array{bundle}}}))), "");
  const UUID lost = uuidOf(*client, "lost");
  fs::rename(bundle, root.path() + "/away");
  EXPECT_EQ(errorOf(ready({lost})),
            "4: cannot obtain executable path for plug-in lost(" + lost.string() + ")");
  EXPECT_EQ(errorOf(client->call(message("access", {{"uuids", Array{lost}}}))),
            "4: cannot create extension to " + bundle + ": 2");
}

TEST_F(Ready, WithoutADataContainerNothingIsFound) {
  writeText(root.dataUser() + "/Containers", "no directory");
  root.install("A.app", {{.identifier = "homeless"},
                         {.identifier = "d", .plugIn = {{"ZQExtensionProtocol", "#Data"}}}});
  start();
  EXPECT_EQ(identifiers(match(*client)), "d");
  EXPECT_TRUE(daemon->logs("this plug-in has no sandbox data container"));
}

TEST_F(Ready, RegistrationsGoWithTheirPlugIn) {
  const std::string application = root.install("A.app", {{.identifier = "a"}});
  start();
  const UUID uuid = uuidOf(*client, "a");
  ASSERT_EQ(errorOf(ready({uuid})), "");
  ASSERT_TRUE(isRegistered(uuid));
  fs::rename(application, root.path() + "/away");
  EXPECT_TRUE(eventually([&] { return !isRegistered(uuid); }));
  EXPECT_TRUE(daemon->waitForLog("UNINSTALLED:a a(100) "));
  EXPECT_FALSE(daemon->logs("PLUGIN REMOVAL:"));
}

TEST_F(Ready, ARegistrationThatCannotBeRemovedIsReported) {
  const std::string application = root.install("A.app", {{.identifier = "a"}});
  start();
  uuidOf(*client, "a");
  fs::create_directories(registrationPath(UUID()));  // no file: it cannot be unlinked
  fs::rename(application, root.path() + "/away");
  EXPECT_TRUE(daemon->waitForLog("PLUGIN REMOVAL:a RESULT:21"));
}

TEST_F(Ready, AccessGivesOneTokenForEachInOrderAndAsksNothing) {
  root.install("A.app", {{.identifier = "open"},
                         {.identifier = "held"},
                         {.identifier = "sealed", .plugIn = {{"ZQExtensionHostEntitlement", "org.key"}}}});
  writePropertyList(root.path() + "/hosts/Holder.app/Entitlements.plist", Dictionary{{"org.key", true}});
  start();
  Host holder(root, *daemon, root.path() + "/hosts/Holder.app");
  const UUID sealed = uuidOf(holder.client(), "sealed"), open = uuidOf(*client, "open"),
             held = uuidOf(*client, "held");
  client->call(
      message("lock", {{"paths", Array{*formOf(match(*client), "held")["path"].string()}}, {"flags", 2}}));
  const auto access = [&](const Value& version, const std::vector<UUID>& uuids) {
    return client->call(message("access", {{"uuids", uuidArray(uuids)}, {"version", version}}));
  };
  const Dictionary reply = access(3, {open, held, sealed, open});
  EXPECT_EQ(errorOf(reply), "");
  const Array* tokens = reply["extensions"].array();
  ASSERT_TRUE(tokens != nullptr && tokens->size() == 4);
  for (const Value& token : *tokens) EXPECT_TRUE(token.isString());
  EXPECT_NE((*tokens)[0], (*tokens)[3]) << "each token is fresh";
  EXPECT_EQ(access(2, {})["extensions"], Value(Array())) << "present though empty, in both versions";
  EXPECT_FALSE(access(3, {open, UUID::random()}).contains("extensions")) << "dropped with the request";
}

}  // namespace
}  // namespace testsupport
