#include "platform/launcher/ServiceLauncher.h"

#include <future>
#include <thread>

#include "platform/launcher/ProcessAssertions.h"
#include "tests/support/Child.h"
#include "tests/support/Daemon.h"
#include "tests/support/ThisProcess.h"

namespace {

using namespace platform;
using namespace testsupport;

const DeviceRoot& ownDevice = thisDevice();

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
  bool isRegistered(pid_t host, const ExternalService& service) const {
    return externalService(host, service.plugInUUID).has_value();
  }
  bool isRegistered(pid_t host) const { return isRegistered(host, service_); }
  int32_t remove(const std::string& identifier, const std::string& version,
                 RegistrationNumber upTo = lastExternalService()) {
    std::promise<int32_t> result;
    removeExternalServices({{"com.example.none", "3", upTo}, {identifier, version, upTo}}, queue_,
                           [this, &result](std::span<const int32_t> codes) {
                             EXPECT_TRUE(queue_.isCurrent());
                             EXPECT_EQ(codes.front(), kRemovalNoSuchService);
                             result.set_value(codes.back());
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

TEST_F(LauncherTest, RefusalsAreErrorNumbersAndLeaveNothing) {
  Child host;
  EXPECT_EQ(addExternalService(host.pid(), ownDevice.path() + "/P.appex", {}, service_), EACCES)
      << "a directory cannot be run";
  EXPECT_EQ(addExternalService(host.pid(), executable_, {{"QMXService", UUID::random()}}, service_), EINVAL);
  EXPECT_FALSE(fs::exists(file(host.pid())));
  host.signal(SIGKILL);
  EXPECT_TRUE(eventually([&] { return add(host.pid()) == ESRCH; })) << "a zombie starts nothing";
  for (const pid_t nobody : {0, -1, 999999999}) EXPECT_EQ(add(nobody), ESRCH);
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
  EXPECT_FALSE(isRegistered(first.pid()) || isRegistered(second.pid()) || isRegistered(second.pid(), other));
  EXPECT_TRUE(isRegistered(second.pid(), later));
  EXPECT_EQ(remove("com.example.bundle", "3"), kRemovalNoSuchService);
}

TEST_F(LauncherTest, ASecondRegistrationTakesThePlaceOfTheFirstAndIsSparedByARemovalDecidedBefore) {
  ASSERT_EQ(addExternalService(getpid(), executable_, {{"BWBundlePackageType", "QMX!"}}, service_), 0);
  const RegistrationNumber decided = lastExternalService();
  ASSERT_EQ(add(getpid()), 0);
  remove("com.example.bundle", "3", decided);
  EXPECT_EQ((*externalService(getpid(), service_.plugInUUID))["LaunchDescription"],
            Value(Dictionary{{"QMXService", Dictionary()}}));
  EXPECT_EQ(fs::status(file(getpid())).permissions(), fs::perms::owner_read | fs::perms::owner_write);
  EXPECT_FALSE(isRegistered(getppid()));
  withdrawExternalService(getpid(), service_.plugInUUID);
  EXPECT_FALSE(isRegistered(getpid()));
}

TEST_F(LauncherTest, ARegistrationForAnEarlierProcessOfTheSameIdIsNotTheHosts) {
  ASSERT_EQ(add(getpid()), 0);
  Dictionary stale = *externalService(getpid(), service_.plugInUUID);
  stale.set("HostStartTime", stale["HostStartTime"].unsignedValue() - 1);
  writePropertyList(file(getpid()), stale);
  EXPECT_FALSE(isRegistered(getpid()));
  remove("com.example.other", "1");
  EXPECT_FALSE(fs::exists(file(getpid()))) << "swept";
}

TEST_F(LauncherTest, HostsComeAndGoWhileOthersAreSwept) {
  std::vector<std::jthread> threads;
  for (int t = 0; t < 3; ++t)
    threads.emplace_back([&] {
      for (int i = 0; i < 60; ++i) {
        ExternalService service = service_;
        service.plugInUUID = UUID::random();
        const Child host;
        EXPECT_TRUE(add(host.pid(), service) == 0 && isRegistered(host.pid(), service));
        writeText(hostDirectory(host.pid()) + "/.unfinished", "");
      }
    });
  for (int i = 0; i < 60; ++i) remove("com.example.none", "1");
  threads.clear();
  remove("com.example.none", "1");
  EXPECT_TRUE(fs::is_empty(ownDevice.runtime() + "/Launcher"));
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

TEST_F(AssertionsTest, AnInstanceIsBusyWhileItsAssertionLivesAndItsProcess) {
  auto first = BusyAssertion::take("com.example.a");
  const auto second = BusyAssertion::take("com.example.a"), other = BusyAssertion::take("com.example.b");
  ASSERT_TRUE(first && second && other);
  EXPECT_EQ(busyExtensionInstances(bundle_),
            std::vector<Dictionary>(2, Dictionary{{"BundleIdentifier", "com.example.a"}}));
  first.reset();
  Child child([] {
    static const auto assertion = BusyAssertion::take("com.example.a");
    return assertion != nullptr;
  });
  EXPECT_EQ(busyExtensionInstances({"com.example.a", "com.example.b", "com.example.c"}).size(), 3u);
  child.kill();
  EXPECT_EQ(busyExtensionInstances(bundle_).size(), 1u);
  EXPECT_EQ(files("com.example.a"), 2u) << "asking changes nothing";
  first = BusyAssertion::take("com.example.a");
  EXPECT_EQ(files("com.example.a"), 2u) << "the next instance clears what dead ones left";
  EXPECT_EQ(BusyAssertion::take("../Launcher"), nullptr);
}

TEST_F(AssertionsTest, OnlyAWriteLockCountsAndNothingBlocks) {
  const std::string path = ownDevice.runtime() + "/Assertions/com.example.a/instance";
  writeText(path, "no property list");
  ASSERT_EQ(mkfifo((path + "-fifo").c_str(), 0600), 0);
  {
    const FileDescriptor read = lockedFile(path, F_RDLCK);
    EXPECT_TRUE(read && busyExtensionInstances(bundle_).empty());
  }
  const FileDescriptor written = lockedFile(path);
  EXPECT_EQ(busyExtensionInstances(bundle_), std::vector<Dictionary>{Dictionary()});
}

}  // namespace
