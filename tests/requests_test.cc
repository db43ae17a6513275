// The daemon as a process and the protocol's frame: command line, start-up failures, versions, request names,
// typed reading, messages without a reply, what is logged and when.

#include "tests/support/Child.h"
#include "tests/support/DaemonTest.h"

namespace testsupport {
namespace {

/// Runs the daemon until it ends by itself; answers what it wrote to standard error.
std::string outputOfFailedStart(const DeviceRoot& root, std::vector<std::string> arguments, int status,
                                const std::vector<std::string>& environment = {}) {
  arguments.insert(arguments.begin(), ABD_PROGRAM);
  const std::string errors = root.path() + "/ending.log";
  fs::remove(errors);
  EXPECT_EQ(Process(arguments, root.environment(environment), errors).waitForExit(), status);
  return readText(errors);
}

using StartUp = DaemonTest;

TEST_F(StartUp, PrintsTheUsageLineAndEndsWith2ForWhatItDoesNotUnderstand) {
  for (const auto& arguments :
       {std::vector<std::string>{"-x"}, {"-S"}, {"-c"}, {"-v", "extra"}, {"-S", "a", "--", "extra"}})
    EXPECT_EQ(outputOfFailedStart(root, arguments, 2), "Usage: abd [-S servicename] [-v]\n");
  EXPECT_FALSE(fs::exists(root.state() + "/Hollin")) << "something was built first";
}

TEST_F(StartUp, WithoutOptionsItServesTheDefaultNameAndKeeps150Records) {
  std::vector<PlugInBundle> plugIns;
  for (int i = 0; i < 151; ++i) plugIns.push_back({.identifier = "p" + std::to_string(i)});
  root.install("A.app", plugIns);
  const std::string log = root.path() + "/bare.log";
  const Process process({ABD_PROGRAM}, root.environment(), log);
  const std::string socket = root.runtime() + "/com.veltra.ambrel.abd";
  ASSERT_TRUE(eventually([&] { return WireClient::connect(socket).fd() >= 0; }));
  client.emplace(WireClient::connect(socket));
  EXPECT_EQ(match(*client).size(), 151u);
  EXPECT_EQ(readText(log), "") << "the limit is not exceeded before the last was kept";
  EXPECT_EQ(found(Dictionary{{"ZQExtensionIdentifier", "p0"}}), "p0");
  root.install("B.app", {{.identifier = "another"}});
  EXPECT_TRUE(eventually([&] { return match(*client).size() == 152; }));
  EXPECT_TRUE(contains(readText(log), "purging cache for 151 > 150"));

  start({.arguments = {"-c", "x"}, .environment = {"XDG_STATE_HOME=" + root.path() + "/other"}});
  EXPECT_EQ(match(*client).size(), 152u);
  EXPECT_EQ(daemon->logCount("purging cache for 1 > 0"), 151u) << "no number reads as 0";
}

TEST_F(StartUp, FailsWithAReasonForServiceNamesThatCannotBeListenedOn) {
  for (const std::string& name : {std::string(), std::string("a/b"), std::string(150, 'n')}) {
    const std::string output = outputOfFailedStart(root, {"-S", name}, 1);
    EXPECT_TRUE(contains(output, "unable to listen for service \"" + name + "\"")) << output;
    EXPECT_TRUE(contains(output, "unable to construct server")) << output;
  }
}

TEST_F(StartUp, LeavesALivingDaemonAloneAndTakesOverTheSocketOfADeadOne) {
  const DeviceRoot other;  // its own state, the same runtime directory
  start();
  for (const std::string& output :
       {outputOfFailedStart(other, {"-S", "abd.test"}, 1, {"XDG_RUNTIME_DIR=" + root.path() + "/run"}),
        outputOfFailedStart(root, {"-S", "another"}, 1)})
    EXPECT_TRUE(contains(output, "unable to construct server")) << output;
  for (int i = 0; i < 2; ++i) {
    EXPECT_EQ(errorOf(daemon->connect().call(message("bulk"))), "");
    daemon->kill();
    daemon->start();
  }
}

TEST_F(StartUp, EndsWithoutADirectoryForTheAnnotations) {
  const std::string directory = root.state() + "/com.veltra.ambrel";
  writeText(directory, "a file where the directory should be");
  for (const auto& [output, text] :
       {std::pair(outputOfFailedStart(root, {}, 128 + SIGABRT, {"HOME=", "XDG_STATE_HOME="}),
                  std::string("unable to locate user directory: errno 2")),
        {outputOfFailedStart(root, {}, 128 + SIGABRT),
         "unable to create plugin annotations directory:file://" + directory + "/ error:POSIX "}})
    EXPECT_TRUE(contains(output, text)) << output;
}

class Requests : public DaemonTest {
 protected:
  Requests() { start(); }
  std::string errorOfBody(const Dictionary& body) { return errorOf(client->call(body)); }
};

TEST_F(Requests, OnlyVersions2And3AreServedAndTheVersionIsJudgedBeforeTheName) {
  const auto refused = [](const char* shown) {
    return std::string("7: unsupported protocol version ") + shown + " (current 3)";
  };
  for (const int version : {2, 3}) EXPECT_EQ(errorOfBody({{"request", "bulk"}, {"version", version}}), "");
  for (const auto& [version, shown] : {std::pair<Value, const char*>(1, "1"),
                                       {4, "4"},
                                       {uint64_t{0x1'0000'0002}, "2"},
                                       {UINT64_MAX, "-1"},
                                       {-3, "0"},
                                       {"3", "0"}})
    EXPECT_EQ(errorOfBody({{"request", "nothing"}, {"version", version}}), refused(shown));
  EXPECT_EQ(errorOfBody({{"request", "bulk"}}), refused("0"));
  EXPECT_EQ(errorOfBody({{"version", 2}, {"request", "nothing"}}), "4: unrecognized request");
  EXPECT_EQ(errorOfBody({{"version", 3}, {"request", "Bulk"}}), "4: unrecognized request");
  EXPECT_EQ(errorOfBody({{"version", 3}}), "4: invalid request format (missing type)");
  EXPECT_EQ(errorOfBody({{"version", 3}, {"request", 5}}), "4: invalid request format (missing type)");
  EXPECT_EQ(daemon->logCount("client " + std::to_string(getpid()) + " request (null)"), 2u);
}

TEST_F(Requests, ListsOfTheWrongTypeCountAsMissing) {
  for (const Value& wrong : {Value(), Value("text"), Value(Dictionary{{"a", 1}}), Value(UUID::random())}) {
    for (const char* name : {"add", "remove", "lock"})
      EXPECT_EQ(error(name, {{"paths", wrong}}), "4: invalid request format") << name;
    for (const char* name : {"ready", "access"})
      EXPECT_EQ(error(name, {{"uuids", wrong}}), "4: invalid request format (uuid)");
    EXPECT_EQ(error("annotate", {{"uuids", wrong}, {"annotations", Dictionary{{"election", 1}}}}),
              "4: invalid request format (uuid)");
  }
}

TEST_F(Requests, UuidListsStopAtTheFirstEntryThatIsNoKnownPlugIn) {
  const UUID unknown = UUID::random();
  for (const char* name : {"ready", "access"}) {
    for (const Value& wrong : {Value(unknown.string()), Value(Data(std::string_view("0123456789abcdef")))})
      EXPECT_EQ(error(name, {{"uuids", Array{wrong}}}), "4: invalid request (bad uuid array)");
    EXPECT_EQ(error(name, {{"uuids", Array{unknown, 5}}}), "4: no such plugin (uuid not found)");
    EXPECT_EQ(error(name, {{"uuids", Array()}}), "");
  }
  EXPECT_EQ(daemon->logCount("Hollin cannot find plug-in with UUID:" + unknown.string()), 2u);
}

TEST_F(Requests, AMessageThatWantsNoReplyIsServedAndNotAnsweredNorIsAFrameWithoutAMap) {
  client->sendFrame(qmx::FrameKind::message, 0, message("bulk", {{"flags", 0xabc}}));
  for (const Value& body : {Value(7), Value(Array{"not", "a", "map"}), Value(false)})
    client->sendFrame(qmx::FrameKind::request, 1, body);
  EXPECT_EQ(Value(call("bulk", {{"flags", "text"}})), Value(Dictionary()));
  EXPECT_TRUE(daemon->logs("bulk options 0xabc not supported"));
  EXPECT_TRUE(daemon->logs("bulk options 0x0 not supported"));
  EXPECT_EQ(daemon->logCount("unexpected message "), 3u);
  EXPECT_TRUE(daemon->logs(" on connection <connection "));
  EXPECT_TRUE(client->isSilent());
}

TEST_F(Requests, APeerWhoseProcessIsGoneIsServedUntilItsSocketCloses) {
  FileDescriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  Child child = connectedByAChild(daemon->socketPath(), socket);
  const std::string peer = "client " + std::to_string(child.pid());
  ASSERT_TRUE(daemon->waitForLog(peer + " " + fs::canonical("/proc/self/exe").string()));
  child.kill();
  EXPECT_TRUE(daemon->waitForLog(peer + " termination imminent"));
  client.emplace(std::move(socket));
  EXPECT_EQ(error("bulk"), "");
  EXPECT_TRUE(daemon->logs(peer + " request bulk"));
  client->close();
  EXPECT_TRUE(daemon->waitForLog(peer + " is dead"));
  EXPECT_EQ(daemon->logCount(peer + " termination imminent"), 1u);
}

TEST_F(Requests, APeerThatExitsBeforeItIsLookedAtHasNoKnownExecutable) {
  daemon->pause();
  FileDescriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  Child child = connectedByAChild(daemon->socketPath(), socket);
  const std::string pid = std::to_string(child.pid());
  child.kill();
  daemon->goOn();
  client.emplace(std::move(socket));
  EXPECT_EQ(error("match"), "");
  EXPECT_TRUE(daemon->logs("client " + pid + " (unknown)"));
  EXPECT_EQ(error("match", {{"flags", 0x200}}), "11: unauthorized discovery flag (ABDiscoverAll)");
}

using Verbosity = DaemonTest;

TEST_F(Verbosity, DecidesWhatIsLogged) {
  root.install("A.app", {{.identifier = "percent.%d%s%@"}});
  for (const size_t verbosity : {0u, 1u, 2u}) {
    start({.arguments = std::vector<std::string>(verbosity, "-v")});
    EXPECT_EQ(elect(uuid("percent.%d%s%@"), 7), "");
    EXPECT_TRUE(daemon->logs(" plug-in percent.%d%s%@ election := 7")) << "always, and written as it is";
    EXPECT_EQ(daemon->logs("request annotate"), verbosity >= 1);
    EXPECT_EQ(daemon->logs("annotations = {election = 7}"), verbosity >= 2);
    EXPECT_EQ(daemon->logs("Replying {}"), verbosity >= 2);
  }
}

// --- "add" and "remove": what they answer, what they change, what they leave alone ---

class Registration : public DaemonTest {
 protected:
  Registration() { start(); }
  /// A plug-in in an application that lies where nobody scans.
  std::string looseBundle(const std::string& identifier) const {
    const std::string path =
        DeviceRoot::plugInPath(root.path() + "/loose/" + identifier + ".app", identifier);
    root.writeBundle(path, {.identifier = identifier});
    return path;
  }
  std::string errorOfPaths(const char* request, const Array& paths) {
    return error(request, {{"paths", paths}});
  }
};

TEST_F(Registration, AnAddedPlugInIsFoundByTheNextRequestAndARemovedOneIsNot) {
  const std::string first = looseBundle("first"), second = looseBundle("second"),
                    link = root.path() + "/link";
  fs::create_symlink(first, link);
  EXPECT_EQ(Value(call("add", {{"paths", Array{link, second}}})), Value(Dictionary()))
      << "a success has no keys";
  EXPECT_EQ(found(), "first second");
  EXPECT_EQ(form("first")["path"].string(), first);
  EXPECT_TRUE(daemon->waitForLog("INSTALLED:first first(100) "));
  EXPECT_TRUE(daemon->waitForLog(" " + first));
  EXPECT_EQ(errorOfPaths("add", {first}), "") << "again is a success";

  EXPECT_EQ(Value(call("remove", {{"paths", Array{first + "/../first.appex/."}}})), Value(Dictionary()));
  EXPECT_EQ(found(), "second");
  EXPECT_TRUE(daemon->waitForLog("UNINSTALLED:first first(100) "));
  EXPECT_EQ(errorOfPaths("remove", {link}), "9: no plugin at " + first) << "the resolved path is shown";
  fs::remove_all(second);
  EXPECT_EQ(errorOfPaths("remove", {second}), "") << "as received: it resolves no more";
  EXPECT_EQ(errorOfPaths("remove", {"x"}), "9: absolute path required: x");
  usleep(700'000);  // whoever was on the way to look at the new bundle has done so
  EXPECT_EQ(found(), "");
}

TEST_F(Registration, PathsAreJudgedInOrderAndTheWalkStopsAtTheFirstBadOne) {
  const std::string good = looseBundle("good"), later = looseBundle("later"), missing = root.path() + "/none",
                    refused = root.path() + "/empty.appex";
  fs::create_directories(refused);
  for (const auto& [wrong, error] :
       {std::pair<Value, std::string>(missing, "9: invalid plugin path: " + missing),
        {"relative/dir", "9: absolute path required: relative/dir"},
        {"", "9: absolute path required: "},
        {5, "4: invalid request format"}})
    EXPECT_EQ(errorOfPaths("add", {wrong, good}), error);
  EXPECT_EQ(errorOfPaths("add", Array()), "");
  EXPECT_EQ(found(), "") << "nothing behind a bad entry is looked at";
  EXPECT_EQ(errorOfPaths("add", {good, refused, later}), "2: unable to register plug-in at " + refused);
  EXPECT_EQ(daemon->logCount("failed to register plug-in at " + refused), 1u);
  EXPECT_EQ(found(), "good") << "what came before stays registered";
}

TEST_F(Registration, APathHasToFitItsBufferAsReceivedAndResolved) {
  const std::string real = looseBundle("deep"), link = root.path() + "/short";
  // The longest path that fits, and the first that does not: both lead to the same bundle.
  const auto padded = [&](size_t length) {
    std::string path = real;
    while (path.size() < length) path += path.size() + 1 < length ? "/." : "/";
    return path;
  };
  EXPECT_EQ(errorOfPaths("add", {padded(1023)}), "");
  EXPECT_EQ(found(), "deep");
  EXPECT_EQ(errorOfPaths("add", {padded(1024)}), "9: invalid plugin path: " + padded(1024));
  // A short path whose canonical form is too long.
  std::string deep = root.path();
  while (deep.size() < 1100) deep += "/" + std::string(200, 'd');
  fs::create_directories(deep);
  fs::create_directory_symlink(deep, link);
  EXPECT_EQ(errorOfPaths("add", {link}), "9: invalid plugin path: " + link);
}

}  // namespace
}  // namespace testsupport
