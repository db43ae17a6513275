// What hosts and users ask besides discovery: ready, access, annotate, hold and release, many clients at
// once, and discovery beside a client that annotates. Baselines are bare servers that do the same file work
// and nothing else.

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "benchmarks/Benches.h"
#include "benchmarks/Client.h"
#include "benchmarks/Frames.h"
#include "benchmarks/Pairs.h"
#include "benchmarks/Plugins.h"
#include "benchmarks/Processes.h"
#include "platform/security/Sandbox.h"

namespace bench {

namespace {

namespace fs = std::filesystem;
using platform::Array;
using platform::Dictionary;
using platform::UUID;

constexpr size_t kPairs = 7;
constexpr size_t kHeldPlugIn = 97;

std::string contentsOf(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  std::ostringstream text;
  text << file.rdbuf();
  if (text.str().empty()) giveUp("cannot read " + path);
  return text.str();
}

/// Writes `bytes` to a new file beside `path` and renames it over `path`; `durably`: syncs it before and the
/// directory after. Nothing but the system calls.
void replaceBarely(const std::string& path, const std::string& bytes, bool durably) {
  const std::string temporary = path + ".new";
  const int fd = open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  bool ok = fd >= 0 && write(fd, bytes.data(), bytes.size()) == static_cast<ssize_t>(bytes.size());
  ok = ok && (!durably || fsync(fd) == 0);
  close(fd);
  ok = ok && rename(temporary.c_str(), path.c_str()) == 0;
  if (ok && durably) {
    const int directory = open(fs::path(path).parent_path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    ok = directory >= 0 && fsync(directory) == 0;
    close(directory);
  }
  if (!ok) giveUp("cannot write " + path);
}

/// The daemon, the plug-ins that are named in requests, and the requests.
struct Host {
  Host()
      : device(population(100)),
        daemon(device.dataHome, device.place + "/hosts", -1),
        client(daemon.socketPath()) {
    for (const platform::Value& form : matches(client.roundTrip(matchFrame({})))) {
      const auto uuid = UUID::fromString(form["uuid"].string().value_or(""));
      if (!uuid) giveUp("a form without UUID");
      if (form["path"].string() == device.plugInPaths[kHeldPlugIn]) continue;
      uuids.push_back(*uuid);
      paths.emplace_back(form["path"].string().value_or(""));
    }
    if (uuids.size() + 1 != device.count) giveUp("not every plug-in was found");
    ready = uuidsFrame("ready", {uuids[0]});
    access = uuidsFrame("access", {uuids[1]});
    narrow = matchFrame(pointRules(kNarrowPoint));
    // A plug-in that no other request here is about: what is on hold is neither found nor made ready.
    lock =
        requestFrame({{"request", "lock"}, {"paths", Array{device.plugInPaths[kHeldPlugIn]}}, {"flags", 2}});
    release = uuidsFrame("lock", {UUID()});
    // Its bytes stand where the token goes: the entry of a map after "uuids", an array of one tagged UUID.
    const std::string nothing(16, '\0');
    tokenOffset = release.find(nothing);
    if (tokenOffset == std::string::npos) giveUp("no room for a token in a release");
    // The first of each shows that it succeeds and how large its reply is.
    for (const std::string* frame : {&ready, &access, &narrow}) replyBody(client.roundTrip(*frame));
  }

  std::string annotate(size_t plugIn, int election) const {
    return requestFrame({{"request", "annotate"},
                         {"uuids", Array{uuids[plugIn]}},
                         {"annotations", Dictionary{{"election", election}}}});
  }
  size_t replySize(const std::string& frame) { return client.roundTrip(frame).size(); }
  /// The hold that shows it ends with its client.
  size_t lockReplySize() const { return Client(daemon.socketPath()).roundTrip(lock).size(); }
  /// A store with an election for every plug-in, as after long use.
  void annotateAll() {
    Array all;
    for (const UUID& uuid : uuids) all.append(uuid);
    replyBody(client.roundTrip(requestFrame(
        {{"request", "annotate"}, {"uuids", all}, {"annotations", Dictionary{{"election", 1}}}})));
  }
  std::string annotationFile() const {
    return daemon.place() + "/state/veltra/com.veltra.ambrel/Annotations";
  }

  const Population& device;
  Daemon daemon;
  Client client;
  std::vector<UUID> uuids;
  std::vector<std::string> paths;
  std::string ready, access, narrow, lock, release;
  size_t tokenOffset = 0;
};

/// Asks both sides the same script with one client, each request after the reply to the last.
void benchScript(const Host& host, const std::string& name, const std::vector<Step>& script,
                 const std::vector<BareAnswer>& answers, size_t slice) {
  std::vector<Step> bareScript = script;
  for (size_t i = 0; i < script.size(); i++)
    bareScript[i].frame = bareRequest(script[i].frame.size(), static_cast<uint32_t>(i));
  const BareServer bare(answers);
  pin(bare.pid(), true);
  Pairs p50, p99;
  for (size_t pair = 0; pair < kPairs; pair++) {
    LoadResult results[2];
    for (const size_t side : {pair % 2, 1 - pair % 2})
      results[side] = runLoad(side == 0 ? bare.socketPath() : host.daemon.socketPath(),
                              side == 0 ? bareScript : script, 1, 1, slice);
    p50.add(percentile(results[0].latencies, 0.5), percentile(results[1].latencies, 0.5));
    p99.add(percentile(results[0].latencies, 0.99), percentile(results[1].latencies, 0.99));
  }
  report(name + ": p50", p50, std::nullopt);
  report(name + ": p99", p99, std::nullopt);
}

BareAnswer echo(size_t replySize) {
  return {bareReply(replySize), {}};
}

BareAnswer tokens(size_t replySize, std::vector<std::string> paths) {
  return {bareReply(replySize), [paths = std::move(paths)] {
            for (const std::string& path : paths) {
              if (!platform::issueReadToken(path)) giveUp("no token for " + path);
            }
          }};
}

BareAnswer writing(size_t replySize, const std::string& path, std::string contents, bool durably) {
  return {bareReply(replySize),
          [path, contents = std::move(contents), durably] { replaceBarely(path, contents, durably); }};
}

/// What "ready" leaves for a host: its launch registration.
std::string registrationOf(const Host& host) {
  for (const auto& entry : fs::recursive_directory_iterator(host.daemon.place() + "/run/veltra/Launcher")) {
    if (entry.is_regular_file()) return contentsOf(entry.path().string());
  }
  giveUp("\"ready\" left no registration");
}

void benchAnnotate(Host& host) {
  host.annotateAll();
  const std::string contents = contentsOf(host.annotationFile());
  const std::string elsewhere = host.daemon.place() + "/bare/Annotations";
  fs::create_directories(host.daemon.place() + "/bare");
  std::vector<double> latencies[2];
  Pairs p50, p99;
  int election = 1;
  const auto slice = [&](size_t side) {
    latencies[side].clear();
    for (int i = 0; i < 40; i++) {
      const std::string frame = host.annotate(static_cast<size_t>(i), election++ % 2 + 1);
      latencies[side].push_back(secondsOf([&] {
        if (side == 0) {
          replaceBarely(elsewhere, contents, true);
        } else {
          host.client.roundTrip(frame);
        }
      }));
    }
  };
  slice(0);
  slice(1);
  for (size_t pair = 0; pair < 9; pair++) {
    slice(pair % 2);
    slice(1 - pair % 2);
    p50.add(percentile(latencies[0], 0.5), percentile(latencies[1], 0.5));
    p99.add(percentile(latencies[0], 0.99), percentile(latencies[1], 0.99));
  }
  report(
      "annotate, against write+sync+rename+sync of " + bytes(static_cast<double>(contents.size())) + ": p50",
      p50, 1.2);
  report("annotate: p99", p99, std::nullopt);
}

/// Discovery while another process annotates without a pause, in units of what one annotate takes alone.
void benchMatchBesideAnnotate(Host& host) {
  Pairs p99;
  Client client(host.daemon.socketPath());
  for (size_t pair = 0; pair < 5; pair++) {
    std::vector<double> alone, beside;
    for (int i = 0; i < 40; i++)
      alone.push_back(secondsOf([&] { host.client.roundTrip(host.annotate(3, i % 2 + 1)); }));
    {
      const Process annotator = Process::fork([&] {
        Client own(host.daemon.socketPath());
        for (int i = 0;; i++) own.roundTrip(host.annotate(4, i % 2 + 1));
      });
      usleep(20000);
      for (int i = 0; i < 300; i++) beside.push_back(secondsOf([&] { client.roundTrip(host.narrow); }));
    }
    p99.add(percentile(alone, 0.5), percentile(beside, 0.99));
  }
  report("match beside an annotating client: p99, in annotate times", p99, 2.0);
}

void benchManyClients(Host& host) {
  const std::vector<std::string> narrowPaths = [&] {
    std::vector<std::string> paths;
    for (const platform::Value& form : matches(host.client.roundTrip(host.narrow)))
      paths.emplace_back(form["path"].string().value_or(""));
    return paths;
  }();
  const std::string place = host.daemon.place() + "/bare/";
  std::vector<Step> script, bareScript;
  std::vector<BareAnswer> answers;
  const auto add = [&](const std::string& frame, BareAnswer answer, size_t tokenOffset = 0) {
    script.push_back({frame, tokenOffset});
    bareScript.push_back({bareRequest(frame.size(), static_cast<uint32_t>(answers.size())), tokenOffset});
    answers.push_back(std::move(answer));
  };
  const size_t small = host.replySize(host.ready);
  const std::string registration = registrationOf(host);
  const size_t lockReply = host.lockReplySize();
  for (int i = 0; i < 4; i++) {
    add(host.narrow, tokens(host.replySize(host.narrow), narrowPaths));
    add(host.access, tokens(host.replySize(host.access), {host.paths[1]}));
    add(host.ready, writing(small, place + "ready", registration, false));
    add(host.lock, echo(lockReply));
    add(host.release, echo(small), host.tokenOffset);
  }
  add(host.annotate(5, 1), writing(small, place + "Annotations", contentsOf(host.annotationFile()), true));
  const BareServer bare(std::move(answers));
  pin(bare.pid(), true);
  Pairs p50, p99, rate;
  constexpr size_t kRequests = 4000;
  for (size_t pair = 0; pair < 5; pair++) {
    LoadResult results[2];
    for (const size_t side : {pair % 2, 1 - pair % 2})
      results[side] = side == 0 ? runLoad(bare.socketPath(), bareScript, 64, 1, kRequests)
                                : runLoad(host.daemon.socketPath(), script, 64, 1, kRequests);
    p50.add(percentile(results[0].latencies, 0.5), percentile(results[1].latencies, 0.5));
    p99.add(percentile(results[0].latencies, 0.99), percentile(results[1].latencies, 0.99));
    rate.add(results[0].seconds, results[1].seconds);
  }
  report("64 clients mixing requests: p50", p50, std::nullopt);
  report("64 clients mixing requests: p99", p99, std::nullopt);
  reportRate("64 clients mixing requests: requests", rate, kRequests, std::nullopt, requestsPerSecond);
}

}  // namespace

void benchHosts() {
  pin(0, true);
  Host host;
  pin(host.daemon.pid(), true);
  fs::create_directories(host.daemon.place() + "/bare");
  benchScript(
      host, "ready, against writing the same registration", {{host.ready}},
      {writing(host.replySize(host.ready), host.daemon.place() + "/bare/ready", registrationOf(host), false)},
      1000);
  benchScript(host, "access, against issuing the same token", {{host.access}},
              {tokens(host.replySize(host.access), {host.paths[1]})}, 2000);
  benchAnnotate(host);
  benchMatchBesideAnnotate(host);
  benchScript(host, "hold and release, against echo", {{host.lock}, {host.release, host.tokenOffset}},
              {echo(host.lockReplySize()), echo(host.replySize(host.release))}, 2000);
  benchManyClients(host);
}

}  // namespace bench
