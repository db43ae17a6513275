// "lock": holds on applications and on plug-ins, what they block, how they end.

#include <cstddef>

#include "tests/support/Child.h"
#include "tests/support/DaemonTest.h"

namespace testsupport {
namespace {

constexpr uint64_t kApplications = 1, kPlugIns = 2;

class Holds : public DaemonTest {
 protected:
  Holds() { start(); }
  Dictionary hold(WireClient& by, const Array& paths, uint64_t flags) {
    return by.call(message("lock", {{"paths", paths}, {"flags", flags}}));
  }
  /// A granted hold's token.
  UUID granted(WireClient& by, const Array& paths, uint64_t flags) {
    const Dictionary reply = hold(by, paths, flags);
    EXPECT_EQ(errorOf(reply), "");
    EXPECT_EQ(reply.size(), 1u);
    return reply["uuids"].uuid().value_or(UUID());
  }
  Dictionary release(const Array& tokens) { return call("lock", {{"uuids", tokens}}); }
  /// What a busy instance of a plug-in does: holds the write lock of its assertion file.
  FileDescriptor busyInstance(const std::string& identifier, const Dictionary& contents) const {
    const std::string path = root.runtime() + "/Assertions/" + identifier + "/instance";
    writePropertyList(path, contents);
    return lockedFile(path);
  }
  std::string plugIn(const std::string& identifier) const {
    return DeviceRoot::plugInPath(application, identifier);
  }

