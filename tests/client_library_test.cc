// The client library against the real daemon: versions, errors, what becomes of replies when either side
// goes; standing searches, what they tell, when they ask, how they end; finding, readying and starting
// plug-ins; the programs of docs/client.md.

#include <fcntl.h>

#include <algorithm>
#include <deque>
#include <future>

#include "Ambrel/ABDiscovery.h"
#include "platform/log/Failure.h"
#include "platform/system/Notifications.h"
#include "tests/support/Daemon.h"
#include "tests/support/ThisProcess.h"

namespace {

using namespace ambrel;
using namespace testsupport;

using Reply = ABDaemonClient::Reply;

class ClientLibrary : public testing::Test {
 protected:
  ClientLibrary() {
    for (const std::string& place : {thisDevice().dataUser() + "/Applications", thisDevice().state()}) {
      fs::remove_all(place);
      fs::create_directory(place);
    }
    notes_ = thisDevice().install("Notes.app", {{.identifier = "share"}, {.identifier = "edit"}});
    daemon_ = std::make_unique<Daemon>(thisDevice());
    client_ = std::make_unique<ABDaemonClient>("abd.test");
  }
  /// The reply to one call: `call` is given the closure.
  template <typename F>
  static Reply replyTo(F call) {
    auto promise = std::make_shared<std::promise<Reply>>();
    call([promise](Reply&& reply) { promise->set_value(std::move(reply)); });
    return promise->get_future().get();
  }

  std::string notes_;
  std::unique_ptr<Daemon> daemon_;
  std::unique_ptr<ABDaemonClient> client_;
};

TEST_F(ClientLibrary, SpeaksTheVersionThatItIsToldTo) {
  EXPECT_EQ(client_->request("match"), (Dictionary{{"request", "match"}, {"version", 3}}));
  client_->setProtocolVersion(2);
  EXPECT_EQ(client_->request("add", {"/a"}),
            (Dictionary{{"request", "add"}, {"version", 2}, {"paths", Array{"/a"}}}));
  const Reply reply = replyTo([&](auto closure) { client_->matchPlugIns(std::nullopt, 0, closure); });
  EXPECT_TRUE(std::get<qmx::Message>(reply).body.empty()) << "property lists are those of version 3";
  client_->setProtocolVersion(4);
  const auto refused = replyTo([&](auto closure) { client_->bulkPlugins(0, closure); });
  EXPECT_EQ(ABDaemonClient::errorInReply(refused), ABError(7, "unsupported protocol version 4 (current 3)"));
}

TEST_F(ClientLibrary, NoClosureRunsAfterTheClientIsGone) {
  for (int i = 0; i < 50; ++i) {
    auto client = std::make_unique<ABDaemonClient>("abd.test");
    const auto isAlive = std::make_shared<std::atomic<bool>>(true);
    for (int call = 0; call < 4; ++call)
      client->bulkPlugins(0, [isAlive](Reply&&) { EXPECT_TRUE(isAlive->load()); });
    client = nullptr;
    *isAlive = false;
  }
  // A closure may be what ends its client.
  (void)replyTo([&](auto closure) {
    client_->bulkPlugins(0, [this, closure](Reply&& reply) {
      client_.reset();
      closure(std::move(reply));
    });
  });
}

class StandingSearch : public ClientLibrary {
 protected:
  /// A search that writes down what it is told: added, removed and changed plug-ins, how many there are.
  std::unique_ptr<PlugInDiscovery> discover(const std::string& identifiers = "<>other", uint64_t flags = 0) {
    const Dictionary rules = {{"ZQExtensionIdentifier", identifiers}};
    return std::make_unique<PlugInDiscovery>(*client_, rules, flags, [this](const auto& news) {
      EXPECT_TRUE(client_->replyQueue().isCurrent());
      const std::lock_guard lock(mutex_);
      told_.push_back(textOf(news));
    });
  }
  static std::string textOf(const Result<PlugInChanges>& news) {
    if (const auto* error = std::get_if<Error>(&news)) return error->domain + std::to_string(error->code);
    const auto& changes = std::get<PlugInChanges>(news);
    std::vector<std::string> words;
    for (const PlugIn& each : changes.added) words.push_back("+" + std::string(each->identifier()));
    for (const PlugIn& each : changes.removed) words.push_back("-" + std::string(each->identifier()));
    for (const auto& [before, after] : changes.changed) {
      EXPECT_EQ(before->uuid(), after->uuid());
      words.push_back("~" + std::string(after->identifier()));
    }
    std::sort(words.begin(), words.end());
    std::string text;
    for (const std::string& word : words) text += word + " ";
    return text + std::to_string(changes.plugIns.size());
  }
  /// What was told first, and not asked for yet.
  std::string next() {
    std::string first = "nothing";
    eventually([&] {
      const std::lock_guard lock(mutex_);
      if (told_.empty()) return false;
      first = told_.front();
      told_.pop_front();
      return true;
    });
    return first;
  }
  /// Waits until the library's loop has looked at everything that is there now.
  static void passLoop() {
    for (int round = 0; round < 2; ++round) {
      std::promise<void> passed;
      RunLoop::background().async([&passed] { passed.set_value(); });
      passed.get_future().wait();
    }
  }
  size_t searches() const { return daemon_->logCount(" request match"); }
  void elect(const std::string& identifier) {
    const auto found = findPlugIns(*client_, Dictionary{{"ZQExtensionIdentifier", identifier}});
    client_->setPluginAnnotations({found.at(0)->uuid()}, {{"election", 1}}, [](auto&&) {});
  }

