// What a client does to the others: one that asks for much beside one that asks for little. Whether somebody
// had a turn is told by the order of log entries.

#include <algorithm>

#include "Ambrel/ABProtocol.h"
#include "tests/support/DaemonTest.h"

namespace testsupport {
namespace {

using namespace ambrel;

class Neighbours : public DaemonTest {
 protected:
  /// An application with plug-ins "many.0", "many.1"... that are all found by then.
  void install(size_t count) {
    std::vector<PlugInBundle> many;
    for (size_t i = 0; i < count; ++i)
      many.push_back({.identifier = "many." + std::to_string(i), .attributes = {{"k", "v"}}});
    application = root.install("Many.app", many);
    start();
    ASSERT_EQ(match(*client).size(), count);
  }
  /// Has the daemon find what `work` sends all at once.
  template <typename F>
  void atOnce(F work) {
    daemon->pause();
    work();
    daemon->goOn();
  }
  /// The log's "bulk" entries as their flags (hexadecimal), in order.
  std::string bulks() const {
    std::string all;
    const std::string_view text = "bulk options 0x";
    for (const std::string& entry : daemon->log())
      if (entry.starts_with(text))
        all += entry.substr(text.size(), entry.find(' ', text.size()) - text.size());
    return all;
  }
  static Dictionary bulk(uint64_t flags) { return message("bulk", {{"flags", flags}}); }

