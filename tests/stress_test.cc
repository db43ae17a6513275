// Many clients at once, with installs, uninstalls and deaths among them. Its worth lies in running against a
// daemon that was built with a sanitizer: the harness fails when the daemon reports anything or ends.

#include <gtest/gtest.h>

#include <atomic>
#include <random>
#include <thread>

#include "tests/support/Daemon.h"

namespace testsupport {
namespace {

constexpr int kClients = 16;
constexpr auto kDuration = std::chrono::seconds(6);

/// One request of any kind about any of the plug-ins that the client has seen.
Dictionary anyRequest(std::mt19937& random, const std::vector<Dictionary>& seen,
                      const std::vector<UUID>& tokens) {
  const auto any = [&]() -> const Dictionary& { return seen[random() % seen.size()]; };
  if (seen.empty()) return message("match");
  const UUID uuid = UUID::fromString(any()["uuid"].string().value_or("")).value_or(UUID());
  const Value path = any()["path"], application = any()["containingPath"];
  const Dictionary elected = {{"election", static_cast<int>(random() % 3)}};
  const Dictionary requests[] = {message("add", {{"paths", Array{path}}}),
                                 message("remove", {{"paths", Array{path}}}),
                                 message("ready", {{"uuids", Array{uuid}}}),
                                 message("access", {{"uuids", Array{uuid}}}),
                                 message("annotate", {{"uuids", Array{uuid}}, {"annotations", elected}}),
                                 message("lock", {{"paths", Array{path}}, {"flags", 2}}),
                                 message("lock", {{"paths", Array{application}}, {"flags", 1}}),
                                 message("lock", {{"uuids", uuidArray(tokens)}}),
                                 message("match"),
                                 message("match", {{"flags", 5}})};
  return requests[random() % std::size(requests)];
}

/// A client's life: requests until the deadline, sometimes a death in the middle of things and a new birth.
void live(const Daemon& daemon, unsigned seed, std::chrono::steady_clock::time_point deadline,
          std::atomic<uint64_t>& answers) {
  std::mt19937 random(seed);
  while (std::chrono::steady_clock::now() < deadline) {
    WireClient client = daemon.connect();
    if (client.fd() < 0) continue;
    std::vector<Dictionary> seen = match(client, {}, 5);
    std::vector<UUID> tokens;
    for (int i = 0; i < 40 && std::chrono::steady_clock::now() < deadline; ++i) {
      const Dictionary reply = client.call(anyRequest(random, seen, tokens));
      if (const auto token = reply["uuids"].uuid()) tokens.push_back(*token);
      ++answers;
    }
    for (int i = 0; i < 5; ++i) client.send(anyRequest(random, seen, tokens));
  }
}

TEST(ManyClients, MixEveryRequestWithInstallsUninstallsAndDeaths) {
  const DeviceRoot root;
  Array paths;
  for (int i = 0; i < 6; ++i) {
    const std::string name = std::to_string(i);
    const std::string application = root.install(
        "App" + name + ".app",
        {{.identifier = "p" + name, .entitlements = {{"com.veltra.developer.auto-elect-plugin", i == 2}}},
         {.identifier = "shared", .version = name}});
    for (const std::string& plugIn : {"p" + name, std::string("shared")})
      paths.append(DeviceRoot::plugInPath(application, plugIn));
  }
  Daemon daemon(root, {.arguments = {"-v", "-c", "5"}});
  const auto deadline = std::chrono::steady_clock::now() + kDuration;
  std::atomic<uint64_t> answers{0};
  {
    std::vector<std::jthread> clients;
    for (unsigned i = 0; i < kClients; ++i)
      clients.emplace_back([&daemon, &answers, deadline, i] { live(daemon, i, deadline, answers); });
    int round = 0;
    while (std::chrono::steady_clock::now() < deadline) {
      const std::string coming =
          root.install("Coming.app", {{.identifier = "coming", .version = std::to_string(round)}});
      Host host(root, daemon, root.path() + "/hosts/Host" + std::to_string(round % 3) + ".app");
      for (int i = 0; i < 10; ++i) {
        host.client().send(message("match"));
        host.client().send(message("lock", {{"paths", Array{coming}}, {"flags", 1}}));
      }
      usleep(static_cast<useconds_t>(20'000 + round * 7'000 % 60'000));
      host.kill();
      fs::rename(coming, root.path() + "/gone" + std::to_string(round++));
    }
  }
  EXPECT_GT(answers.load(), 500u);

  // When all have gone nothing is held, and the daemon is as good as new.
  WireClient client = daemon.connect();
  EXPECT_EQ(errorOf(client.call(message("add", {{"paths", paths}}))), "");
  EXPECT_TRUE(eventually([&] { return identifiers(match(client)) == "p0 p1 p2 p3 p4 p5 shared"; }));
}

}  // namespace
}  // namespace testsupport
