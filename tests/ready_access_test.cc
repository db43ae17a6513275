// "ready" and "access": checks, refusals and what is left for the service launcher.

#include <fstream>

#include "platform/propertylist/PropertyList.h"
#include "tests/support/Child.h"
#include "tests/support/DaemonTest.h"

namespace testsupport {
namespace {

class Ready : public DaemonTest {
 protected:
  Dictionary ready(const std::vector<UUID>& uuids) {
    return call("ready", {{"uuids", uuidArray(uuids)}, {"flags", 99}});
  }
  void hold(const char* identifier) {
    EXPECT_EQ(error("lock", {{"paths", Array{form(identifier)["path"]}}, {"flags", 2}}), "");
  }
  Dictionary registration(const UUID& plugIn) const {
    return readDictionaryFile(daemon->launchFile(getpid(), plugIn)).value_or(Dictionary());
  }
  bool isRegistered(const UUID& plugIn) const { return !registration(plugIn).empty(); }
  /// Starts the daemon, and a host with the entitlement that "sealed" plug-ins ask for.
  WireClient& startWithHolder() {
    const std::string bundle = hostBundle("Holder", {{"org.key", true}});
    start();
    return holder.emplace(root, *daemon, bundle).client();
  }
  const Dictionary sealed = {{"ZQExtensionHostEntitlement", "org.key"}};
  std::optional<Host> holder;
};

TEST_F(Ready, RegistersThePlugInForTheHostWithItsEnvironment) {
  const Dictionary service = {
      {"EnvironmentVariables", Dictionary{{"OWN", "1"}, {"TMPDIR", "/own"}}},
      {"_SandboxProfile", "none"},
      {"_OmitSandboxParameters", false},
      {"Niceness", 5},
  };
  const std::string application =
      root.install("A.app", {{.identifier = "a", .version = "4.2", .info = {{"QMXService", service}}}});
  start({.environment = {"ABTEST_SDK=" + root.path() + "/sdks"}});
  const UUID a = uuid("a");
  EXPECT_EQ(Value(ready({a, a})), Value(Dictionary()));

  const Dictionary registered = registration(a);
  const std::string path = DeviceRoot::plugInPath(application, "a");
  const std::string container = root.dataUser() + "/Containers/a";
  for (const auto& [key, value] : {std::pair("PlugInIdentifier", std::string("a")),
                                   {"BundleIdentifier", "a"},
                                   {"BundleVersion", "100"},
                                   {"ExecutablePath", path + "/run"}})
    EXPECT_EQ(registered[key], Value(value));
  EXPECT_EQ(registered["LaunchDescription"]["BWBundlePackageType"].string(), "QMX!");
  EXPECT_EQ(registered["LaunchDescription"]["QMXService"],
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
                             a.string() + " " + path),
            1u)
      << "named twice, enabled once";
}

TEST_F(Ready, WhatHappenedWhileTheDaemonWasDownIsToldAtItsStart) {
  const std::string edited = root.install("Edited.app", {{.identifier = "edited"}}),
                    gone = root.install("Gone.app", {{.identifier = "gone"}});
  root.install("Stays.app", {{.identifier = "stays"}});
  start();
  const UUID ofEdited = uuid("edited"), ofGone = uuid("gone"), ofStays = uuid("stays");
  EXPECT_EQ(errorOf(ready({ofEdited, ofGone, ofStays})), "");
  EXPECT_FALSE(daemon->logs("INSTALLED:")) << "nothing was known before";
  daemon->kill();
  fs::remove_all(gone);
  writePropertyList(DeviceRoot::plugInPath(edited, "edited") + "/Info.plist",
                    infoDictionary({.identifier = "edited", .info = {{"BWBundleVersion", "101"}}}));
  root.install("New.app", {{.identifier = "new"}});
  daemon->start();
  EXPECT_TRUE(eventually([&] { return !isRegistered(ofEdited) && !isRegistered(ofGone); }));
  EXPECT_TRUE(isRegistered(ofStays));
  for (const char* line : {"INSTALLED:edited edited(101) ", "INSTALLED:new new(100) ",
                           "UNINSTALLED:edited edited(100) ", "UNINSTALLED:gone gone(100) "})
    EXPECT_TRUE(daemon->waitForLog(line)) << line;
  EXPECT_EQ(daemon->logCount("INSTALLED:"), 4u) << "of both kinds";
}

TEST_F(Ready, ChoosesTheSandboxByExtensionPointAndConsent) {
  const auto serving = [](const char* identifier, const char* point, const Dictionary& attributes) {
    return PlugInBundle{.identifier = identifier,
                        .attributes = attributes,
                        .plugIn = {{"ZQExtensionPointIdentifier", point}}};
  };
  const char* const keyboard = "com.veltra.keyboard-service";
  root.install("Keys.app", {serving("asks", keyboard, {{"RequestsOpenAccess", true}}),
                            serving("text", keyboard, {{"RequestsOpenAccess", "YES"}}),
                            serving("filter", "com.veltra.fennix.filter-data", {})});
  start();
  const auto profile = [&](const char* identifier) {
    const UUID plugIn = uuid(identifier);
    EXPECT_EQ(errorOf(ready({plugIn})), "");
    return registration(plugIn)["LaunchDescription"]["QMXService"]["_SandboxProfile"];
  };
  const std::string consent = root.configUser() + "/Consent.plist";
  const auto profileWith = [&](const Value& decision) {
    writePropertyList(consent, Dictionary{{"app.Keys", decision}});
    return profile("asks");
  };
  const auto granted = [](const Value& value) { return Dictionary{{"kQSVServiceKeyboardNetwork", value}}; };
  EXPECT_EQ(profile("asks"), Value("keyboard"));
  EXPECT_EQ(profileWith(granted(true)), Value("plugin")) << "consent is read anew";
  EXPECT_EQ(profile("text"), Value("keyboard")) << "it does not ask with the boolean";
  for (const Value& no : {Value(granted(false)), Value(granted("yes")), Value(granted(0)), Value(true)})
    EXPECT_EQ(profileWith(no), Value("keyboard")) << no.description();
  EXPECT_EQ(profile("filter"), Value("network-filter"));
  EXPECT_TRUE(daemon->logs("assigning plug-in filter(1.0) to network-filter sandbox"));
  writeText(consent, "no property list");
  EXPECT_EQ(profile("asks"), Value("keyboard"));
  EXPECT_TRUE(daemon->logs("QSVAccessCopyInformationForBundle failed for "));
}

TEST_F(Ready, ARefusalEnablesNothingOfTheListDataPlugInsNeedNoEnablingAndAccessAsksNothing) {
  Dictionary sealedData = sealed;
  sealedData.set("ZQExtensionProtocol", "#Data");
  root.install("A.app", {{.identifier = "free"},
                         {.identifier = "s", .plugIn = sealed},
                         {.identifier = "held"},
                         {.identifier = "data", .plugIn = sealedData}});
  // Discovery asks the policy of data plug-ins too, so the UUID comes from a host that has the entitlement.
  WireClient& other = startWithHolder();
  const UUID free = uuid("free"), held = uuid("held"), s = uuidOf(other, "s"), data = uuidOf(other, "data");
  EXPECT_EQ(errorOf(ready({free, s})),
            "11: access to plugin s denied: the host does not have the \"org.key\" entitlement");
  EXPECT_TRUE(daemon->logs("denied access to pid " + std::to_string(getpid()) + " for plugin s(" +
                           s.string() + "): the host does not have the \"org.key\" entitlement"));
  hold("held");
  EXPECT_EQ(errorOf(ready({free, held})), "11: access to plugin held denied: the plug-in is on hold");
  EXPECT_EQ(errorOf(ready({free, UUID::random()})), "4: no such plugin (uuid not found)");
  EXPECT_EQ(errorOf(ready({data})), "") << "no policy is asked";
  EXPECT_FALSE(daemon->logs("enabling pid="));
  EXPECT_EQ(errorOf(ready({data, free, data})), "");
  EXPECT_TRUE(isRegistered(free) && !isRegistered(data));
  EXPECT_FALSE(fs::exists(root.dataUser() + "/Containers/data"));

  EXPECT_EQ(errorOf(other.call(message("ready", {{"uuids", Array{s}}}))), "");
  EXPECT_TRUE(fs::exists(daemon->launchFile(holder->pid(), s)));

  const Dictionary reply = call("access", {{"uuids", Array{free, held, s, free}}});
  EXPECT_EQ(errorOf(reply), "") << "nothing is asked";
  const Array* tokens = reply["extensions"].array();
  ASSERT_TRUE(tokens != nullptr && tokens->size() == 4);
  for (const Value& token : *tokens) EXPECT_TRUE(token.isString());
  EXPECT_NE((*tokens)[0], (*tokens)[3]) << "each token is fresh";
  EXPECT_EQ(call("access", {{"uuids", Array()}, {"version", 2}})["extensions"], Value(Array()));
  EXPECT_FALSE(call("access", {{"uuids", Array{free, UUID::random()}}}).contains("extensions"));
}

TEST_F(Ready, AFailureIsAnsweredOnceAndTheOthersAreStillEnabled) {
  const std::string application = root.install(
      "A.app",
      {{.identifier = "good"}, {.identifier = "bad.1"}, {.identifier = "bad.2"}, {.identifier = "fine"}});
  for (const char* bad : {"bad.1", "bad.2"})
    fs::permissions(DeviceRoot::plugInPath(application, bad) + "/run", fs::perms::owner_read);
  start();
  const UUID good = uuid("good"), fine = uuid("fine");
  const std::string pid = std::to_string(getpid());
  const std::string error = errorOf(ready({good, uuid("bad.1"), uuid("bad.2"), fine}));
  EXPECT_TRUE(error.starts_with("4: unable to enable plug-in bad.") && error.ends_with(") for pid " + pid))
      << error;
  EXPECT_TRUE(daemon->waitForLog("qmx error 13 allowing pid " + pid + " to use plug-in bad.", 2));
  EXPECT_TRUE(isRegistered(good) && eventually([&] { return isRegistered(fine); }));
  EXPECT_TRUE(client->isSilent()) << "one reply";
}

TEST_F(Ready, AContainerThatIsGoneIsMadeAgainAndNoneIsNamedThatCannotBe) {
  root.install("A.app", {{.identifier = "a"}});
  start();
  const UUID a = uuid("a");
  const std::string container = root.dataUser() + "/Containers/a";
  const auto home = [&] {
    EXPECT_EQ(errorOf(ready({a})), "");
    return registration(a)["LaunchDescription"]["QMXService"]["EnvironmentVariables"]["HOME"];
  };
  EXPECT_TRUE(eventually([&] { return fs::is_directory(container + "/tmp"); })) << "without being asked for";
  EXPECT_EQ(fs::status(container).permissions(), fs::perms::owner_all);
  fs::remove_all(root.dataUser() + "/Containers");
  EXPECT_EQ(home(), Value(container));
  EXPECT_TRUE(fs::is_directory(container + "/tmp"));
  fs::remove_all(container);
  writeText(container, "in the way");
  EXPECT_EQ(home(), Value());
  EXPECT_TRUE(daemon->logs("no data container for plug-in a(1.0) " + a.string() + " at "));
  EXPECT_EQ(readText(container), "in the way");
  fs::remove(container);
  fs::create_directory_symlink(root.path(), container);
  EXPECT_EQ(home(), Value());
  fs::remove(container);
  EXPECT_EQ(home(), Value(container));
}

TEST_F(Ready, NothingIsRegisteredForAnotherProcessThatGotThePid) {
  root.install("A.app", {{.identifier = "a"}});
  start();
  const UUID a = uuid("a");
  FileDescriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  Child first = connectedByAChild(daemon->socketPath(), socket);
  const pid_t pid = first.pid();
  ASSERT_TRUE(daemon->waitForLog("client " + std::to_string(pid) + " "));
  first.kill();
  std::ofstream("/proc/sys/kernel/ns_last_pid") << pid - 1;
  const Child second;
  if (second.pid() != pid) GTEST_SKIP() << "a pid cannot be chosen here";
  client.emplace(std::move(socket));
  EXPECT_EQ(errorOf(ready({a})),
            "4: unable to enable plug-in a(" + a.string() + ") for pid " + std::to_string(pid));
  EXPECT_FALSE(fs::exists(root.runtime() + "/Launcher/" + std::to_string(pid)));
}

TEST_F(Ready, ABundleThatIsGoneHasNoExecutableAndNoToken) {
  const std::string bundle = root.path() + "/Loose.app/PlugIns/lost.appex";
  root.writeBundle(bundle, {.identifier = "lost"});
  start();
  ASSERT_EQ(error("add", {{"paths", Array{bundle}}}), "");
  const UUID lost = uuid("lost");
  fs::rename(bundle, root.path() + "/away");
  const std::string noExecutable = "4: cannot obtain executable path for plug-in lost(" + lost.string() + ")",
                    noToken = "4: cannot create extension to " + bundle + ": ";
  // Or the registry has noticed already.
  const auto tells = [](const std::string& error, const std::string& wanted) {
    return error == wanted || error == "4: no such plugin (uuid not found)";
  };
  EXPECT_TRUE(tells(errorOf(ready({lost})), noExecutable));
  EXPECT_TRUE(tells(error("access", {{"uuids", Array{lost}}}), noToken + "2"));
  fs::create_directory_symlink(root.path() + "/away", bundle);
  EXPECT_TRUE(tells(errorOf(ready({lost})), noExecutable)) << "what a link leads to is another";
  EXPECT_TRUE(tells(error("access", {{"uuids", Array{lost}}}), noToken + "40"));
}

}  // namespace
}  // namespace testsupport
