// What hosts are given: standing searches against the real daemon, what they tell, when they ask, how they
// end; finding, readying and starting plug-ins; the programs of docs/client.md.

#include "Ambrel/ABDiscovery.h"

#include <fcntl.h>

#include <algorithm>
#include <filesystem>
#include <future>

#include "platform/log/Failure.h"
#include "platform/system/Notifications.h"
#include "tests/support/Daemon.h"
#include "tests/support/ThisProcess.h"

namespace {

using namespace ambrel;
using testsupport::Daemon;
using testsupport::eventually;
using testsupport::thisDevice;

class StandingSearch : public testing::Test {
 protected:
  void SetUp() override {
    std::filesystem::remove_all(thisDevice().dataUser() + "/Applications");
    std::filesystem::create_directory(thisDevice().dataUser() + "/Applications");
    notes_ = thisDevice().install("Notes.app", {{.identifier = "share"}, {.identifier = "edit"}});
    daemon_ = std::make_unique<Daemon>(thisDevice());
    client_ = std::make_unique<ABDaemonClient>("abd.test");
  }

  /// A search that writes down what it is told.
  std::unique_ptr<PlugInDiscovery> discover(const Dictionary& rules = {
                                                {"ZQExtensionPointName", "com.example.share"}}) {
    return std::make_unique<PlugInDiscovery>(*client_, rules, 0, [this](const auto& news) { record(news); });
  }
  void record(const Result<PlugInChanges>& news) {
    EXPECT_TRUE(client_->replyQueue().isCurrent());
    std::vector<std::string> words;
    if (const auto* error = std::get_if<Error>(&news)) {
      words.push_back("!" + std::to_string(error->code));
    } else {
      const auto& changes = std::get<PlugInChanges>(news);
      for (const PlugIn& each : changes.added) words.push_back("+" + std::string(each->identifier()));
      for (const PlugIn& each : changes.removed) words.push_back("-" + std::string(each->identifier()));
      for (const auto& each : changes.changed) {
        EXPECT_EQ(each.before->uuid(), each.after->uuid());
        words.push_back("~" + std::string(each.after->identifier()) +
                        std::to_string(each.after->annotations()["election"].integerValue()));
      }
      words.push_back(std::to_string(changes.plugIns.size()));
    }
    std::sort(words.begin(), words.end());
    std::string line;
    for (const std::string& word : words) line += (line.empty() ? "" : " ") + word;
    const std::lock_guard lock(mutex_);
    told_.push_back(line);
  }
  /// What was told since the last time, as soon as it is something.
  std::string next() {
    eventually([this] { return isTold(); });
    const std::lock_guard lock(mutex_);
    if (told_.empty()) return "nothing";
    std::string first = told_.front();
    told_.erase(told_.begin());
    return first;
  }
  bool isTold() {
    const std::lock_guard lock(mutex_);
    return !told_.empty();
  }
  size_t searches() const { return daemon_->logCount(" request match"); }

