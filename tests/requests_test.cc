// The daemon as a process and the protocol's frame: command line, start-up failures, versions, request names,
// typed reading, messages without a reply, what is logged and when.

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>

#include <filesystem>

#include "tests/support/Daemon.h"

namespace testsupport {
namespace {

struct Ending {
  int status = -1;
  std::string errors;
};

/// Runs the daemon until it ends by itself.
Ending runToEnd(const DeviceRoot& root, std::vector<std::string> arguments,
                const std::vector<std::string>& moreEnvironment = {}) {
  arguments.insert(arguments.begin(), ABD_PROGRAM);
  std::vector<std::string> environment = root.environment();
  environment.push_back("ABD_LOG=stderr");
  environment.insert(environment.begin(), moreEnvironment.begin(),
                     moreEnvironment.end());  // the first counts
  const std::string errors = root.path() + "/ending.log";
  std::filesystem::remove(errors);
  Process process(arguments, environment, errors);
  const int status = process.waitForExit();
  return {.status = status, .errors = readText(errors)};
}

TEST(CommandLine, PrintsTheUsageLineAndEndsWith2ForWhatItDoesNotUnderstand) {
  const DeviceRoot root;
  const std::vector<std::vector<std::string>> lines = {
      {"-x"}, {"-S"}, {"-c"}, {"extra"}, {"-v", "extra"}, {"-S", "a", "--", "extra"}};
  for (const auto& arguments : lines) {
    const Ending ending = runToEnd(root, arguments);
    EXPECT_EQ(ending.status, 2) << arguments[0];
    EXPECT_EQ(ending.errors, "Usage: abd [-S servicename] [-v]\n");
  }
  EXPECT_FALSE(std::filesystem::exists(root.state() + "/Hollin")) << "something was built first";
}

TEST(StartUp, FailsWithAReasonForServiceNamesThatCannotBeListenedOn) {
  const DeviceRoot root;
  for (const std::string& name : {std::string(), std::string("a/b"), std::string(150, 'n')}) {
    const Ending ending = runToEnd(root, {"-S", name});
    EXPECT_EQ(ending.status, 1) << name;
    EXPECT_NE(ending.errors.find("unable to listen for service \"" + name + "\""), std::string::npos);
    EXPECT_NE(ending.errors.find("unable to construct server"), std::string::npos);
  }
}

TEST(StartUp, LeavesALivingDaemonAloneAndTakesOverTheSocketOfADeadOne) {
  const DeviceRoot root;
  Daemon daemon(root);
  {
    const DeviceRoot other;  // its own state, the same runtime directory
    const Ending ending = runToEnd(other, {"-S", "abd.test"}, {"XDG_RUNTIME_DIR=" + root.path() + "/run"});
    EXPECT_EQ(ending.status, 1);
    EXPECT_NE(ending.errors.find("unable to construct server"), std::string::npos);
  }
  const Ending second = runToEnd(root, {"-S", "another"});  // the same state directory
  EXPECT_EQ(second.status, 1);
  EXPECT_NE(second.errors.find("unable to construct server"), std::string::npos);

  WireClient client = daemon.connect();
  EXPECT_EQ(errorOf(client.call(message("bulk"))), "");
  daemon.kill();
  daemon.start();
  WireClient again = daemon.connect();
  EXPECT_EQ(errorOf(again.call(message("bulk"))), "");
}

TEST(StartUp, EndsWhenTheAnnotationDirectoryCannotBeMade) {
  const DeviceRoot root;
  writeText(root.state() + "/com.veltra.ambrel", "a file where the directory should be");
  const Ending ending = runToEnd(root, {"-S", "abd.test"});
  EXPECT_GT(ending.status, 127) << ending.errors;
  EXPECT_NE(ending.errors.find("unable to create plugin annotations directory:file://" + root.state()),
            std::string::npos)
      << ending.errors;
}

TEST(StartUp, CacheLimitsThatAreNoNumbersReadAs0) {
  for (const char* limit : {"0", "x"}) {
    const DeviceRoot root;
    root.install("A.app", {{.identifier = "a"}, {.identifier = "b"}, {.identifier = "c"}});
    Daemon daemon(root, {.arguments = {"-c", limit}});
    WireClient client = daemon.connect();
    EXPECT_EQ(identifiers(match(client)), "a b c");
    EXPECT_EQ(daemon.logCount("purging cache for 1 > 0"), 2u);
  }
}

class Requests : public testing::Test {
 protected:
  const DeviceRoot root;
  Daemon daemon{root};
  WireClient client = daemon.connect();
};

TEST_F(Requests, OnlyVersions2And3AreServed) {
  const auto answer = [&](const Value& version) {
    Dictionary body = {{"request", "bulk"}};
    if (!version.isNone()) body.set("version", version);
    return errorOf(client.call(body));
  };
  const auto refused = [](const char* shown) {
    return std::string("7: unsupported protocol version ") + shown + " (current 3)";
  };
  EXPECT_EQ(answer(2), "");
  EXPECT_EQ(answer(3), "");
  EXPECT_EQ(answer({}), refused("0"));
  EXPECT_EQ(answer(1), refused("1"));
  EXPECT_EQ(answer(4), refused("4"));
  EXPECT_EQ(answer(uint64_t{0x1'0000'0002}), refused("2"));
  EXPECT_EQ(answer(uint64_t{0xffff'ffff}), refused("-1"));
  EXPECT_EQ(answer(UINT64_MAX), refused("-1"));
  for (const Value& other : {Value(-3), Value("3"), Value(3.0), Value(true)})
    EXPECT_EQ(answer(other), refused("0"));
}

TEST_F(Requests, TheVersionIsJudgedBeforeTheName) {
  EXPECT_EQ(errorOf(client.call({{"version", 5}, {"request", "nothing"}})),
            "7: unsupported protocol version 5 (current 3)");
  EXPECT_EQ(errorOf(client.call({{"version", 2}, {"request", "nothing"}})), "4: unrecognized request");
  EXPECT_EQ(errorOf(client.call({{"version", 3}, {"request", "Bulk"}})), "4: unrecognized request");
  EXPECT_EQ(errorOf(client.call({{"version", 3}})), "4: invalid request format (missing type)");
  EXPECT_EQ(errorOf(client.call({{"version", 3}, {"request", 5}})),
            "4: invalid request format (missing type)");
  EXPECT_EQ(errorOf(client.call({})), "7: unsupported protocol version 0 (current 3)");
}

TEST_F(Requests, ListsOfTheWrongTypeCountAsMissing) {
  for (const Value& wrong : {Value(), Value("text"), Value(Dictionary{{"a", 1}}), Value(UUID::random())}) {
    for (const char* name : {"add", "remove", "lock"})
      EXPECT_EQ(errorOf(client.call(message(name, {{"paths", wrong}}))), "4: invalid request format") << name;
    for (const char* name : {"ready", "access"})
      EXPECT_EQ(errorOf(client.call(message(name, {{"uuids", wrong}}))), "4: invalid request format (uuid)");
    EXPECT_EQ(errorOf(client.call(
                  message("annotate", {{"uuids", wrong}, {"annotations", Dictionary{{"election", 1}}}}))),
              "4: invalid request format (uuid)");
  }
}

TEST_F(Requests, UuidListsStopAtTheFirstEntryThatIsNoKnownPlugIn) {
  for (const char* name : {"ready", "access"}) {
    EXPECT_EQ(errorOf(client.call(message(name, {{"uuids", Array{UUID::random().string()}}}))),
              "4: invalid request (bad uuid array)");
    EXPECT_EQ(
        errorOf(client.call(message(name, {{"uuids", Array{Data(std::string_view("0123456789abcdef"))}}}))),
        "4: invalid request (bad uuid array)");
    const UUID unknown = UUID::random();
    EXPECT_EQ(errorOf(client.call(message(name, {{"uuids", Array{unknown, 5}}}))),
              "4: no such plugin (uuid not found)");
    EXPECT_TRUE(daemon.logs("Hollin cannot find plug-in with UUID:" + unknown.string()));
    EXPECT_EQ(errorOf(client.call(message(name, {{"uuids", Array()}}))), "");
  }
}

TEST_F(Requests, AMessageThatWantsNoReplyIsServedAndNotAnswered) {
  client.sendFrame(qmx::FrameKind::message, 0, message("bulk", {{"flags", 0xabc}}));
  client.sendFrame(qmx::FrameKind::message, 0, message("nothing"));
  client.sendFrame(qmx::FrameKind::message, 0, message("match"));
  EXPECT_EQ(errorOf(client.call(message("bulk"))), "");
  EXPECT_TRUE(daemon.logs("bulk options 0xabc not supported"));
  EXPECT_TRUE(client.isSilent());
}

TEST_F(Requests, RepliesKeepTheOrderAndTheNumbersOfTheirRequests) {
  std::string batch;
  for (uint64_t id = 100; id < 140; ++id)
    batch += frameBytes(qmx::FrameKind::request, id, message(id % 2 == 0 ? "bulk" : "match"));
  client.sendBytes(batch);
  for (uint64_t id = 100; id < 140; ++id) {
    const std::optional<Frame> frame = client.receive();
    ASSERT_TRUE(frame);
    EXPECT_EQ(frame->id, id);
    EXPECT_EQ(frame->body["matches"].isNone(), id % 2 == 0);
  }
}

TEST_F(Requests, AWellFormedFrameWithoutAMapIsLoggedAndTheConnectionLivesOn) {
  client.sendFrame(qmx::FrameKind::request, 1, Array{"not", "a", "map"});
  client.sendFrame(qmx::FrameKind::message, 0, "text");
  EXPECT_EQ(errorOf(client.call(message("bulk"))), "");
  EXPECT_EQ(daemon.logCount("unexpected message "), 2u);
  EXPECT_TRUE(daemon.logs(" on connection <connection "));
}

TEST_F(Requests, WhatIsNoFrameClosesItsConnectionAndNoOther) {
  WireClient other = daemon.connect();
  const std::string frame = frameBytes(qmx::FrameKind::request, 1, message("bulk"));
  const std::string reply = frameBytes(qmx::FrameKind::reply, 1, Dictionary());
  std::string unknownKind = frame;
  unknownKind[5] = 3;
  const std::vector<std::string> streams = {reply, unknownKind, std::string("\0\0\0\1\xff", 5),
                                            std::string("\0\0\0\0", 4), std::string("\x7f\xff\xff\xff", 4)};
  for (const std::string& each : streams) {
    WireClient bad = daemon.connect();
    bad.sendBytes(each);
    EXPECT_TRUE(bad.isClosedByPeer());
  }
  EXPECT_EQ(errorOf(other.call(message("bulk"))), "");
}

TEST_F(Requests, APeerIsReportedWhenItComesAsksAndDies) {
  const std::string pid = std::to_string(getpid());
  client.call(message("bulk"));
  EXPECT_TRUE(daemon.logs("client " + pid + " " + std::filesystem::canonical("/proc/self/exe").string()));
  EXPECT_TRUE(daemon.logs("client " + pid + " request bulk"));
  client.close();
  EXPECT_TRUE(daemon.waitForLog("client " + pid + " is dead"));
}

/// Lets a child process connect `socket` and exit after `delay`; answers its pid, 0 when it failed.
pid_t connectedByAChild(const Daemon& daemon, const FileDescriptor& socket, useconds_t delay) {
  sockaddr_un address{.sun_family = AF_UNIX, .sun_path = {}};
  daemon.socketPath().copy(address.sun_path, sizeof address.sun_path - 1);
  const pid_t child = fork();
  if (child == 0) {
    const int result = ::connect(socket.get(), reinterpret_cast<sockaddr*>(&address), sizeof address);
    usleep(delay);
    _exit(result);
  }
  int status = 0;
  waitpid(child, &status, 0);
  return status == 0 ? child : 0;
}

TEST_F(Requests, APeerWhoseProcessIsGoneIsServedUntilItsSocketCloses) {
  FileDescriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  const std::string pid = std::to_string(connectedByAChild(daemon, socket, 200'000));
  EXPECT_TRUE(daemon.waitForLog("client " + pid + " termination imminent"));
  WireClient survivor(std::move(socket));
  EXPECT_EQ(errorOf(survivor.call(message("bulk"))), "");
  survivor.close();
  EXPECT_TRUE(daemon.waitForLog("client " + pid + " is dead"));
  EXPECT_EQ(daemon.logCount("client " + pid + " termination imminent"), 1u);
}

TEST_F(Requests, APeerThatExitsBeforeItIsLookedAtHasNoKnownExecutable) {
  kill(daemon.pid(), SIGSTOP);
  FileDescriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  const std::string pid = std::to_string(connectedByAChild(daemon, socket, 0));
  kill(daemon.pid(), SIGCONT);
  WireClient survivor(std::move(socket));
  EXPECT_EQ(errorOf(survivor.call(message("match"))), "");
  EXPECT_TRUE(daemon.logs("client " + pid + " (unknown)"));
  EXPECT_EQ(errorOf(survivor.call(message("match", {{"flags", 0x200}}))),
            "11: unauthorized discovery flag (ABDiscoverAll)");
}

TEST_F(Requests, Every1000thRequestOfAClientIsCounted) {
  const std::string line = "client " + std::to_string(getpid()) + " used ";
  WireClient other = daemon.connect();
  for (int i = 0; i < 999; ++i) client.call(message("bulk"));
  for (int i = 0; i < 10; ++i) other.call(message("bulk"));
  EXPECT_FALSE(daemon.logs(line));
  client.call({{"version", 9}});
  EXPECT_TRUE(daemon.logs(line + "1000 requests so far"));
  for (int i = 0; i < 1000; ++i) client.call(message("bulk"));
  EXPECT_TRUE(daemon.logs(line + "2000 requests so far"));
  EXPECT_EQ(daemon.logCount(line), 2u);
}

TEST(Verbosity, DecidesWhatIsLogged) {
  const DeviceRoot root;
  root.install("A.app", {{.identifier = "percent.%d%s%@"}});
  for (const size_t verbosity : {0u, 1u, 2u}) {
    Daemon daemon(root, {.arguments = std::vector<std::string>(verbosity, "-v")});
    WireClient client = daemon.connect();
    const UUID uuid = uuidOf(client, "percent.%d%s%@");
    const Dictionary reply = client.call(
        message("annotate", {{"uuids", uuidArray({uuid})}, {"annotations", Dictionary{{"election", 7}}}}));
    EXPECT_EQ(errorOf(reply), "");
    EXPECT_TRUE(daemon.logs(" plug-in percent.%d%s%@ election := 7")) << "always, and written as it is";
    EXPECT_EQ(daemon.logs("request annotate"), verbosity >= 1);
    EXPECT_EQ(daemon.logs("incoming request "), verbosity >= 2);
    EXPECT_EQ(daemon.logs("Replying "), verbosity >= 2);
  }
}

}  // namespace
}  // namespace testsupport
