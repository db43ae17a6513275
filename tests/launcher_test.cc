#include "platform/launcher/ServiceLauncher.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <filesystem>
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "platform/launcher/ProcessAssertions.h"
#include "platform/propertylist/PropertyList.h"
#include "platform/queue/SerialQueue.h"
#include "tests/support/OwnDevice.h"

namespace {

using namespace platform;
using namespace testsupport;
namespace fs = std::filesystem;

/// A process that lives until it is killed, and stays a zombie until it is waited for.
class Child {
 public:
  Child() : pid_(fork()) {
    while (pid_ == 0) pause();
  }
  ~Child() { end(); }
  pid_t pid() const { return pid_; }
  void kill() const { ::kill(pid_, SIGKILL); }
  void end() {
    if (pid_ <= 0) return;
    kill();
    waitpid(pid_, nullptr, 0);
    pid_ = -1;
  }

 private:
  pid_t pid_;
};

template <typename F>
bool eventually(const F& condition) {
  for (int i = 0; i < 1000 && !condition(); ++i) usleep(2000);
  return condition();
}

class LauncherTest : public testing::Test {
 protected:
  LauncherTest() {
    clearOwnDevice();
    writeText(executable_, "#!/bin/sh\n", 0755);
  }

  int add(pid_t host, const ExternalService& service) const {
    return addExternalService(host, executable_, {{"QMXService", Dictionary()}}, service);
  }
  int add(pid_t host) const { return add(host, service_); }
  int32_t remove(const std::string& identifier, const std::string& version) {
    std::promise<int32_t> result;
    removeExternalService(identifier, version, queue_, [this, &result](int32_t code) {
      EXPECT_TRUE(queue_.isCurrent());
      result.set_value(code);
    });
    return result.get_future().get();
  }
  std::string hostDirectory(pid_t host) const {
    return ownDevice.runtime() + "/Launcher/" + std::to_string(host);
  }
  std::string file(pid_t host) const {
    return hostDirectory(host) + "/" + service_.plugInUUID.string() + ".plist";
  }

