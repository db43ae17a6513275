// The smallest request that does its whole way through the daemon and logs nothing, against a bare echo of
// frames of the same sizes, and beside an administrator who looks on.

#include <unistd.h>

#include "benchmarks/Benches.h"
#include "benchmarks/Client.h"
#include "benchmarks/Frames.h"
#include "benchmarks/Pairs.h"
#include "benchmarks/Plugins.h"
#include "benchmarks/Processes.h"

namespace bench {

namespace {

constexpr size_t kPairs = 9;

struct Sides {
  const Daemon& daemon;
  const BareServer& bare;     // a write for each reply
  const BareServer& joining;  // a write for each read
  std::vector<Step> request, bareRequest;
};

/// One client that waits for each reply: p50, p99 and rate.
void benchOneClient(const Sides& sides, const std::string& where, size_t slice, std::optional<double> aim) {
  Client subject(sides.daemon.socketPath()), baseline(sides.bare.socketPath());
  Pairs p50, p99, rate;
  std::vector<double> latencies[2];
  double spent[2];
  const auto run = [&](size_t side) {
    Client& client = side == 0 ? baseline : subject;
    const std::string& frame = side == 0 ? sides.bareRequest[0].frame : sides.request[0].frame;
    latencies[side].clear();
    const double begin = secondsNow();
    double last = begin;
    for (size_t i = 0; i < slice; i++) {
      client.roundTrip(frame);
      const double now = secondsNow();
      latencies[side].push_back(now - last);
      last = now;
    }
    spent[side] = last - begin;
  };
  run(0);
  run(1);
  for (size_t pair = 0; pair < kPairs; pair++) {
    run(pair % 2);
    run(1 - pair % 2);
    p50.add(percentile(latencies[0], 0.5), percentile(latencies[1], 0.5));
    p99.add(percentile(latencies[0], 0.99), percentile(latencies[1], 0.99));
    rate.add(spent[0], spent[1]);
  }
  report("(a) 1 client, " + where + ": p50", p50, aim);
  report("(a) 1 client, " + where + ": p99", p99, std::nullopt);
  reportRate("(a) 1 client, " + where + ": requests", rate, static_cast<double>(slice), std::nullopt,
             requestsPerSecond);
}

void benchLoad(const Sides& sides, const BareServer& bare, const std::string& name, size_t clients,
               size_t inFlight, size_t slice, std::optional<double> p50Aim, std::optional<double> rateAim) {
  Pairs p50, p99, rate;
  for (size_t pair = 0; pair < kPairs; pair++) {
    LoadResult results[2];
    for (const size_t side : {pair % 2, 1 - pair % 2}) {
      results[side] = side == 0 ? runLoad(bare.socketPath(), sides.bareRequest, clients, inFlight, slice)
                                : runLoad(sides.daemon.socketPath(), sides.request, clients, inFlight, slice);
    }
    p50.add(percentile(results[0].latencies, 0.5), percentile(results[1].latencies, 0.5));
    p99.add(percentile(results[0].latencies, 0.99), percentile(results[1].latencies, 0.99));
    rate.add(results[0].seconds, results[1].seconds);
  }
  report(name + ": p50", p50, p50Aim);
  report(name + ": p99", p99, std::nullopt);
  reportRate(name + ": requests", rate, static_cast<double>(slice), rateAim, requestsPerSecond);
}

/// The same with `abctl status` once a second and without.
void benchStatus(const Daemon& daemon, const std::vector<Step>& request) {
  constexpr size_t kSlice = 100'000;  // a second and more
  const auto asking = [&daemon] {
    return Process::fork([&daemon] {
      for (;; sleep(1))
        Process::spawn(ABCTL_PROGRAM, {"status"}, {{"XDG_RUNTIME_DIR", daemon.place() + "/run"}}).wait();
    });
  };
  Pairs p50, p99, rate;
  for (size_t pair = 0; pair < kPairs; pair++) {
    LoadResult results[2];
    for (const size_t side : {pair % 2, 1 - pair % 2}) {
      const Process administrator = side == 0 ? Process() : asking();
      results[side] = runLoad(daemon.socketPath(), request, 1, 1, kSlice);
    }
    p50.add(percentile(results[0].latencies, 0.5), percentile(results[1].latencies, 0.5));
    p99.add(percentile(results[0].latencies, 0.99), percentile(results[1].latencies, 0.99));
    rate.add(results[0].seconds, results[1].seconds);
  }
  report("(a) 1 client beside status once a second, against none: p50", p50, 1.05);
  report("(a) 1 client beside status once a second, against none: p99", p99, std::nullopt);
  reportRate("(a) 1 client beside status once a second, against none: requests", rate, kSlice, 1.05,
             requestsPerSecond);
}

}  // namespace

void benchRequests() {
  const Population& device = population(100);
  const Daemon daemon(device.dataHome, device.place + "/requests", -1);
  // Identifiers of one encoded size, so that every frame has the size of the bare one.
  std::vector<Step> request;
  for (uint64_t id = 32; id < 64; id++)
    request.push_back({requestFrame({{"request", "annotate"}, {"annotations", platform::Dictionary()}}, id)});
  std::string reply;
  {
    Client client(daemon.socketPath());
    reply = client.roundTrip(request[0].frame);
    replyBody(reply);
  }
  const std::vector<Step> bareStep{{bareRequest(request[0].frame.size())}};
  const BareServer bare({{bareReply(reply.size()), {}}});
  const BareServer joining({{bareReply(reply.size()), {}}}, true);
  const Sides sides{daemon, bare, joining, request, bareStep};
  for (const bool toOneCore : {true, false}) {
    for (const pid_t process : {0, daemon.pid(), bare.pid(), joining.pid()}) pin(process, toOneCore);
    const std::string where = toOneCore ? "one core" : "unpinned";
    // Unpinned, a wake-up across processors costs more than a request, and whether it comes to one is the
    // scheduler's choice for each side: figures without an aim.
    const auto aim = [toOneCore](double ratio) { return toOneCore ? std::optional(ratio) : std::nullopt; };
    benchOneClient(sides, where, 3000, aim(1.25));
    benchLoad(sides, bare, "(a) 8 clients, " + where, 8, 1, 12000, aim(1.25), std::nullopt);
    benchLoad(sides, bare, "(a) 16 in flight, " + where, 1, 16, 24000, std::nullopt, aim(1.0));
    benchLoad(sides, joining, "(a) 16 in flight, echo joins replies, " + where, 1, 16, 24000, std::nullopt,
              std::nullopt);
    if (toOneCore) benchStatus(daemon, request);
  }
}

}  // namespace bench