  const std::string application = root.install("A.app", {{.identifier = "one"}, {.identifier = "two"}});
  const std::string other = root.install("B.app", {{.identifier = "three"}});
  const std::string empty = root.install("C.app", {});
};

TEST_F(Holds, BlockDiscoveryAndReadinessUntilTheyAreReleased) {
  const UUID one = uuid("one");
  const UUID token = granted(*client, {plugIn("one")}, kPlugIns);
  EXPECT_NE(token, UUID());
  EXPECT_TRUE(daemon->logs("hold request granted uuid:" + token.string()));
  EXPECT_EQ(root.changeNotifications(), 1u);
  EXPECT_EQ(found(), "three two");
  EXPECT_EQ(error("ready", {{"uuids", Array{one}}}),
            "11: access to plugin one denied: the plug-in is on hold");
  // It stays when its plug-in is uninstalled.
  for (const char* request : {"remove", "add"})
    ASSERT_EQ(error(request, {{"paths", Array{plugIn("one")}}}), "");

  EXPECT_EQ(Value(release({token})), Value(Dictionary()));
  EXPECT_EQ(found(), "one three two");
  EXPECT_EQ(Value(release({token, UUID::random()})), Value(Dictionary())) << "unknown tokens are ignored";
  EXPECT_TRUE(daemon->logs("releasing plug-in hold " + token.string() + " at client's request"));
  EXPECT_EQ(daemon->logCount("releasing plug-in hold"), 1u);
  EXPECT_EQ(root.changeNotifications(), 2u);
}

TEST_F(Holds, OfWholeApplicationsTakeEveryPlugInInside) {
  const UUID token = granted(*client, {application, empty, application}, kApplications);
  EXPECT_EQ(root.changeNotifications(), 1u);
  EXPECT_EQ(found(), "three");
  const UUID second = granted(*client, {plugIn("two"), plugIn("two")}, kPlugIns);
  release({token});
  EXPECT_EQ(found(), "one three") << "two holds block until both are released";
  release({second});
  granted(*client, {empty, root.path()}, kApplications);
  granted(*client, Array(), 77);
  EXPECT_EQ(found(), "one three two") << "holds on no plug-ins";
}

TEST_F(Holds, AreNotMadeWhenAPathOrTheFlagsAreWrong) {
  const std::string missing = root.path() + "/nothing";
  for (const auto& [wrong, error] : {std::pair<Value, std::string>(missing, "9: invalid path: " + missing),
                                     {application, "9: no plug-in at path:" + application},
                                     {"relative", "9: absolute path required: relative"},
                                     {5, "4: invalid request format"}})
    EXPECT_EQ(errorOf(hold(*client, {plugIn("one"), wrong}, kPlugIns)), error);
  EXPECT_TRUE(daemon->logs("Hollin cannot find plug-in at path:" + application));
  for (const uint64_t flags : {0u, 3u, 0x101u})
    EXPECT_EQ(errorOf(hold(*client, {application}, flags)),
              "4: invalid request format (unsupported hold flags)");
  EXPECT_EQ(errorOf(hold(*client, {missing}, 0)), "9: invalid path: " + missing)
      << "a path is judged before the flags";
  EXPECT_EQ(found(), "one three two");
  EXPECT_EQ(root.changeNotifications(), 0u);
}

TEST_F(Holds, AReleaseIsWhateverCarriesTokensAndStopsAtWhatIsNone) {
  const UUID first = granted(*client, {plugIn("one")}, kPlugIns);
  const UUID second = granted(*client, {plugIn("two")}, kPlugIns);
  EXPECT_EQ(errorOf(release({first, "text", second})), "4: invalid request (bad uuid array)");
  EXPECT_EQ(found(), "one three") << "what came before stays released";
  Dictionary request = {{"uuids", Array{second}}, {"paths", Array{plugIn("one")}}, {"flags", kPlugIns}};
  EXPECT_EQ(Value(call("lock", request)), Value(Dictionary())) << "the paths are ignored";
  EXPECT_EQ(found(), "one three two");
  request.set("uuids", "no array");
  EXPECT_TRUE(call("lock", request).contains("uuids")) << "tokens of another type count as absent";
}

TEST_F(Holds, OfApplicationsAreRefusedWhileAPlugInIsBusy) {
  FileDescriptor busy = busyInstance("two", {{"BundleIdentifier", "two"}}),
                 nameless = busyInstance("one", {{"Other", 1}});
  ASSERT_TRUE(busy && nameless);
  const Dictionary refusal = hold(*client, {application, other, application}, kApplications);
  EXPECT_EQ(errorOf(refusal), "14: plug-ins are busy");
  const Dictionary conflict = {{"BundleIdentifier", "two"}};
  EXPECT_EQ(refusal["conflicts"], Value(Array{conflict, conflict})) << "as often as it was named";
  EXPECT_TRUE(daemon->logs("hold rejected. Busy plug-ins:(two("));
  EXPECT_TRUE(daemon->logs("marrowd reported incomplete bundle for plug-in one"));
  EXPECT_EQ(found(), "one three two");
  EXPECT_EQ(root.changeNotifications(), 0u);
  granted(*client, {plugIn("two")}, kPlugIns);
  EXPECT_EQ(found(), "one three") << "single plug-ins are held though they run";
  for (FileDescriptor* each : {&busy, &nameless}) *each = FileDescriptor();
  granted(*client, {application}, kApplications);
  EXPECT_EQ(found(), "three") << "a file that nobody locks is no busy instance";
}

TEST_F(Holds, EndWithTheirClientAndNoOther) {
  Host host(root, *daemon, root.path() + "/hosts/Holder.app");
  const UUID tokens[] = {granted(host.client(), {plugIn("one")}, kPlugIns),
                         granted(host.client(), {plugIn("two")}, kPlugIns),
                         granted(host.client(), Array(), kPlugIns)};
  const UUID mine = granted(*client, {plugIn("one")}, kPlugIns);
  EXPECT_EQ(found(), "three");
  const size_t notifications = root.changeNotifications();
  const std::string pid = std::to_string(host.pid());
  host.kill();
  ASSERT_TRUE(daemon->waitForLog("client " + pid + " is dead"));
  for (const UUID& token : tokens)
    EXPECT_TRUE(daemon->logs("releasing plug-in hold " + token.string() + " for dead client pid " + pid));
  EXPECT_EQ(daemon->logCount("releasing plug-in hold"), 3u);
  EXPECT_EQ(root.changeNotifications(), notifications + 3);
  EXPECT_EQ(found(), "three two") << "the hold of another client stays";
  release({mine});
  EXPECT_EQ(found(), "one three two");
}

TEST_F(Holds, MarkTheDaemonBusyForAServiceManagerThatNeverBlocksIt) {
  // The manager's socket under an abstract name.
  const FileDescriptor manager(::socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  const std::string name = "abd-test-" + std::to_string(getpid());
  const sockaddr_un address = socketAddress('\0' + name);
  const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + name.size());
  ASSERT_EQ(bind(manager.get(), reinterpret_cast<const sockaddr*>(&address), length), 0);
  const auto lastText = [&manager] {
    char buffer[256];
    std::string text;
    for (ssize_t size; (size = recv(manager.get(), buffer, sizeof buffer, 0)) >= 0;)
      text.assign(buffer, static_cast<size_t>(size));
    return text;
  };
  start({.environment = {"NOTIFY_SOCKET=@" + name}});
  const UUID first = granted(*client, {plugIn("one"), plugIn("two")}, kPlugIns);
  EXPECT_EQ(lastText(), "STATUS=busy (1)");
  // Far more texts than the unread socket has room for.
  for (int i = 0; i < 300; ++i) release({granted(*client, {plugIn("one")}, kPlugIns)});
  lastText();
  release({first});
  EXPECT_EQ(lastText(), "STATUS=idle");
}

}  // namespace
}  // namespace testsupport