  const std::string executable_ = ownDevice.path() + "/P.appex/main";
  const ExternalService service_{UUID::random(), "com.example.plugin", "com.example.bundle", "3"};
  SerialQueue queue_{"results"};
};

TEST_F(LauncherTest, AHostReadsWhatItWasAllowedToStart) {
  const Dictionary description{{"QMXService", Dictionary{{"_SandboxProfile", "plugin"}}},
                               {"BWBundlePackageType", "QMX!"}};
  ASSERT_EQ(addExternalService(getpid(), executable_, description, service_), 0);
  const auto registration = externalService(getpid(), service_.plugInUUID);
  ASSERT_TRUE(registration);
  EXPECT_EQ((*registration)["PlugInIdentifier"], Value("com.example.plugin"));
  EXPECT_EQ((*registration)[kLauncherBundleIdentifierKey], Value("com.example.bundle"));
  EXPECT_EQ((*registration)["BundleVersion"], Value("3"));
  EXPECT_EQ((*registration)["ExecutablePath"], Value(executable_));
  EXPECT_EQ((*registration)["LaunchDescription"], Value(description));
  EXPECT_EQ(fs::status(file(getpid())).permissions(), fs::perms::owner_read | fs::perms::owner_write);

  ASSERT_EQ(add(getpid()), 0) << "a second registration takes the place of the first";
  EXPECT_EQ((*externalService(getpid(), service_.plugInUUID))["LaunchDescription"],
            Value(Dictionary{{"QMXService", Dictionary()}}));
  EXPECT_EQ(externalService(getppid(), service_.plugInUUID), std::nullopt) << "it is this host's alone";
}

TEST_F(LauncherTest, RefusalsAreErrorNumbersAndLeaveNothing) {
  Child host;
  const auto addExecutable = [&](const std::string& path, const Dictionary& description = {}) {
    return addExternalService(host.pid(), path, description, service_);
  };
  EXPECT_EQ(addExecutable(ownDevice.path() + "/P.appex/missing"), ENOENT);
  EXPECT_EQ(addExecutable(ownDevice.path() + "/P.appex"), EACCES) << "a directory cannot be run";
  writeText(ownDevice.path() + "/P.appex/text", "", 0644);
  EXPECT_EQ(addExecutable(ownDevice.path() + "/P.appex/text"), EACCES);
  EXPECT_EQ(addExecutable(executable_, {{"QMXService", Value(UUID::random())}}), EINVAL);
  EXPECT_FALSE(fs::exists(file(host.pid())));
  writeText(ownDevice.runtime() + "/Launcher", "in the way");
  EXPECT_EQ(add(host.pid()), ENOTDIR);
  fs::remove(ownDevice.runtime() + "/Launcher");
  host.kill();
  EXPECT_TRUE(eventually([&] { return add(host.pid()) == ESRCH; })) << "a zombie starts nothing";
  host.end();
  EXPECT_EQ(add(0), ESRCH);
  EXPECT_EQ(add(-1), ESRCH);
}

TEST_F(LauncherTest, ARemovalTakesEveryRegistrationOfTheIdentifierAndVersion) {
  Child first, second;
  ExternalService other = service_, later = service_;
  other.plugInUUID = UUID::random();  // of the same bundle
  later.plugInUUID = UUID::random();
  later.bundleVersion = "4";
  ASSERT_EQ(add(first.pid()) + add(second.pid()) + add(second.pid(), other) + add(second.pid(), later), 0);
  EXPECT_EQ(remove("com.example.bundle", "5"), kRemovalNoSuchService);
  EXPECT_EQ(remove("com.example.bundle", "3"), kRemovalDone);
  EXPECT_FALSE(externalService(first.pid(), service_.plugInUUID));
  EXPECT_FALSE(externalService(second.pid(), service_.plugInUUID));
  EXPECT_FALSE(externalService(second.pid(), other.plugInUUID));
  EXPECT_TRUE(externalService(second.pid(), later.plugInUUID));
  EXPECT_EQ(remove("com.example.bundle", "3"), kRemovalNoSuchService);
}

TEST_F(LauncherTest, ARemovalSparesWhatIsRegisteredAfterIt) {
  ASSERT_EQ(add(getpid()), 0);
  // Keeps the background thread busy until the plug-in is there again.
  std::promise<void> isRegisteredAgain;
  RunLoop::background().async([&isRegisteredAgain] { isRegisteredAgain.get_future().wait(); });
  std::promise<int32_t> result;
  removeExternalService("com.example.bundle", "3", queue_,
                        [&result](int32_t code) { result.set_value(code); });
  ASSERT_EQ(add(getpid()), 0);
  isRegisteredAgain.set_value();
  result.get_future().wait();
  EXPECT_TRUE(externalService(getpid(), service_.plugInUUID));
}

TEST_F(LauncherTest, RegistrationsOfDeadHostsAreSwept) {
  Child dead;
  const pid_t pid = dead.pid();
  ASSERT_EQ(add(pid), 0);
  writeText(hostDirectory(pid) + "/.unfinished", "");
  dead.end();
  EXPECT_FALSE(externalService(pid, service_.plugInUUID));
  ASSERT_EQ(add(getpid()), 0);
  EXPECT_TRUE(eventually([&] { return !fs::exists(hostDirectory(pid)); }));
  EXPECT_TRUE(externalService(getpid(), service_.plugInUUID));
}

TEST_F(LauncherTest, ARegistrationForAnEarlierProcessOfTheSameIdIsNotTheHosts) {
  ASSERT_EQ(add(getpid()), 0);
  Dictionary stale = *externalService(getpid(), service_.plugInUUID);
  stale.set("HostStartTime", stale["HostStartTime"].unsignedValue() - 1);
  writePropertyList(file(getpid()), stale);
  EXPECT_FALSE(externalService(getpid(), service_.plugInUUID));
  remove("com.example.other", "1");
  EXPECT_FALSE(fs::exists(file(getpid()))) << "swept";
}

TEST_F(LauncherTest, HostsComeAndGoWhileOthersAreSwept) {
  std::atomic<int> failures{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 3; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < 60; ++i) {
        ExternalService service = service_;
        service.plugInUUID = UUID::random();
        Child host;
        if (add(host.pid(), service) != 0 || !externalService(host.pid(), service.plugInUUID)) ++failures;
      }
    });
  }
  for (int i = 0; i < 60; ++i) remove("com.example.none", "1");
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(failures, 0);
  remove("com.example.none", "1");
  EXPECT_TRUE(fs::is_empty(ownDevice.runtime() + "/Launcher"));
}

/// A service manager's socket under an abstract name; $NOTIFY_SOCKET is read at the first marking.
class ServiceManager {
 public:
  ServiceManager() : socket_(::socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK, 0)) {
    const std::string name = "abd-test-" + std::to_string(getpid());
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path + 1, name.data(), name.size());
    const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + name.size());
    EXPECT_EQ(bind(socket_, reinterpret_cast<const sockaddr*>(&address), length), 0);
    setenv("NOTIFY_SOCKET", ("@" + name).c_str(), 1);
  }
  ~ServiceManager() { close(socket_); }
  /// The last text that was sent, "" for none.
  std::string lastText() const {
    char buffer[256];
    std::string text;
    for (ssize_t length; (length = recv(socket_, buffer, sizeof buffer, 0)) >= 0;)
      text.assign(buffer, static_cast<size_t>(length));
    return text;
  }

 private:
  int socket_;
};