  std::string notes_;
  std::unique_ptr<Daemon> daemon_;
  std::unique_ptr<ABDaemonClient> client_;
  std::mutex mutex_;
  std::vector<std::string> told_;
};

TEST_F(StandingSearch, TellsInstallsEditsRemovalsElectionsAndHolds) {
  const auto discovery = discover();
  EXPECT_EQ(next(), "+edit +share 2");
  const std::string sketch = thisDevice().install("Sketch.app", {{.identifier = "sketch"}});
  EXPECT_EQ(next(), "+sketch 3");
  thisDevice().writeBundle(thisDevice().plugInPath(sketch, "sketch"),
                           {.identifier = "sketch", .info = {{"BWBundleName", "another"}}});
  EXPECT_EQ(next(), "3 ~sketch0");
  std::filesystem::rename(sketch, thisDevice().path() + "/away");
  EXPECT_EQ(next(), "-sketch 2");

  testsupport::WireClient other = daemon_->connect();
  const UUID share = uuidOf(other, "share");
  client_->setPluginAnnotations({share}, {{"election", 2}}, [](auto&&) {});
  EXPECT_EQ(next(), "2 ~share2");
  other.call(testsupport::message("lock", {{"paths", Array{notes_}}, {"flags", 1}}));
  EXPECT_EQ(next(), "-edit -share 0");
  other.close();
  EXPECT_EQ(next(), "+edit +share 2");
}

TEST_F(StandingSearch, AsksOnceForABurstAndIsSilentWhenNothingIsDifferent) {
  const auto discovery = discover({{"ZQExtensionIdentifier", "share"}});
  EXPECT_EQ(next(), "+share 1");
  const size_t before = searches();
  daemon_->pause();
  for (int i = 0; i < 20; ++i) {
    postNotification(i % 2 == 0 ? kPlugInsChangeNotification : kAnnotationChangeNotification);
    // Twice round the loop: what was posted is known.
    for (int round = 0; round < 2; ++round) {
      std::promise<void> passed;
      client_->replyQueue().loop().async([&passed] { passed.set_value(); });
      passed.get_future().wait();
    }
  }
  daemon_->goOn();
  client_->setPluginAnnotations(
      {findPlugIns(*client_, Dictionary{{"ZQExtensionIdentifier", "edit"}}).at(0)->uuid()}, {{"election", 1}},
      [](auto&&) {});
  client_->setPluginAnnotations(
      {findPlugIns(*client_, Dictionary{{"ZQExtensionIdentifier", "share"}}).at(0)->uuid()},
      {{"election", 1}}, [](auto&&) {});
  EXPECT_EQ(next(), "1 ~share1");
  EXPECT_LE(searches() - before, 2u + 2 + 2) << "the burst's, this test's own, the elections'";
  EXPECT_FALSE(isTold());
}

TEST_F(StandingSearch, OutlivesTheDaemonAndComesWithIt) {
  testsupport::logOf([&] {
    daemon_->kill();
    const auto discovery = discover();
    EXPECT_EQ(next(), "!4");
    postNotification(kPlugInsChangeNotification);  // still away, which is no news
    EXPECT_THROW(findPlugIns(*client_), ABFailure);
    daemon_->start();
    EXPECT_EQ(next(), "+edit +share 2");
    daemon_->kill();
    std::filesystem::remove_all(notes_);
    daemon_->start();
    EXPECT_EQ(next(), "-edit -share 0");
  });
  EXPECT_FALSE(isTold());
}

TEST_F(StandingSearch, EndsWithTheObject) {
  std::promise<void> within;
  std::atomic<bool> isOver = false;
  auto discovery = std::make_unique<PlugInDiscovery>(*client_, std::nullopt, 0, [&](const auto&) {
    within.set_value();
    usleep(20'000);
    isOver = true;
  });
  within.get_future().wait();
  discovery = nullptr;
  EXPECT_TRUE(isOver) << "a running call is waited for";

  std::promise<void> made, ended;
  discovery = std::make_unique<PlugInDiscovery>(*client_, std::nullopt, 0, [&](const auto&) {
    made.get_future().wait();
    discovery = nullptr;
    ended.set_value();  // which throws when it is called again
  });
  made.set_value();
  ended.get_future().wait();
  for (int i = 0; i < 100; ++i)
    discovery = std::make_unique<PlugInDiscovery>(*client_, std::nullopt, 0, [](const auto&) {});
  discovery = nullptr;
  client_ = nullptr;
}

TEST_F(StandingSearch, AHostIsToldWhyAPlugInCannotBeUsed) {
  const auto failureOf = [](auto call) {
    try {
      call();
    } catch (const ABFailure& failure) {
      return failure.error().description();
    }
    return std::string("none");
  };
  const PlugIns found = findPlugIns(*client_, Dictionary{{"ZQExtensionIdentifier", "share"}});
  ASSERT_EQ(found.size(), 1u);
  PlugInLaunch launch = readyPlugIn(*client_, *found[0]);
  EXPECT_EQ(launch.sandboxProfile, "plugin");
  EXPECT_TRUE(std::ranges::count(launch.environment, "XDG_RUNTIME_DIR=" + thisDevice().path() + "/run"));
  std::filesystem::remove_all(notes_);
  EXPECT_TRUE(failureOf([&] { startPlugIn(launch); }).starts_with("POSIX 2 \"" + launch.executable));
  ASSERT_TRUE(eventually([&] { return findPlugIns(*client_).empty(); }));
  EXPECT_EQ(failureOf([&] { readyPlugIn(*client_, *found[0]); }),
            "Ambrel 4 \"no such plugin (uuid not found)\"");
  std::promise<bool> isRefused;
  client_->bulkPlugins(0, [&](auto&&) {
    try {
      findPlugIns(*client_);
      isRefused.set_value(false);
    } catch (const InternalInconsistency&) {
      isRefused.set_value(true);
    }
  });
  EXPECT_TRUE(isRefused.get_future().get()) << "it would wait for itself";
}

TEST(ClientDocument, ItsProgramsDoWhatItSays) {
  const testsupport::DeviceRoot root;
  const auto install = [&root](const std::string& name) {
    return root.install(name + ".app", {{.identifier = name, .point = "com.veltra.share-service"}});
  };
  const std::string cards = root.plugInPath(install("cards"), "cards"), output = root.path() + "/output";
  const Daemon daemon(root, {.service = kDefaultServiceName});
  const auto run = [&](int number) {
    const FileDescriptor file(open(output.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
    return std::make_unique<testsupport::Process>(
        std::vector<std::string>{DOCUMENT_PROGRAM + std::to_string(number)}, root.environment(),
        root.path() + "/errors", -1, "", file.get());
  };
  const auto writes = [&output](const std::string& text) {
    return eventually([&] { return testsupport::readText(output) == text; });
  };
  EXPECT_EQ(run(1)->waitForExit(), 0);
  EXPECT_TRUE(writes("cards: " + cards + "/run\nrunning\n")) << testsupport::readText(output);
  const auto following = run(2);
  EXPECT_TRUE(writes("+ cards\n"));
  install("letters");
  EXPECT_TRUE(writes("+ cards\n+ letters\n")) << testsupport::readText(output);
}

}  // namespace
