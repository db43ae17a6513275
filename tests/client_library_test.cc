// The client library against the real daemon: every call, errors, what becomes of replies when either side
// goes.

#include <algorithm>
#include <future>

#include "Ambrel/ABDaemonClient.h"
#include "Ambrel/ABPlugInCore.h"
#include "platform/log/Failure.h"
#include "platform/qmx/Encoding.h"
#include "tests/support/Daemon.h"
#include "tests/support/ThisProcess.h"

namespace {

using namespace ambrel;
using testsupport::Daemon;
using testsupport::thisDevice;

using Reply = ABDaemonClient::Reply;

class ClientLibrary : public testing::Test {
 protected:
  static void SetUpTestSuite() {
    thisDevice().install("Notes.app", {{.identifier = "notes.share"}, {.identifier = "notes.edit"}});
  }
  void SetUp() override {
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
  /// "code: text", or "" for success.
  template <typename F>
  static std::string errorOf(F call) {
    const auto error = ABDaemonClient::errorInReply(replyTo(call));
    return error ? std::to_string(error->code) + ": " + error->text.value_or("(none)") : "";
  }
  std::vector<std::shared_ptr<ABPlugInCore>> match(const std::optional<Dictionary>& rules) {
    const Reply reply = replyTo([&](auto closure) { client_->matchPlugIns(rules, 0, closure); });
    EXPECT_EQ(ABDaemonClient::errorInReply(reply), std::nullopt);
    std::vector<std::shared_ptr<ABPlugInCore>> records;
    const Value forms = client_->convertFromQMX(std::get<qmx::Message>(reply).body["matches"]);
    if (forms.array() == nullptr) return records;
    for (const Value& form : *forms.array())
      records.push_back(ABPlugInCore::initWithForm(*form.dictionary()));
    return records;
  }

  std::unique_ptr<Daemon> daemon_;
  std::unique_ptr<ABDaemonClient> client_;
};

TEST_F(ClientLibrary, EveryCallReachesItsRequest) {
  ASSERT_EQ(match(std::nullopt).size(), 2u);
  const auto found = match(Dictionary{{"ZQExtensionIdentifier", "notes.share"}});
  ASSERT_EQ(found.size(), 1u);
  const UUID uuid = found[0]->uuid();
  const std::string path = found[0]->path();

  EXPECT_EQ(errorOf([&](auto closure) { client_->addPlugIns({path}, closure); }), "");
  EXPECT_EQ(errorOf([&](auto closure) { client_->removePlugIns({"/none.appex"}, closure); }),
            "9: no plugin at /none.appex");
  EXPECT_EQ(errorOf([&](auto closure) { client_->bulkPlugins(0x2A, closure); }), "");
  EXPECT_TRUE(daemon_->logs("bulk options 0x2a not supported"));
  EXPECT_EQ(errorOf([&](auto closure) { client_->readyPlugIns({uuid}, 0, closure); }), "");
  const Reply access = replyTo([&](auto closure) { client_->accessPlugIns({uuid}, 0, closure); });
  EXPECT_EQ(std::get<qmx::Message>(access).body["extensions"].array()->size(), 1u);
  EXPECT_EQ(errorOf([&](auto closure) {
              client_->setPluginAnnotations({uuid}, {{"election", 2}}, closure);
            }),
            "");
  EXPECT_EQ(match(Dictionary{{"ZQUserElection", "2"}}).at(0)->annotations(),
            Value(Dictionary{{"election", 2}}));

  const Reply granted = replyTo([&](auto closure) { client_->holdPlugins({path}, ABHoldPlugIns, closure); });
  const auto token = std::get<qmx::Message>(granted).body["uuids"].uuid();
  ASSERT_TRUE(token);
  EXPECT_EQ(match(std::nullopt).size(), 1u);
  EXPECT_EQ(errorOf([&](auto closure) { client_->releaseHold(*token, closure); }), "");
  EXPECT_EQ(match(std::nullopt).size(), 2u);
}

TEST_F(ClientLibrary, SpeaksTheVersionThatItIsToldTo) {
  EXPECT_EQ(client_->request("match"), (Dictionary{{"request", "match"}, {"version", 3}}));
  client_->setProtocolVersion(2);
  EXPECT_EQ(client_->request("add", {"/a"}),
            (Dictionary{{"request", "add"}, {"version", 2}, {"paths", Array{"/a"}}}));
  EXPECT_TRUE(match(std::nullopt).empty()) << "property lists are those of version 3";
  client_->setProtocolVersion(4);
  EXPECT_EQ(errorOf([&](auto closure) { client_->bulkPlugins(0, closure); }),
            "7: unsupported protocol version 4 (current 3)");
}

TEST_F(ClientLibrary, RepliesArriveInOrderOnTheReplyQueue) {
  constexpr int kCalls = 200;
  std::vector<int> order;
  for (int i = 0; i < kCalls; ++i)
    client_->bulkPlugins(0, [this, &order, i](Reply&&) {
      EXPECT_TRUE(client_->replyQueue().isCurrent());
      order.push_back(i);
    });
  (void)replyTo([&](auto closure) { client_->bulkPlugins(0, closure); });
  ASSERT_EQ(order.size(), size_t{kCalls});
  EXPECT_TRUE(std::ranges::is_sorted(order));
}

TEST_F(ClientLibrary, AConnectionThatBreaksFailsWhatWaitsAndTheNextCallConnectsAnew) {
  const auto bulk = [this] { return errorOf([&](auto closure) { client_->bulkPlugins(0, closure); }); };
  EXPECT_EQ(bulk(), "");
  const auto log = testsupport::logOf([&] {
    daemon_->kill();
    EXPECT_TRUE(bulk().starts_with("4: connection "));
    client_->replyQueue().sync([] {});
  });
  EXPECT_FALSE(log.empty());
  for (const std::string& entry : log)
    EXPECT_TRUE(entry.starts_with("Communications error: connection ")) << entry;
  daemon_->start();
  testsupport::logOf([&] { EXPECT_TRUE(testsupport::eventually([&] { return bulk().empty(); })); });
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

TEST(ErrorInReply, FollowsTheCodeAndTheText) {
  const auto error = [](const Dictionary& body) {
    return ABDaemonClient::errorInReply(qmx::Message{.body = body});
  };
  EXPECT_EQ(error({{"errorcode", 0}}), std::nullopt);
  EXPECT_EQ(error({{"errorcode", 11}, {"error", "no"}}), ABError(11, "no"));
  EXPECT_EQ(error({{"errorcode", 11}}), ABError(11, "unknown error returned by Ambrel subsystem"));
  EXPECT_THROW(error({{"errorcode", 0}, {"error", "text"}}), InternalInconsistency);
}

}  // namespace
