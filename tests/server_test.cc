// A hold that is made when its client has died already, which no other process can bring about at will.

#include "abd/ABDPlugInHold.h"
#include "abd/ABDQmxClient.h"
#include "platform/qmx/Listener.h"
#include "tests/support/Daemon.h"
#include "tests/support/ThisServer.h"

namespace testsupport {
namespace {

/// Runs the main loop until `condition` holds.
template <typename F>
bool runUntil(F condition) {
  return eventually([&] {
    RunLoop::main().after(std::chrono::milliseconds(5), [] { RunLoop::main().stop(); });
    RunLoop::main().run();
    return condition();
  });
}

TEST(Hold, ThatComesAfterTheDeathOfItsClientIsReleasedAtOnce) {
  const auto plugIn = registeredRecord({.identifier = "late"});
  ASSERT_NE(plugIn, nullptr);
  // A real connection to this process's server, accepted by a listener of the test's own.
  SerialQueue queue("peers", RunLoop::main());
  auto listener = std::move(std::get<0>(qmx::Listener::create("peer.test", queue, RunLoop::main())));
  std::shared_ptr<abd::ABDQmxClient> client;
  listener->setConnectionHandler([&client](const std::shared_ptr<qmx::Connection>& connection) {
    client = abd::ABDQmxClient::initWithConnection(connection, thisServer());
  });
  listener->resume();
  WireClient wire = WireClient::connect(qmx::servicePath("peer.test"));
  ASSERT_TRUE(runUntil([&client] { return client != nullptr; }));
  const std::string address = format("%p", static_cast<const void*>(client.get()));
  EXPECT_EQ(client->description(), "<ABDQmxClient " + address + " pid=" + std::to_string(getpid()) +
                                       " con=" + client->connection()->description() + ">");
  wire.close();
  ASSERT_TRUE(runUntil([&client] { return !client->acceptWork() && client->connection() == nullptr; }));
  EXPECT_EQ(client->description(), "<ABDQmxClient " + address + " NO CONNECTION>");

  const size_t notifications = thisDevice().changeNotifications();
  thisServer().addHold(std::make_shared<abd::ABDPlugInHold>(abd::ABDPlugInHold::PlugIns{plugIn}, client));
  EXPECT_FALSE(thisServer().holdOnPlugIn(*plugIn));
  EXPECT_EQ(thisDevice().changeNotifications(), notifications + 2) << "made known, and its end, too";
}

}  // namespace
}  // namespace testsupport
