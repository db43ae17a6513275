// The application registry on real directories: what it finds, when it notices, what it keeps.

#include "platform/hollin/Registry.h"

#include <fcntl.h>
#include <sys/inotify.h>
#include <sys/prctl.h>
#include <sys/ptrace.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <algorithm>
#include <array>
#include <fstream>
#include <thread>

#include "platform/system/Notifications.h"
#include "tests/support/Child.h"
#include "tests/support/Daemon.h"
#include "tests/support/ThisProcess.h"

namespace {

using namespace platform;
using namespace testsupport;
using hollin::Registry, std::chrono::milliseconds;
using Strings = std::vector<std::string>;

size_t posts() {
  return thisDevice().changeNotifications(kPlugInsChangeNotification);
}

/// Writes down what is announced: "+identifier", and "-identifier" of what must not be found any more.
class Recorder : public HLApplicationWorkspaceObserverProtocol {
 public:
  explicit Recorder(Registry& registry) : registry_(registry) { registry_.addObserver(this); }
  ~Recorder() override { registry_.removeObserver(this); }

  void pluginsDidInstall(const HLProxyList& proxies) override { record('+', proxies); }
  void pluginsWillUninstall(const HLProxyList& proxies) override {
    for (const auto& proxy : proxies)
      EXPECT_TRUE(proxy->isUninstalled() && registry_.proxyForUUID(proxy->pluginUUID()) != proxy);
    record('-', proxies);
  }

  Strings events() {
    const std::lock_guard lock(mutex_);
    return events_;
  }
  /// The events, as soon as there are `count`, or too few.
  Strings waitFor(size_t count) {
    eventually([&] { return events().size() >= count; });
    return events();
  }
  std::atomic<size_t> calls{0};
  std::atomic<size_t> postsBefore{0};  // other processes were told so often when it was called last

 private:
  void record(char sign, const HLProxyList& proxies) {
    calls++;
    postsBefore = posts();
    const std::lock_guard lock(mutex_);
    for (const auto& proxy : proxies) events_.push_back(sign + std::string(proxy->pluginIdentifier().view()));
  }
  Registry& registry_;
  std::mutex mutex_;
  Strings events_;
};

Strings identifiers(const HLProxyList& proxies) {
  Strings out;
  for (const auto& proxy : proxies) out.emplace_back(proxy->pluginIdentifier().view());
  std::sort(out.begin(), out.end());
  return out;
}

/// An SDK of data plug-ins.
Dictionary sdkNamed(const Value& name) {
  const Dictionary attributes = {{"ZQExtensionPointName", name}};
  return {
      {"ZQExtension", Dictionary{{"ZQExtensionAttributes", attributes}, {"ZQExtensionProtocol", "#Data"}}}};
}

class HollinTest : public testing::Test {
 protected:
  HollinTest() {
    thisDevice();
    directories.dataUser = root.dataUser();
    directories.dataSystem = {root.dataSystem()};
    directories.state = root.state();
  }

  /// Opens the registry (anew).
  void open() {
    registry.reset();
    registry = std::get<std::unique_ptr<Registry>>(Registry::open(directories));
  }
  Strings installed() const { return identifiers(*registry->installedPlugins()); }
  std::shared_ptr<const HLAmbrelProxy> only(const std::string& identifier) const {
    const Strings wanted = {identifier};
    const auto found = registry->pluginsWithIdentifiers(&wanted, nullptr, nullptr, {});
    return found->size() == 1 ? found->front() : nullptr;
  }
  Strings withName(const std::string& name) const {
    const Strings wanted = {name};
    return identifiers(*registry->pluginsWithIdentifiers(nullptr, &wanted, nullptr, {}));
  }
  bool registers(const std::string& path) { return registry->registerPlugin(URL::file(path)); }
  bool unregisters(const std::string& path) { return registry->unregisterPlugin(URL::file(path)); }
  std::string liveWith(const std::string& count, const std::string& limit);