TEST(BusyMarkings, TheServiceManagerSeesHowManyAreOpenAndNeverBlocksThem) {
  const ServiceManager manager;
  EXPECT_EQ(BusyMarking::count(), 0u);
  {
    const BusyMarking first;
    EXPECT_EQ(manager.lastText(), "STATUS=busy (1)");
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
      threads.emplace_back([] {
        // Far more texts than the unread socket has room for.
        for (int i = 0; i < 200; ++i) const BusyMarking marking;
      });
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(BusyMarking::count(), 1u);
    manager.lastText();
  }
  EXPECT_EQ(BusyMarking::count(), 0u);
  EXPECT_EQ(manager.lastText(), "STATUS=idle");
}

class AssertionsTest : public testing::Test {
 protected:
  AssertionsTest() { clearOwnDevice(); }
  static size_t files(const std::string& bundle) {
    std::error_code missing;
    const fs::directory_iterator files(ownDevice.runtime() + "/Assertions/" + bundle, missing);
    return static_cast<size_t>(std::distance(begin(files), end(files)));
  }
  const std::set<std::string> bundle_{"com.example.a"};
};

TEST_F(AssertionsTest, AnInstanceIsBusyWhileItsAssertionLives) {
  EXPECT_TRUE(busyExtensionInstances(bundle_).empty());
  auto first = BusyAssertion::take("com.example.a");
  const auto second = BusyAssertion::take("com.example.a");
  const auto other = BusyAssertion::take("com.example.b");
  ASSERT_TRUE(first && second && other);
  const auto busy = busyExtensionInstances(bundle_);
  ASSERT_EQ(busy.size(), 2u);
  EXPECT_EQ(busy[0], (Dictionary{{"BundleIdentifier", "com.example.a"}}));
  EXPECT_EQ(busyExtensionInstances({"com.example.a", "com.example.b", "com.example.c"}).size(), 3u);
  first.reset();
  EXPECT_EQ(busyExtensionInstances(bundle_).size(), 1u);
  EXPECT_EQ(files("com.example.a"), 1u);
}

TEST_F(AssertionsTest, AnInstanceThatIsKilledIsNoLongerBusy) {
  int ready[2];
  ASSERT_EQ(pipe(ready), 0);
  const pid_t child = fork();
  if (child == 0) {
    const auto assertion = BusyAssertion::take("com.example.a");
    if (write(ready[1], assertion ? "y" : "n", 1) == 1) pause();
    _exit(1);
  }
  char answer = 0;
  ASSERT_EQ(read(ready[0], &answer, 1), 1);
  EXPECT_EQ(answer, 'y');
  EXPECT_EQ(busyExtensionInstances(bundle_).size(), 1u);
  kill(child, SIGKILL);
  waitpid(child, nullptr, 0);
  EXPECT_TRUE(busyExtensionInstances(bundle_).empty());
  EXPECT_EQ(files("com.example.a"), 1u) << "asking changes nothing";
  const auto next = BusyAssertion::take("com.example.a");
  EXPECT_EQ(files("com.example.a"), 1u) << "the next instance clears what dead ones left";
  close(ready[0]);
  close(ready[1]);
}

TEST_F(AssertionsTest, OnlyAWriteLockCountsAndWhatItsFileDoesNotSayIsLeftOut) {
  const std::string path = ownDevice.runtime() + "/Assertions/com.example.a/instance";
  writeText(path, "no property list");
  const int file = open(path.c_str(), O_RDWR);
  struct flock lock {};
  lock.l_whence = SEEK_SET;
  lock.l_type = F_RDLCK;
  ASSERT_EQ(fcntl(file, F_OFD_SETLK, &lock), 0);
  EXPECT_TRUE(busyExtensionInstances(bundle_).empty());
  lock.l_type = F_WRLCK;
  ASSERT_EQ(fcntl(file, F_OFD_SETLK, &lock), 0);
  EXPECT_EQ(busyExtensionInstances(bundle_), std::vector<Dictionary>{Dictionary()});
  close(file);
  ASSERT_EQ(mkfifo((path + "-fifo").c_str(), 0600), 0);
  EXPECT_TRUE(busyExtensionInstances(bundle_).empty()) << "and nothing blocks";
}

TEST_F(AssertionsTest, AnIdentifierThatIsNoFileNameHasNoInstances) {
  const auto escape = BusyAssertion::take("../Launcher");
  EXPECT_EQ(escape, nullptr);
  EXPECT_EQ(errno, EINVAL);
  EXPECT_TRUE(busyExtensionInstances({"..", "", "a/b"}).empty());
}

}  // namespace
