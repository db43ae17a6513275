// The server, its clients and holds as objects: what no other process can bring about or see.

#include "abd/ABDPlugInHold.h"
#include "abd/ABDQmxClient.h"
#include "platform/launcher/ServiceLauncher.h"
#include "platform/qmx/Listener.h"
#include "tests/support/Daemon.h"
#include "tests/support/ThisServer.h"

namespace testsupport {
namespace {

using abd::ABDPlugInHold;
using abd::ABDQmxClient;

/// Runs the main loop until `condition` holds.
template <typename F>
bool runUntil(F condition) {
  const auto deadline = std::chrono::steady_clock::now() + kPatience;
  while (!condition() && std::chrono::steady_clock::now() < deadline) {
    RunLoop::main().after(std::chrono::milliseconds(5), [] { RunLoop::main().stop(); });
    RunLoop::main().run();
  }
  return condition();
}

/// A peer of this process's server: a real connection, accepted by a listener of the test's own.
class Peer {
 public:
  Peer() {
    auto created = qmx::Listener::create("peer.test", queue_, RunLoop::main());
    listener_ = std::move(std::get<0>(created));
    listener_->setConnectionHandler([this](const std::shared_ptr<qmx::Connection>& connection) {
      client = ABDQmxClient::initWithConnection(connection, thisServer());
    });
    listener_->resume();
    wire.emplace(WireClient::connect(qmx::servicePath("peer.test")));
    runUntil([this] { return client != nullptr; });
  }
  void die() {
    wire->close();
    runUntil([this] { return !client->acceptWork() && client->connection() == nullptr; });
  }

  std::shared_ptr<ABDQmxClient> client;
  std::optional<WireClient> wire;

 private:
  SerialQueue queue_{"peers", RunLoop::main()};
  std::unique_ptr<qmx::Listener> listener_;
};

TEST(Client, DescribesItselfWithAndWithoutItsConnection) {
  thisServer();
  Peer peer;
  const std::string address = format("%p", static_cast<const void*>(peer.client.get()));
  EXPECT_EQ(peer.client->description(), "<ABDQmxClient " + address + " pid=" + std::to_string(getpid()) +
                                            " con=" + peer.client->connection()->description() + ">");
  peer.die();
  EXPECT_EQ(peer.client->description(), "<ABDQmxClient " + address + " NO CONNECTION>");
  EXPECT_EQ(peer.client->pid(), getpid()) << "still known, for whoever reports its end";
}

TEST(Hold, ThatComesAfterTheDeathOfItsClientIsReleasedAtOnce) {
  const auto plugIn = registeredRecord({.identifier = "late"});
  ASSERT_NE(plugIn, nullptr);
  Peer peer;
  const auto early = std::make_shared<ABDPlugInHold>(ABDPlugInHold::PlugIns{plugIn}, peer.client);
  thisServer().addHold(early);
  EXPECT_TRUE(thisServer().holdOnPlugIn(*plugIn));
  peer.die();
  EXPECT_FALSE(thisServer().holdOnPlugIn(*plugIn));
  const size_t notifications = thisDevice().changeNotifications();
  thisServer().addHold(std::make_shared<ABDPlugInHold>(ABDPlugInHold::PlugIns{plugIn}, peer.client));
  EXPECT_FALSE(thisServer().holdOnPlugIn(*plugIn));
  EXPECT_EQ(thisDevice().changeNotifications(), notifications + 2) << "made known, and its end, too";
}

TEST(Hold, MarksTheProcessBusy) {
  const auto plugIn = registeredRecord({.identifier = "busy"});
  ASSERT_NE(plugIn, nullptr);
  Peer peer;
  ASSERT_EQ(BusyMarking::count(), 0u);
  {
    const auto first = std::make_shared<ABDPlugInHold>(ABDPlugInHold::PlugIns{plugIn, plugIn}, peer.client);
    const ABDPlugInHold second({plugIn}, peer.client);
    EXPECT_FALSE(*first == second);
    EXPECT_EQ(BusyMarking::count(), 2u);
    thisServer().addHold(first);
  }
  EXPECT_EQ(BusyMarking::count(), 1u) << "the server keeps it";
  peer.die();
  EXPECT_EQ(BusyMarking::count(), 0u);
}

}  // namespace
}  // namespace testsupport