  const DeviceRoot root;
  Directories directories;
  const std::string applications = root.dataUser() + "/Applications";
  std::unique_ptr<Registry> registry;
};

TEST_F(HollinTest, installsByRenameAndRemovalsAreAnnouncedAndWhatWasThereBeforeIsNot) {
  root.install("Old.app", {{.identifier = "old"}});
  open();
  Recorder recorder(*registry);
  registry->startPosting();
  const size_t before = posts();
  const std::string path = root.install("box/New.app", {{.identifier = "one"}, {.identifier = "two"}});
  EXPECT_EQ(recorder.waitFor(2).size(), 2u);
  EXPECT_EQ(recorder.calls, 1u) << "one install is one batch";
  EXPECT_EQ(recorder.postsBefore, before) << "the observer hears first";
  EXPECT_TRUE(eventually([&] { return posts() == before + 1; })) << "then everybody, once";
  EXPECT_EQ(installed(), (Strings{"old", "one", "two"}));
  const UUID uuid = only("one")->pluginUUID();
  fs::rename(path, root.path() + "/away");
  EXPECT_EQ(recorder.waitFor(4).size(), 4u);
  fs::rename(root.path() + "/away", path);
  EXPECT_EQ(recorder.waitFor(6).size(), 6u);
  EXPECT_EQ(recorder.postsBefore, before + 2);
  EXPECT_EQ(only("one")->pluginUUID(), uuid) << "who comes back is the same";
}

TEST_F(HollinTest, anApplicationThatIsCopiedSlowlyIsTakenOnceWhenItIsQuiet) {
  const std::string application = applications + "/Slow.app", source = root.path() + "/source";
  root.writeBundle(source, {.identifier = "slow", .entitlements = {{"special", true}}});
  const std::string info = readText(source + "/Info.plist");
  open();
  Recorder recorder(*registry);
  writeText(application + "/PlugIns/slow.appex/Info.plist", info.substr(0, info.size() / 2));
  std::this_thread::sleep_for(milliseconds(150));
  writeText(application + "/PlugIns/slow.appex/Info.plist", info);
  std::this_thread::sleep_for(milliseconds(150));
  // The longest part of a copy is deep inside, where nothing is watched.
  for (int i = 0; i < 8; i++) {
    writeText(application + "/Resources/deep/down/" + std::to_string(i), "x");
    std::this_thread::sleep_for(milliseconds(100));
    EXPECT_TRUE(recorder.events().empty());
  }
  fs::copy(source + "/Entitlements.plist", application + "/PlugIns/slow.appex/Entitlements.plist");
  recorder.waitFor(1);
  std::this_thread::sleep_for(milliseconds(500));
  EXPECT_EQ(recorder.events(), Strings{"+slow"});
  EXPECT_TRUE(only("slow")->entitlements()["special"].isTrue());
}

TEST_F(HollinTest, anEditInPlaceIsAnUninstallAndAnInstallOfTheSamePlugIn) {
  const std::string path = DeviceRoot::plugInPath(root.install("A.app", {{.identifier = "a"}}), "a");
  open();
  Recorder recorder(*registry);
  const auto before = only("a");
  writePropertyList(path + "/Info.plist", infoDictionary({.identifier = "a", .point = "changed"}));
  EXPECT_EQ(recorder.waitFor(2), (Strings{"-a", "+a"}));
  auto after = only("a");
  EXPECT_TRUE(before->isUninstalled() && !after->isUninstalled());
  EXPECT_EQ(before->pluginUUID(), after->pluginUUID());
  EXPECT_GT(after->registrationDate(), before->registrationDate());
  writePropertyList(path + "/Entitlements.plist", Dictionary{{"special", true}});
  EXPECT_EQ(recorder.waitFor(4).size(), 4u);
  EXPECT_TRUE(only("a")->entitlements()["special"].isTrue());
  // An identifier that changes is another plug-in that is still known by its first name.
  writePropertyList(path + "/Info.plist", infoDictionary({.identifier = "renamed"}));
  EXPECT_EQ(recorder.waitFor(6).back(), "+renamed");
  after = only("renamed");
  EXPECT_EQ(after->originalIdentifier(), "a");
  EXPECT_NE(after->pluginUUID(), before->pluginUUID());
  EXPECT_EQ(only("a"), nullptr);
}

TEST_F(HollinTest, rootsAreWatchedFromBeforeTheyExistAndAfterTheyAreGone) {
  directories.dataUser = root.path() + "/late/data/veltra";
  open();
  Recorder recorder(*registry);
  const fs::path application = root.install("X.app", {{.identifier = "x"}});
  fs::create_directories(directories.dataUser + "/Applications");
  fs::rename(application, directories.dataUser + "/Applications/X.app");
  EXPECT_EQ(recorder.waitFor(1), Strings{"+x"});
  EXPECT_TRUE(eventually([this] { return fs::exists(directories.dataUser + "/Containers/x/tmp"); }));
  fs::rename(root.path() + "/late", root.path() + "/elsewhere");
  EXPECT_EQ(recorder.waitFor(2).back(), "-x");
  fs::rename(root.path() + "/elsewhere", root.path() + "/late");
  EXPECT_EQ(recorder.waitFor(3).back(), "+x");
  // Roots are still watched in depth.
  fs::remove_all(directories.dataUser + "/Applications/X.app/PlugIns");
  EXPECT_EQ(recorder.waitFor(4).back(), "-x");
}

TEST_F(HollinTest, whereRootsOverlapTheUsersCounts) {
  const std::string mine = DeviceRoot::plugInPath(root.install("Mine.app", {{.identifier = "mine"}}), "mine");
  root.install("Theirs.app", {{.identifier = "theirs"}}, true);
  fs::create_directory_symlink(root.dataUser(), root.path() + "/again");
  fs::create_directory_symlink(applications + "/Mine.app", applications + "/Link.app");
  directories.dataSystem = {root.path() + "/again", root.dataSystem(), root.dataUser() + "/Applications"};
  open();
  EXPECT_EQ(installed(), (Strings{"mine", "theirs"}));
  EXPECT_FALSE(only("mine")->isOnSystemPartition());
  EXPECT_EQ(only("mine")->bundleURL()->path(), mine);
  EXPECT_TRUE(only("theirs")->isOnSystemPartition());
  EXPECT_FALSE(unregisters(only("theirs")->bundleURL()->path()));
  EXPECT_TRUE(unregisters(root.path() + "/again/Applications/Mine.app/PlugIns/mine.appex"));
}

TEST_F(HollinTest, badBundlesHarmNoOther) {
  const std::string plugIns = root.install("Mixed.app", {{.identifier = "good"}}) + "/PlugIns/";
  const auto info = [&plugIns](const std::string& name) { return plugIns + name + ".appex/Info.plist"; };
  const std::string valid = readText(info("good"));
  fs::create_directories(plugIns + "empty.appex");
  writeText(info("truncated"), valid.substr(0, valid.size() / 2));
  writeText(info("huge"), valid);
  fs::resize_file(info("huge"), 100 << 20);
  writePropertyList(info("array"), Array{1, 2});
  writePropertyList(info("stranger"), Dictionary{{"BWBundleIdentifier", "stranger"}});
  fs::create_directory_symlink("circle.appex", plugIns + "circle.appex");
  fs::create_directory_symlink("..", plugIns + "up.appex");
  fs::create_directory_symlink(".", applications + "/Circle.app");
  writeText(plugIns + "file.appex", "no directory");
  // Wrong types everywhere: the record will judge.
  writePropertyList(info("types"), Dictionary{{"ZQExtension", "text"}, {"BWBundleIdentifier", Array{}}});
  writePropertyList(info("old"), Dictionary{{"Ambrel", 0}, {"BWBundleIdentifier", "old"}});
  const Dictionary names = {{"ZQExtensionPointName", Array{1, "top"}}};
  writePropertyList(info("listed"), infoDictionary({.identifier = "listed", .info = names}));
  mkfifo((plugIns + "listed.appex/Entitlements.plist").c_str(), 0600);

  const Strings log = logOf([this] { open(); });
  EXPECT_EQ(installed(), (Strings{"", "good", "listed", "old"}));
  EXPECT_EQ(withName("top"), Strings{"listed"});
  EXPECT_EQ(entriesWith(log, "ignoring bundle at "), 6u) << testing::PrintToString(log);
  for (const char* name : {"empty", "stranger", "nothing"})
    EXPECT_FALSE(registers(plugIns + name + ".appex")) << name;
  // A bundle that gets well is taken.
  Recorder recorder(*registry);
  writeText(info("truncated"), valid);
  EXPECT_EQ(recorder.waitFor(1), Strings{"+good"});
}

TEST_F(HollinTest, anUnregisteredApplicationPlugInStaysSoUntilItChangesOrIsAdded) {
  const std::string application = root.install("A.app", {{.identifier = "a"}, {.identifier = "b"}});
  const std::string a = root.plugInPath(application, "a"), b = root.plugInPath(application, "b");
  open();
  EXPECT_TRUE(unregisters(a) && unregisters(b) && registers(a));
  open();
  EXPECT_EQ(installed(), Strings{"a"});
  Recorder recorder(*registry);
  writePropertyList(b + "/Info.plist", infoDictionary({.identifier = "b", .version = "2"}));
  EXPECT_EQ(recorder.waitFor(1), Strings{"+b"});
}

TEST_F(HollinTest, aSecondStartKnowsEverythingAndOpensNoUnchangedBundle) {
  const std::string application =
      root.install("A.app", {{.identifier = "a", .entitlements = {{"list", Array{1, "two"}}}}});
  open();
  fs::rename(application, root.path() + "/away");
  EXPECT_TRUE(eventually([this] { return installed().empty(); }));
  fs::rename(root.path() + "/away", application);
  EXPECT_TRUE(eventually([this] { return only("a") != nullptr; }));
  const auto before = only("a");
  registry.reset();
  const FileDescriptor watch(inotify_init1(IN_NONBLOCK));
  inotify_add_watch(watch.get(), DeviceRoot::plugInPath(application, "a").c_str(), IN_OPEN);
  open();
  std::string events(4096, ' ');
  EXPECT_LT(read(watch.get(), events.data(), events.size()), 4096);
  for (const char* file : {"Info.plist", "Entitlements.plist", "run"})
    EXPECT_EQ(events.find(file), std::string_view::npos) << file;
  const auto after = only("a");
  EXPECT_EQ(after->registrationDate(), before->registrationDate());
  EXPECT_EQ(after->entitlements(), before->entitlements());
}

TEST_F(HollinTest, aDatabaseThatIsDamagedWhileItIsInUseIsWrittenAnewAndNothingIsLost) {
  // More than the database keeps in memory.
  const auto write = [this](const std::string& name, size_t count) {
    const Dictionary dataPlugIn = {{"ZQExtensionProtocol", "#Data"}};  // no container to be made
    Dictionary multiple;
    for (size_t i = 0; i < count; i++)
      multiple.set(name + std::string(120, 'x') + std::to_string(i), dataPlugIn);
    root.writeBundle(root.path() + "/" + name, {.identifier = name, .plugIn = {{"Multiple", multiple}}});
    return registers(root.path() + "/" + name);
  };
  open();
  EXPECT_FALSE(write("many", 4097)) << "no bundle is meant seriously that has so many plug-ins";
  for (const char* name : {"a", "b", "c"}) ASSERT_TRUE(write(name, 4096));
  const URL first = URL::file(root.path() + "/a");
  const UUID uuid = registry->proxyForURL(first)->pluginUUID();
  std::fstream(root.state() + "/Hollin/Registry.sqlite", std::ios::in | std::ios::out | std::ios::binary)
          .seekp(4096)
      << std::string(1 << 20, '?') << std::flush;
  const Strings log = logOf([&] { EXPECT_TRUE(registry->registerPlugin(first)); });
  EXPECT_EQ(entriesWith(log, "it is written anew from memory"), 1u);
  open();
  EXPECT_EQ(registry->installedPlugins()->size(), 3u * 4096);
  EXPECT_EQ(registry->proxyForURL(first)->pluginUUID(), uuid);
}

TEST_F(HollinTest, aChangedSDKUpdatesAllWhoNameItAtOnce) {
  // SDKs belong to the process's own device.
  const DeviceRoot& device = thisDevice();
  const std::string sdk = device.dataUser() + "/SDKs/point.plist";
  writePropertyList(sdk, sdkNamed(Array{"sdk.one", "sdk.two"}));
  directories.dataUser = device.dataUser();
  const Dictionary served = {{"ZQExtensionPointIdentifier", "point"}};
  const std::string application =
      device.install("Names.app", {{.identifier = "own", .point = "own.name"},
                                   {.identifier = "sdk", .point = "", .plugIn = served},
                                   {.identifier = "both", .point = "sdk.two", .plugIn = served}});
  open();
  // A filter may ask the registry in turn.
  const Strings name = {"sdk.two"};
  const auto isBoth = [this](const String& each, const Value&) {
    return only(std::string(each.view())) == only("both");
  };
  EXPECT_EQ(registry->pluginsWithIdentifiers(nullptr, &name, nullptr, isBoth)->size(), 1u);
  const auto before = only("sdk");
  EXPECT_EQ(before->dataContainerURL(), std::nullopt) << "its SDK makes it a data plug-in";

  auto recorder = std::make_unique<Recorder>(*registry);
  writePropertyList(sdk, Dictionary{{"ZQExtension", Dictionary()}});
  Strings events = recorder->waitFor(4);
  std::sort(events.begin(), events.end());
  EXPECT_EQ(events, (Strings{"+both", "+sdk", "-both", "-sdk"}));
  EXPECT_EQ(recorder->calls, 2u) << "all in one announcement";
  EXPECT_EQ(withName("sdk.one"), Strings());
  EXPECT_GT(only("sdk")->registrationDate(), before->registrationDate());
  recorder.reset();
  registry.reset();
  for (const std::string& path : {application, sdk}) fs::remove_all(path);
}

pid_t threadCalled(const std::string& name) {
  for (const auto& task : fs::directory_iterator("/proc/self/task"))
    if (readText(task.path() / "comm") == name + "\n") return std::stoi(task.path().filename().string());
  return 0;
}

TEST_F(HollinTest, lostEventsLoseNoInstall) {
  root.install("Busy.app", {{.identifier = "busy"}});
  open();
  Recorder recorder(*registry);
  EXPECT_TRUE(eventually([&] { return fs::exists(root.dataUser() + "/Containers/busy/tmp"); }));
  const int limit = std::stoi(readText("/proc/sys/fs/inotify/max_queued_events"));
  if (limit > 100000) GTEST_SKIP() << "the event queue is too long to fill";
  testing::internal::CaptureStderr();
  // A tracer stops the thread, until it is killed.
  prctl(PR_SET_PTRACER, PR_SET_PTRACER_ANY);
  Child tracer([thread = threadCalled("hollin-watch")] {
    return ptrace(PTRACE_SEIZE, thread, 0, 0) == 0 && ptrace(PTRACE_INTERRUPT, thread, 0, 0) == 0 &&
           waitpid(thread, nullptr, __WALL) == thread;
  });
  for (int i = 0; tracer.isReady() && i < limit / 2; i++) {
    const std::string file = applications + "/Busy.app/" + std::to_string(i % 2);
    close(::open(file.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
    unlink(file.c_str());
  }
  root.install("Lost.app", {{.identifier = "lost"}});
  tracer.kill();
  EXPECT_EQ(recorder.waitFor(1), Strings{"+lost"});
  const std::string log = testing::internal::GetCapturedStderr();
  if (!tracer.isReady()) GTEST_SKIP() << "threads cannot be stopped here";
  EXPECT_NE(log.find("events of the file system were lost"), std::string::npos);
}

/// In a process of its own that gets only `count` of something: that what happens is seen nevertheless, and
/// at once when there is enough again.
std::string HollinTest::liveWith(const std::string& count, const std::string& limit) {
  const auto limitTo = [&limit](const std::string& number) {
    return static_cast<bool>(std::ofstream("/proc/sys/user/" + limit) << number << std::flush);
  };
  if (unshare(CLONE_NEWUSER) != 0 || !limitTo(count)) return "impossible";
  const std::string log = root.path() + "/log", sdk = root.path() + "/tests/point",
                    loose = root.path() + "/loose.appex";
  dup2(::open(log.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600), STDERR_FILENO);
  const auto logs = [&log](const char* text) { return contains(readText(log), text); };
  fs::current_path(root.path());
  setenv("ABTEST_SDK", "tests", 1);
  const auto installs = [&](const std::string& name, const Value& point) {
    const Dictionary served = {{"ZQExtensionPointIdentifier", "point"}};
    root.install(name + ".app", {{.identifier = name, .point = "", .plugIn = served}});
    writePropertyList(sdk, sdkNamed(point));
  };
  installs("a", "first");
  open();
  std::this_thread::sleep_for(milliseconds(300));  // what it does at start is over
  installs("b", "second");
  EXPECT_TRUE(eventually([this] { return withName("second") == Strings{"a", "b"}; })) << readText(log);
  EXPECT_TRUE(logs("cannot watch all applications")) << readText(log);
  root.writeBundle(loose, {.identifier = "loose"});
  EXPECT_TRUE(registers(loose));
  EXPECT_TRUE(limitTo("1000"));
  EXPECT_TRUE(eventually([&logs] { return logs("watching all applications again"); })) << readText(log);
  installs("c", "third");
  writePropertyList(loose + "/Info.plist", infoDictionary({.identifier = "loose", .point = "late"}));
  EXPECT_TRUE(eventually([this] { return withName("third") == Strings{"a", "b", "c"}; })) << readText(log);
  EXPECT_TRUE(eventually([this] { return withName("late") == Strings{"loose"}; })) << readText(log);
  registry.reset();
  return HasFailure() ? "failed" : "lost nothing";
}

class FewWatches : public HollinTest, public testing::WithParamInterface<std::array<std::string, 2>> {};

TEST_P(FewWatches, LoseNothing) {
  const std::string answer = answerOfProcess([this] { return liveWith(GetParam()[0], GetParam()[1]); });
  if (answer == "impossible") GTEST_SKIP() << "watches cannot be limited here";
  EXPECT_EQ(answer, "lost nothing");
}

// The last are enough for the roots.
INSTANTIATE_TEST_SUITE_P(Limits, FewWatches,
                         testing::Values(std::array<std::string, 2>{"0", "max_inotify_instances"},
                                         std::array<std::string, 2>{"0", "max_inotify_watches"},
                                         std::array<std::string, 2>{"10", "max_inotify_watches"}));

}  // namespace