  std::mutex mutex_;
  std::deque<std::string> told_;
};

TEST_F(StandingSearch, TellsInstallsEditsRemovalsElectionsAndHolds) {
  const auto discovery = discover();
  EXPECT_EQ(next(), "+edit +share 2");
  const std::string sketch = thisDevice().install("Sketch.app", {{.identifier = "sketch"}});
  EXPECT_EQ(next(), "+sketch 3");
  const std::string bundle = thisDevice().plugInPath(sketch, "sketch");
  writePropertyList(bundle + "/new", infoDictionary({.identifier = "sketch", .version = "2"}));
  fs::rename(bundle + "/new", bundle + "/Info.plist");
  EXPECT_EQ(next(), "~sketch 3");
  fs::rename(sketch, thisDevice().path() + "/away");
  EXPECT_EQ(next(), "-sketch 2");

  WireClient other = daemon_->connect();
  elect("share");
  EXPECT_EQ(next(), "~share 2");
  other.call(message("lock", {{"paths", Array{notes_}}, {"flags", 1}}));
  EXPECT_EQ(next(), "-edit -share 0");
  other.close();
  EXPECT_EQ(next(), "+edit +share 2");
}

TEST_F(StandingSearch, AsksOnceForABurstAndIsSilentWhenNothingIsDifferent) {
  const auto discovery = discover("share");
  EXPECT_EQ(next(), "+share 1");
  WireClient other = daemon_->connect();
  const Dictionary electShare = message("annotate", {{"uuids", uuidArray({uuidOf(other, "share")})},
                                                     {"annotations", Dictionary{{"election", 1}}}});
  const size_t before = searches();
  daemon_->pause();
  for (int i = 0; i < 20; ++i) {
    postNotification(i % 2 == 0 ? kPlugInsChangeNotification : kAnnotationChangeNotification);
    passLoop();  // what was posted is known
  }
  usleep(100'000);  // the burst's search is under way, most likely
  // What is posted before an answer from before it is read is not missed.
  std::promise<void> read;
  RunLoop::background().async([&read] { read.get_future().wait(); });
  daemon_->goOn();
  EXPECT_TRUE(daemon_->waitForLog(" request match", before + 1));
  other.call(electShare);
  read.set_value();
  EXPECT_EQ(next(), "~share 1");
  EXPECT_LE(searches() - before, 3u);
}

TEST_F(StandingSearch, OutlivesTheDaemonAndComesWithIt) {
  auto discovery = discover("share", ABDiscoverAll);
  EXPECT_EQ(next(), "Ambrel11");
  elect("share");
  EXPECT_TRUE(daemon_->waitForLog(" request match", 3)) << "asked again, and refused, which is no news";
  findPlugIns(*client_);  // answered after that
  discovery = nullptr;
  logOf([&] {
    daemon_->kill();
    EXPECT_THROW(findPlugIns(*client_), ABFailure);
    discovery = discover();
    EXPECT_EQ(next(), "Ambrel4");
    daemon_->start();
    EXPECT_EQ(next(), "+edit +share 2");
    daemon_->kill();
    fs::remove_all(notes_);
    daemon_->start();
    EXPECT_EQ(next(), "-edit -share 0") << "nobody is told before the daemon serves";
  });
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
  const auto log = logOf([&] {
    for (int i = 0; i < 100; ++i)
      discovery = std::make_unique<PlugInDiscovery>(*client_, std::nullopt, 0, [](const auto&) {});
    discovery = nullptr;
    client_ = nullptr;
    passLoop();
  });
  EXPECT_EQ(log, std::vector<std::string>()) << "answers that nobody waits for are no fault";
}

TEST_F(ClientLibrary, AHostIsToldWhyAPlugInCannotBeUsed) {
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
  fs::remove_all(notes_);
  EXPECT_TRUE(failureOf([&] { startPlugIn(launch); }).starts_with("POSIX 2 \"" + launch.executable));
  ASSERT_TRUE(eventually([&] { return findPlugIns(*client_).empty(); }));
  EXPECT_EQ(failureOf([&] { readyPlugIn(*client_, *found[0]); }),
            "Ambrel 4 \"no such plugin (uuid not found)\"");
  replyTo([&](auto closure) {
    client_->bulkPlugins(0, [&, closure](Reply&& reply) {
      EXPECT_THROW(findPlugIns(*client_), InternalInconsistency) << "it would wait for itself";
      closure(std::move(reply));
    });
  });
}

TEST(ClientDocument, ItsProgramsDoWhatItSays) {
  const DeviceRoot root;
  const auto install = [&root](const std::string& name) {
    return root.install(name + ".app", {{.identifier = name, .point = "com.veltra.share-service"}});
  };
  const std::string cards = root.plugInPath(install("cards"), "cards"), output = root.path() + "/output";
  const Daemon daemon(root, {.service = kDefaultServiceName});
  const auto run = [&](int number) {
    const FileDescriptor file(open(output.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
    return std::make_unique<Process>(std::vector<std::string>{DOCUMENT_PROGRAM + std::to_string(number)},
                                     root.environment(), root.path() + "/errors", -1, "", file.get());
  };
  const auto writes = [&output](const std::string& text) {
    return eventually([&] { return readText(output) == text; });
  };
  EXPECT_EQ(run(1)->waitForExit(), 0);
  EXPECT_TRUE(writes("cards: " + cards + "/run\nrunning\n")) << readText(output);
  const auto following = run(2);
  EXPECT_TRUE(writes("+ cards\n"));
  install("letters");
  EXPECT_TRUE(writes("+ cards\n+ letters\n")) << readText(output);
}

}  // namespace
