// The message service as its peers see it: frames, limits, deaths, names, over real sockets.

#include <sched.h>
#include <sys/mount.h>

#include <algorithm>
#include <fstream>
#include <future>
#include <latch>

#include "platform/qmx/Encoding.h"
#include "platform/qmx/Limits.h"
#include "platform/system/Directories.h"
#include "platform/system/ServiceManager.h"
#include "tests/support/Child.h"
#include "tests/support/Daemon.h"
#include "tests/support/EchoService.h"
#include "tests/support/ThisProcess.h"

namespace testsupport {
namespace {

using namespace std::literals;
using namespace platform::qmx;

const DeviceRoot& device = thisDevice();

/// One frame around any bytes.
std::string framed(std::string_view contents) {
  std::string frame;
  for (int shift = 24; shift >= 0; shift -= 8) frame += static_cast<char>(contents.size() >> shift);
  return frame += contents;
}

/// A request whose frame has exactly `size` bytes after its length field.
std::string requestOfSize(size_t size) {
  const size_t overhead =
      frameBytes(FrameKind::request, 1, Dictionary{{"x", Data(std::string(70000, 'x'))}}).size() - 4 - 70000;
  return frameBytes(FrameKind::request, 1, Dictionary{{"x", Data(std::string(size - overhead, 'x'))}});
}

// --- Frames ---

TEST(FramesTest, areReadHoweverTheirBytesArriveUpToTheLimits) {
  EchoService service("frames");
  WireClient client = service.connect();
  std::string all;
  for (uint64_t i = 1; i <= 500; ++i) all += frameBytes(FrameKind::request, i, Dictionary());
  client.sendBytes(all);
  for (uint64_t i = 1; i <= 500; ++i) ASSERT_EQ(client.receive().value().id, i);
  for (const char byte : frameBytes(FrameKind::request, ~uint64_t{0}, Dictionary{{"slow", true}})) {
    client.sendBytes({&byte, 1});
    std::this_thread::sleep_for(1ms);
  }
  EXPECT_EQ(client.receive().value().id, ~uint64_t{0});
  // Longer heads than needed.
  client.sendBytes(framed(std::string("\x98\x03\x18\x01\x1b\0\0\0\0\0\0\0\x2a\xb8\x00", 15)));
  EXPECT_EQ(client.receive().value().id, 42u);
  client.sendBytes(requestOfSize(kMaximumRequestFrame));
  EXPECT_TRUE(client.receive());
}

TEST(FramesTest, thatAreOversizedOrMalformedAreLoggedOnceAndCloseTheirConnectionAlone) {
  const std::string empty = frameBytes(FrameKind::request, 1, Dictionary());
  std::vector<std::string> bad = {requestOfSize(kMaximumRequestFrame + 1)};
  // Nothing, no item, arrays of two and of four, other kinds, other ids, other bodies; too many arrays inside
  // each other (the frame's own and the body's map count).
  for (const std::string& contents :
       {""s, "garbage"s, "\x82\x01\xa0"s, "\x84\x01\x01\xa0\xa0"s, "\x83\x03\x01\xa0"s, "\x83\x02\x01\xa0"s,
        "\x83\xf5\x01\xa0"s, "\x83\x01\x20\xa0"s, "\x83\x01\x61\x31\xa0"s, "\x83\x01\x01\xf6"s,
        "\x83\x01\x01\xbf\xff"s, "\x83\x01\x1b\0\0\0\0\0\0\0\1"s,
        "\x83\x01\x07\xa1\x61x" + std::string(kMaximumNesting - 2, '\x81') + "\x80"})
    bad.push_back(framed(contents));
  EchoService service("malformed");
  WireClient other = service.connect();
  const auto log = logOf([&] {
    for (size_t i = 0; i < bad.size(); ++i) {
      WireClient client = service.connect();
      // What came before it is served, what comes after is not.
      client.sendBytes(frameBytes(FrameKind::request, 5, Dictionary()) + bad[i] + empty + empty);
      EXPECT_EQ(client.receive().value().id, 5u) << i;
      EXPECT_TRUE(client.isClosedByPeer()) << i;
      EXPECT_TRUE(service.waitFor("-", i + 1)) << i;
    }
  });
  EXPECT_EQ(entriesWith(log, "a malformed frame"), bad.size() - 1);
  EXPECT_EQ(entriesWith(log, "an oversized frame"), 1u);
  EXPECT_EQ(log.size(), bad.size());
  EXPECT_EQ(other.call({{"still", "here"}})["still"], Value("here"));
}

TEST(FramesTest, thatCarryLargeRepliesArriveWhole) {
  EchoService service("large");
  WireClient client = service.connect();
  for (const size_t size : {2047u, 2048u, 70'000u, 30'000'000u}) {
    const Dictionary reply = client.call({{"size", size}, {"z", "after the list"}});
    EXPECT_EQ(reply["list"].encoded()->joined(), encodedOfSize(size).joined());
    EXPECT_EQ(reply["z"], Value("after the list"));
  }
}

// --- Deaths ---

TEST(DeathTest, isNoticedBeforeTheNextOfTheWaitingRequests) {
  EchoService service("waiting");
  WireClient slow = service.connect(), other = service.connect();
  ASSERT_TRUE(service.waitFor("+", 2));
  std::string requests;
  for (const char* tag : {"a", "b", "c"})
    requests += frameBytes(FrameKind::request, 1, Dictionary{{"tag", tag}, {"sleep", 250}});
  slow.sendBytes(requests);
  ASSERT_TRUE(service.waitFor("a"));
  other.close();
  EXPECT_TRUE(service.waitFor("c"));
  EXPECT_EQ(service.history(), "++ma-mbmc");
  // The replies did not wait for one another either.
  EXPECT_TRUE(slow.receive());
}

TEST(DeathTest, dropsWhatWaitsBehindOthersAloneAndWritesRepliesThatAreDue) {
  constexpr size_t kSize = 20'000'000;
  for (const bool othersWait : {false, true}) {
    EchoService service("due");
    WireClient client = service.connect(), other = service.connect();
    client.send({{"size", kSize}, {"tag", "a"}});
    ASSERT_TRUE(service.waitFor("a"));
    other.send({{"sleep", 300}, {"tag", "o"}});
    if (othersWait) other.send({{"tag", "p"}});
    ASSERT_TRUE(service.waitFor("o"));
    client.send({{"tag", "b"}});
    client.send({{"tag", "c"}});
    client.shutdownSending();
    ASSERT_TRUE(service.waitFor("-"));
    EXPECT_EQ(client.receive().value().body["list"].encoded()->size(), kSize);
    if (othersWait) {
      ASSERT_TRUE(service.waitFor("p"));
      // What had arrived was handed over before the end, and its service found the connection gone.
      EXPECT_EQ(service.history(), "++mamomm-mp");
    } else {
      EXPECT_EQ(client.receive().value().body["tag"], Value("b"));
      EXPECT_EQ(client.receive().value().body["tag"], Value("c"));
      EXPECT_EQ(service.history(), "++mamombmc-");
    }
    EXPECT_TRUE(client.isClosedByPeer());
  }
}

TEST(DeathTest, waitsForAllThatAnIdleServiceHadWaitingHoweverMuchItIs) {
  EchoService service("ending");
  WireClient client = service.connect();
  constexpr uint64_t kRequests = 10 * kMaximumPendingRequests;
  std::string all;
  // More than 64 MiB of replies, some of which take longer than a turn.
  for (uint64_t id = 1; id <= kRequests; ++id)
    all += frameBytes(FrameKind::request, id, Dictionary{{"size", 200'000}, {"sleep", id % 10 / 9}});
  client.sendBytes(all + "\1\2\3");
  client.shutdownSending();
  for (uint64_t id = 1; id <= kRequests; ++id) ASSERT_EQ(client.receive().value().id, id);
  EXPECT_TRUE(client.isClosedByPeer());
  // Nobody reads what it would write.
  WireClient gone = service.connect();
  gone.sendBytes(all);
  gone.close();
  EXPECT_TRUE(service.waitFor("-", 2));
  EXPECT_TRUE(service.waitFor("m", 2 * kRequests));
}

// --- Limits ---

TEST(LimitsTest, leaveRequestsThatAreTooManyInTheSocket) {
  EchoService service("pending");
  WireClient client = service.connect();
  const std::string request =
      frameBytes(FrameKind::message, 0, Dictionary{{"sleep", 1}, {"x", Data(std::string(150, 'x'))}});
  constexpr size_t kRequests = 1000;
  size_t mostWaiting = 0;
  for (size_t sent = 1; sent <= kRequests; ++sent) {
    client.sendBytes(request);
    mostWaiting =
        std::max(mostWaiting, sent - static_cast<size_t>(std::ranges::count(service.history(), 'm')));
  }
  // The last read may bring some more than the limit, and the socket holds what its buffer takes.
  constexpr size_t kOneRead = 16u << 10, kLeastInBuffer = 700;
  int buffer = 0;
  socklen_t size = sizeof buffer;
  getsockopt(client.fd(), SOL_SOCKET, SO_SNDBUF, &buffer, &size);
  EXPECT_LE(mostWaiting, kMaximumPendingRequests + kOneRead / request.size() +
                             static_cast<size_t>(buffer) / kLeastInBuffer);
  EXPECT_TRUE(service.waitFor("m", kRequests));
}

TEST(LimitsTest, onConnectionsOfOneProcessRefuseTheNextOne) {
  EchoService service("many");
  std::vector<WireClient> clients;
  for (size_t i = 0; i < kMaximumConnectionsPerProcess; ++i) clients.push_back(service.connect());
  EXPECT_TRUE(service.waitFor("+", kMaximumConnectionsPerProcess));
  clients.back().call({});
  for (int i = 0; i < 2; ++i) EXPECT_TRUE(service.connect().isClosedByPeer());
  clients.front().close();
  EXPECT_TRUE(service.waitFor("-"));
  service.connect().call({});
  // Another process has a share of its own.
  EXPECT_TRUE(holdsInProcess([&] { return !service.connect().call({}).contains("error"); }));
}

TEST(LimitsTest, onTimeCloseHalfFramesAndPeersThatTakeNothing) {
  EchoService service("time");
  const std::string frame = frameBytes(FrameKind::request, 1, Dictionary{{"late", true}});
  WireClient half = service.connect(), late = service.connect(), deaf = service.connect(),
             slow = service.connect();
  half.sendBytes(frame.substr(0, 2));
  late.sendBytes(frame + frame.substr(0, 5));
  for (WireClient* each : {&deaf, &slow}) each->send({{"size", 20'000'000}});
  EXPECT_TRUE(late.receive());
  std::jthread taker([&slow] {
    // Takes a little now and then.
    for (int i = 0; i < 3; ++i) {
      std::vector<char> some(1'000'000);
      EXPECT_GT(recv(slow.fd(), some.data(), some.size(), MSG_WAITALL), 0);
      std::this_thread::sleep_for(10s);
    }
  });
  std::this_thread::sleep_for(kFrameTimeout - 1s);
  EXPECT_EQ(service.history().find('-'), std::string::npos);
  late.sendBytes(frame.substr(5));
  EXPECT_TRUE(late.receive());
  EXPECT_TRUE(half.isClosedByPeer());
  EXPECT_TRUE(late.isSilent());
  EXPECT_TRUE(service.waitFor("-", 2));
  taker.join();
  slow.sendFrame(FrameKind::message, 0, Dictionary{{"tag", "alive"}});
  EXPECT_TRUE(service.waitFor("alive"));
}

// --- Who the peer is, and the service's socket ---

TEST(PeerIdentityTest, hasTheExecutableThatReplacedItsOwnAndNoOther) {
  const FileDescriptor listening = listeningSocket(servicePath("moved"));
  const std::string program = device.path() + "/program";
  fs::copy_file("/bin/sleep", program);
  const Child moved([&] {
    WireClient::connect(servicePath("moved"));
    execl(program.c_str(), "sleep", "100", nullptr);
    return false;
  });
  const FileDescriptor socket(accept4(listening.get(), nullptr, nullptr, SOCK_CLOEXEC));
  EXPECT_EQ(PeerIdentity::ofSocket(socket.get())->executablePath(), program);
  const auto connected = PeerIdentity::ofSocket(socket.get());
  const auto isKnown = [&] {
    const auto identity = PeerIdentity::ofSocket(socket.get());
    EXPECT_TRUE(identity->isAlive() && connected->runsSameImage());
    EXPECT_TRUE(!identity->executablePath() || *identity->executablePath() == program);
    return identity->executablePath().has_value();
  };
  fs::remove(program);
  EXPECT_FALSE(isKnown());
  fs::copy_file("/bin/sleep", program);
  EXPECT_TRUE(isKnown()) << "an update";
  fs::permissions(program, fs::perms::owner_read);
  EXPECT_FALSE(isKnown()) << "no executable";
  fs::remove(program);
  fs::create_symlink("/bin/sleep", program);
  EXPECT_FALSE(isKnown()) << "a link";
  if (geteuid() != 0) GTEST_SKIP() << "only root can give a file away";
  fs::remove(program);
  fs::copy_file("/bin/sleep", program);
  ASSERT_EQ(chown(program.c_str(), 12345, 12345), 0);
  EXPECT_FALSE(isKnown()) << "someone else's";
}

TEST(PeerIdentityTest, isNotTakenFromAPathOfAnotherMountNamespace) {
  const FileDescriptor listening = listeningSocket(servicePath("mounted"));
  const std::string place = device.path() + "/mounted", program = place + "/program";
  fs::create_directory(place);
  fs::copy_file("/bin/sh", program);
  const Child impostor([&] {
    WireClient::connect(servicePath("mounted"));
    const uid_t user = geteuid();
    if (unshare(user == 0 ? CLONE_NEWNS : CLONE_NEWNS | CLONE_NEWUSER) != 0) return false;
    if (user != 0) std::ofstream("/proc/self/uid_map") << user << ' ' << user << " 1";
    mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr);
    if (mount("none", place.c_str(), "tmpfs", 0, "") != 0) return false;
    std::error_code failure;
    fs::copy_file("/bin/sh", program, failure);
    const std::string script = "/bin/rm " + program + "; kill -STOP $$";
    execl(program.c_str(), program.c_str(), "-c", script.c_str(), nullptr);
    return false;
  });
  const FileDescriptor socket(accept4(listening.get(), nullptr, nullptr, SOCK_CLOEXEC));
  const std::string link = "/proc/" + std::to_string(impostor.pid()) + "/exe";
  std::error_code error;
  if (!eventually(
          [&] {
            const auto target = fs::read_symlink(link, error).string();
            return target == program + " (deleted)" ||
                   (error && !PeerIdentity::ofSocket(socket.get())->isAlive());
          },
          5s) ||
      error)
    GTEST_SKIP() << "no namespaces may be made here";
  EXPECT_FALSE(PeerIdentity::ofSocket(socket.get())->executablePath());
}

/// The error number of an attempt to listen; 0 when it succeeded.
int64_t failureToListen(const std::string& name) {
  static RunLoop loop;
  static SerialQueue queue("qmx", loop);
  const auto result = Listener::create(name, queue, loop);
  const Error* error = std::get_if<Error>(&result);
  return error != nullptr ? error->code : 0;
}

TEST(ListenerTest, makesASocketForThisUserAloneWhereNothingElseIs) {
  for (const char* name : {".", ".."}) EXPECT_EQ(failureToListen(name), EINVAL) << name;
  const std::string longest(sizeof(sockaddr_un::sun_path) - servicePath("").size() - 1, 'n');
  EXPECT_EQ(failureToListen(longest + "n"), ENAMETOOLONG);
  const EchoService service(longest);
  EXPECT_EQ(fs::status(servicePath(longest)).permissions(), fs::perms(0600));
  EXPECT_EQ(fs::status(device.runtime()).permissions(), fs::perms(0700));
  const FileDescriptor foreign = listeningSocket(servicePath("foreign"));
  EXPECT_EQ(failureToListen("foreign"), EADDRINUSE);
  EXPECT_GE(WireClient::connect(servicePath("foreign")).fd(), 0);
  writeText(servicePath("file"), "not a socket");
  EXPECT_EQ(failureToListen("file"), EEXIST);
  EXPECT_EQ(readText(servicePath("file")), "not a socket");
}

// --- The service manager ---

TEST(ServiceManagerTest, handsOverSocketsThatAreFoundByTheirNames) {
  for (const std::vector<std::string>& names :
       {std::vector{"activated.second"s, "activated"s}, {"elsewhere"s}}) {
    std::vector<FileDescriptor> sockets;
    for (const auto& name : names) sockets.push_back(listeningSocket(device.path() + "/" + name));
    const Child daemon([&] {
      for (size_t i = 0; i < names.size(); ++i) dup2(sockets[i].get(), 10 + static_cast<int>(i));
      for (size_t i = 0; i < names.size(); ++i) dup2(10 + static_cast<int>(i), 3 + static_cast<int>(i));
      setenv("LISTEN_FDS", std::to_string(names.size()).c_str(), 1);
      setenv("LISTEN_PID", std::to_string(getpid()).c_str(), 1);
      platform::meetServiceManager();
      static EchoService service("activated"), second("activated.second"), own("own");
      return getenv("LISTEN_FDS") == nullptr && (fcntl(3, F_GETFD) & FD_CLOEXEC) != 0;
    });
    EXPECT_TRUE(daemon.isReady());
    for (const auto& name : names) {
      WireClient client = WireClient::connect(device.path() + "/" + name);
      EXPECT_EQ(client.call({{"a", 1}})["a"], Value(1));
    }
    EXPECT_FALSE(fs::exists(servicePath("activated")));
    EXPECT_EQ(fs::exists(servicePath("activated.second")), names.size() == 1);
    EXPECT_TRUE(fs::exists(servicePath("own")));
  }
}

TEST(ServiceManagerTest, hearsThatTheDaemonServesThatItsLoopTurnsAndThatItEnds) {
  const std::string path = device.path() + "/manager";
  const FileDescriptor manager(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  const sockaddr_un address = socketAddress(path);
  ASSERT_EQ(bind(manager.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
  const timeval patience{.tv_sec = 20, .tv_usec = 0};
  setsockopt(manager.get(), SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
  const auto next = [&manager] {
    char text[256];
    const ssize_t size = recv(manager.get(), text, sizeof text, 0);
    return std::string(text, static_cast<size_t>(std::max<ssize_t>(size, 0)));
  };
  for (const bool isWatched : {true, false}) {
    Process daemon({ABD_PROGRAM, "-S", "managed"},
                   device.environment({"NOTIFY_SOCKET=" + path, "WATCHDOG_USEC=200000",
                                       isWatched ? "NONE=" : "WATCHDOG_PID=1"}),
                   device.path() + "/managed.log");
    for (const char* text : {"STATUS=looking for plug-ins", "STATUS=idle", "READY=1"})
      ASSERT_EQ(next(), text);
    const auto ready = std::chrono::steady_clock::now();
    WireClient client = WireClient::connect(servicePath("managed"));
    EXPECT_TRUE(client.call({{"request", "bulk"}, {"version", 3}, {"flags", 0}}).empty());
    for (int sign = 0; isWatched && sign < 4; ++sign) ASSERT_EQ(next(), "WATCHDOG=1");
    const auto lived = std::chrono::steady_clock::now() - ready;
    EXPECT_TRUE(!isWatched || lived > 250ms)
        << "three signs of life at half of the time allowed between them";
    if (!isWatched) std::this_thread::sleep_for(300ms);
    daemon.signal(SIGTERM);
    EXPECT_EQ(daemon.waitForExit(), 128 + SIGTERM);
    std::string last = next();
    while (isWatched && last == "WATCHDOG=1") last = next();
    EXPECT_EQ(last, "STOPPING=1");
  }
}

// --- Clients ---

TEST(ClientTest, getsTheRepliesOfManyThreadsRequests) {
  EchoService service("client");
  std::atomic<int> events = 0;
  SerialQueue queue("client");
  const auto client = Connection::connect("client", queue);
  client->setEventHandler([&events](Event&&) { ++events; });
  client->resume();
  constexpr int kThreads = 4, kRequests = 500;
  std::latch all(kThreads * kRequests);
  const auto ask = [&](int number) {
    // Much in both directions at once, now and then.
    const size_t size = number % 50 == 0 ? 300'000 : 0;
    client->sendWithReply({{"n", number}, {"x", Data(std::string(size, 'x'))}, {"size", size}},
                          [&all, number](Connection::Reply&& reply) {
                            const auto* message = std::get_if<Message>(&reply);
                            EXPECT_TRUE(message != nullptr && message->body["n"] == Value(number));
                            all.count_down();
                          });
  };
  {
    std::vector<std::jthread> threads;
    for (int t = 0; t < kThreads; ++t)
      threads.emplace_back([&, t] {
        for (int i = 0; i < kRequests; ++i) ask(t * kRequests + i);
      });
  }
  all.wait();
  EXPECT_EQ(events, 0);
}

TEST(ClientTest, endsPendingRequestsWhenTheServiceBreaksTheRules) {
  for (const std::string& answer : {
           std::string(),                                       // closes
           framed("garbage"),                                   // malformed
           frameBytes(FrameKind::reply, 77, Dictionary()),      // nothing asked for it
           frameBytes(FrameKind::reply, 1, "no map"),           // no reply
           std::string("\xff\xff\xff\xf0\x83\x02\x01\xa0", 8),  // much is announced, little comes
       }) {
    const FileDescriptor listening = listeningSocket(servicePath("rogue"));
    std::string events;
    std::promise<std::string> failure;
    SerialQueue queue("client");
    const auto client = Connection::connect("rogue", queue);
    client->setEventHandler([&events](Event&& event) {
      const auto* error = std::get_if<ConnectionError>(&event);
      events += error != nullptr ? description(*error) : "message, ";
    });
    client->resume();
    client->sendWithReply({{"a", 1}}, [&failure](Connection::Reply&& reply) {
      const auto* error = std::get_if<ConnectionError>(&reply);
      failure.set_value(error != nullptr ? description(*error) : "message");
    });
    {
      WireClient peer(FileDescriptor(accept4(listening.get(), nullptr, nullptr, SOCK_CLOEXEC)));
      EXPECT_TRUE(peer.receive());
      peer.sendFrame(FrameKind::message, 0, Dictionary{{"hello", 1}});
      peer.sendBytes(answer);
    }
    EXPECT_EQ(failure.get_future().get(), "connection interrupted") << answer;
    EXPECT_EQ(queue.sync([&events] { return events; }), "message, connection interrupted") << answer;
  }
}

}  // namespace
}  // namespace testsupport
