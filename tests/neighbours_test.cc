// What a client does to the others: one that asks for much beside one that asks for little. Whether somebody
// had a turn is told by the order of log entries.

#include <signal.h>

#include <algorithm>

#include "tests/support/DaemonTest.h"

namespace testsupport {
namespace {

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
    ASSERT_EQ(kill(daemon->pid(), SIGSTOP), 0);
    work();
    ASSERT_EQ(kill(daemon->pid(), SIGCONT), 0);
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
  for (const Dictionary& form : match(*client))
    plugIns.append(*UUID::fromString(form["uuid"].string().value_or("")));
  const Dictionary long_[] = {
      message("match", {{"rules", Dictionary{{"k", manyPatterns()}}}}),
      message("annotate", {{"uuids", plugIns}, {"annotations", Dictionary{{"election", 1}}}}),
      message("access", {{"uuids", Array(std::vector<Value>(2000, plugIns[0]))}}),
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

}  // namespace
}  // namespace testsupport
