// The client library against the real daemon: versions, errors, what becomes of replies when either side
// goes.

#include <algorithm>
#include <future>

#include "Ambrel/ABDaemonClient.h"
#include "platform/log/Failure.h"
#include "tests/support/Daemon.h"
#include "tests/support/ThisProcess.h"

namespace {

using namespace ambrel;
using testsupport::Daemon;
using testsupport::thisDevice;

using Reply = ABDaemonClient::Reply;

class ClientLibrary : public testing::Test {
 protected:
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