  std::string application;
};

/// Patterns that no value "v" is the same as; comparing them takes far longer than a slice.
Array manyPatterns() {
  Array patterns;
  for (int i = 0; i < 4000; ++i) patterns.append(">w" + std::to_string(i));
  return patterns;
}

TEST_F(Neighbours, AreServedWhileALongRequestIsUnfinishedAndItsOwnClientWaitsInOrder) {
  install(100);
  Array plugIns;
  for (const Dictionary& form : match(*client)) plugIns.append(uuidIn(form));
  const Dictionary long_[] = {
      message("match", {{"rules", Dictionary{{"k", manyPatterns()}}}}),
      message("annotate", {{"uuids", plugIns}, {"annotations", Dictionary{{"election", 1}}}}),
      message("access", {{"uuids", Array(std::vector<Value>(2000, plugIns[0]))}}),
      message("ready", {{"uuids", plugIns}}),
      message("add",
              {{"paths", Array(std::vector<Value>(50, DeviceRoot::plugInPath(application, "many.1")))}}),
      message("lock", {{"paths", Array{application}}, {"flags", 1}})};
  WireClient other = daemon->connect();
  other.call(bulk(0));
  std::string expected = "0";
  for (const Dictionary& request : long_) {
    atOnce([&] {
      client->send(request);
      client->send(bulk(0xa));
      other.send(bulk(0xb));
    });
    const Dictionary reply = *client->receive().value().body.dictionary();
    EXPECT_EQ(errorOf(reply), "");
    EXPECT_EQ(reply.contains("matches") || reply.contains("extensions") || reply.contains("uuids"),
              request["request"] == Value("match") || request["request"] == Value("access") ||
                  request.contains("flags"));
    client->receive();
    other.receive();
    expected += "ba";
  }
  EXPECT_EQ(bulks(), expected);
}

TEST_F(Neighbours, AHoldIsGrantedWhenWhatIsBeingEnabledIsEnabledOrEndsWithItsClient) {
  install(100);
  std::vector<UUID> plugIns;
  for (int i = 0; i < 100; ++i) plugIns.push_back(uuid("many." + std::to_string(i)));
  const Array one = {DeviceRoot::plugInPath(application, "many.99")},
              often = Array(std::vector<Value>(100, application));
  WireClient holder = daemon->connect(), dying = daemon->connect();
  for (WireClient* each : {&holder, &dying}) each->call(bulk(0));
  atOnce([&] {
    client->send(message("ready", {{"uuids", uuidArray(plugIns)}}));
    holder.send(message("lock", {{"paths", one}, {"flags", 2}}));
    dying.send(message("lock", {{"paths", often}, {"flags", 1}}));
  });
  EXPECT_TRUE(daemon->waitForLog(" request lock", 2));
  dying.close();
  holder.receive();
  const bool isEnabled = fs::exists(daemon->launchFile(getpid(), plugIns.back()));
  const std::string error = errorOf(*client->receive().value().body.dictionary());
  EXPECT_EQ(isEnabled, error.empty()) << error;
  EXPECT_TRUE(daemon->waitForLog(" is dead"));
  holder.close();
  EXPECT_TRUE(eventually([&] { return match(*client).size() == 100; }));
}

TEST_F(Neighbours, WaitNotForWhatIsServedToItsEndWithoutItsClient) {
  install(300);
  const size_t dead = daemon->logCount(" is dead");
  Array patterns = manyPatterns();
  patterns.append("?unknown");  // logged once for each plug-in
  WireClient dying = daemon->connect();
  dying.call(bulk(1));
  dying.send(message("match", {{"rules", Dictionary{{"k", patterns}}}}));
  ASSERT_TRUE(daemon->waitForLog("unrecognized match operator"));
  atOnce([&] {
    client->send(bulk(2));
    dying.close();
  });
  ASSERT_TRUE(client->receive() && daemon->waitForLog(" is dead", dead + 1));
  EXPECT_TRUE(daemon->waitForLog("unrecognized match operator", 300));
  EXPECT_NE(daemon->log().back().find("unrecognized"), std::string::npos)
      << "after the other's and the death";
}

TEST_F(Neighbours, WhoEndsIsStillAnsweredInOrder) {
  install(300);
  Array patterns = manyPatterns();
  patterns.append("?unknown");
  WireClient ending = daemon->connect();
  ending.send(message("match", {{"rules", Dictionary{{"k", patterns}}}}));
  ASSERT_TRUE(daemon->waitForLog("unrecognized match operator"));
  atOnce([&] {
    client->send(bulk(0));
    for (int i = 0; i < 3; ++i) ending.send({{"request", "bulk"}, {"version", 1}});
    ending.shutdownSending();
  });
  std::string errors;
  while (const auto reply = ending.receive()) errors += errorOf(*reply->body.dictionary()).substr(0, 1) + ";";
  EXPECT_EQ(errors, ";7;7;7;") << "what was begun, and those that are not served any more";
}

TEST_F(Neighbours, AreSparedWhatIsBeyondTheLimits) {
  install(100);
  // Rules: the entries count, their patterns, items and the items' types.
  const auto rules = [](size_t patterns) {
    const Dictionary items = {{"items", Array{Dictionary{{"types", Array{"a", "b"}}}}}};
    return Dictionary{{"x", items}, {"k", Array(std::vector<Value>(patterns - 5, "v"))}};
  };
  EXPECT_EQ(error("match", {{"rules", rules(kMaximumPatterns)}}), "");
  EXPECT_EQ(error("match", {{"rules", rules(kMaximumPatterns + 1)}, {"flags", 0x200}}),
            "4: invalid request format (more than 16384 patterns)");
  EXPECT_EQ(error("match", {{"rules", rules(kMaximumPatterns)}, {"flags", 0x200}}),
            "11: unauthorized discovery flag (ABDiscoverAll)");
  const UUID one = uuid("many.0"), other = uuid("many.1");

  const auto annotate = [this](const UUID& plugIn, const Dictionary& annotation) {
    return error("annotate", {{"uuids", uuidArray({plugIn})}, {"annotations", annotation}});
  };
  const Dictionary large = {{"extension", Dictionary{{"k", std::string(255 << 10, 'x')}}}};
  for (int i = 0; i < 8; ++i) EXPECT_EQ(annotate(uuid("many." + std::to_string(i)), large), "");
  EXPECT_EQ(annotate(uuid("many.8"), large), "4: invalid request format (annotation extension)");
  EXPECT_EQ(annotate(uuid("many.8"), {{"election", 1}}), "");
  EXPECT_EQ(annotate(one, large), "") << "it does not grow";
  EXPECT_EQ(annotate(other, {{"extension", Dictionary()}}), "");
  EXPECT_EQ(annotate(uuid("many.8"), large), "");

  const Dictionary all = {{"paths", Array{application}}, {"flags", 1}};
  WireClient greedy = daemon->connect();
  for (size_t i = 0; i < kMaximumHeldPlugIns / 100; ++i)
    EXPECT_EQ(errorOf(greedy.call(message("lock", all))), "");
  EXPECT_EQ(errorOf(greedy.call(message("lock", all))),
            "4: invalid request (more than 65536 plug-ins on hold)");
  greedy.close();
  const Dictionary hold = {{"paths", Array{DeviceRoot::plugInPath(application, "many.1")}}, {"flags", 2}};
  WireClient holder = daemon->connect();
  Dictionary granted;
  for (size_t i = 0; i < kMaximumHolds; ++i) granted = holder.call(message("lock", hold));
  EXPECT_EQ(errorOf(granted), "");
  EXPECT_EQ(errorOf(holder.call(message("lock", hold))), "4: invalid request (more than 1024 holds)");
  EXPECT_EQ(error("lock", hold), "") << "each connection has its own";
  holder.call(message("lock", {{"uuids", Array{granted["uuids"]}}}));
  EXPECT_EQ(errorOf(holder.call(message("lock", hold))), "");
  const size_t notifications = root.changeNotifications();
  holder.close();
  EXPECT_TRUE(eventually([&] { return root.changeNotifications() == notifications + kMaximumHolds; }));
}

}  // namespace
}  // namespace testsupport
