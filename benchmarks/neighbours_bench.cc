// What one client does to the others: the smallest request, asked a thousand times a second, beside others
// that send the most that is admitted, again and again. Shown in units of what nobody shall wait for longer.

#include <unistd.h>

#include <vector>

#include "benchmarks/Benches.h"
#include "benchmarks/Client.h"
#include "benchmarks/Frames.h"
#include "benchmarks/Pairs.h"
#include "benchmarks/Plugins.h"
#include "benchmarks/Processes.h"

namespace bench {

namespace {

using platform::Array;
using platform::Dictionary;
using platform::UUID;
using platform::Value;

constexpr double kLongestWait = 0.05;  // seconds
constexpr size_t kPlugIns = 1000;
constexpr size_t kPairs = 5;
constexpr double kSlice = 2;  // seconds
constexpr useconds_t kPause = 500;
/// Patterns: the limit, less the entry that holds them.
constexpr size_t kPatterns = 16383;

/// What the others ask without a pause.
struct Neighbour {
  std::string name;
  std::string request;
  size_t requests;  // then they connect anew
};

std::string rulesFrame(const std::string& key, size_t count, const std::string& prefix) {
  Array patterns;
  for (size_t i = 0; i < count; i++) patterns.append(prefix + std::to_string(i));
  return matchFrame({{key, patterns}});
}

std::vector<Neighbour> neighbours(const Daemon& daemon, const Population& device) {
  std::vector<UUID> uuids;
  Client client(daemon.socketPath());
  for (const Value& form : matches(client.roundTrip(matchFrame({}))))
    uuids.push_back(*UUID::fromString(form["uuid"].string().value_or("")));
  Array thousand;
  for (const UUID& uuid : uuids) thousand.append(uuid);
  const Dictionary extension = {{"k", std::string(200 << 10, 'x')}};
  const std::string hold =
      requestFrame({{"request", "lock"}, {"paths", Array{device.plugInPaths[0]}}, {"flags", 2}});
  return {
      {"16,383 patterns", rulesFrame("BWBundleVersion", kPatterns, ">w"), 100},
      {"16,383 unknown operators", rulesFrame("BWBundleVersion", kPatterns, "?"), 100},
      {"16,383 types", rulesFrame("BWBundleVersion", kPatterns, "?TY-CONFORMS:public.t"), 100},
      {"16,383 extension points", rulesFrame("ZQExtensionPointName", kPatterns, "point."), 100},
      {"all of 1,000", matchFrame({}), 10000},
      {"ready for 64 plug-ins", uuidsFrame("ready", {uuids.begin(), uuids.begin() + 64}), 1000},
      {"annotating 1,000, 200 kB each",
       requestFrame({{"request", "annotate"},
                     {"uuids", thousand},
                     {"annotations", Dictionary{{"extension", extension}}}}),
       100},
      {"annotating one",
       requestFrame({{"request", "annotate"},
                     {"uuids", Array{uuids.front()}},
                     {"annotations", Dictionary{{"election", 1}}}}),
       1000},
      {"1,024 holds and their end", hold, 1024},
  };
}

/// The share 0.999 of how long the small client waits.
double longestWait(const Daemon& daemon) {
  static const std::string frame = requestFrame({{"request", "bulk"}, {"flags", 0}});
  Client client(daemon.socketPath());
  client.roundTrip(frame);
  std::vector<double> waits;
  for (const double begin = secondsNow(); secondsNow() - begin < kSlice;) {
    waits.push_back(secondsOf([&] { client.roundTrip(frame); }));
    usleep(kPause);
  }
  return percentile(waits, 0.999);
}

}  // namespace

void benchNeighbours() {
  const Population& device = population(kPlugIns);
  const Daemon daemon(device.dataHome, device.place + "/neighbours", 20000);
  const std::vector<Neighbour> all = neighbours(daemon, device);
  for (const size_t connections : {1, 64})
    for (const Neighbour& neighbour : all) {
      Pairs pairs;
      for (size_t pair = 0; pair < kPairs; pair++) {
        const Process other = Process::fork([&] {
          for (;;) runLoad(daemon.socketPath(), {{neighbour.request}}, connections, 1, neighbour.requests);
        });
        usleep(200'000);
        pairs.add(kLongestWait, longestWait(daemon));
      }
      report("smallest request beside " + std::to_string(connections) + " x " + neighbour.name +
                 ": p99.9, against 50 ms",
             pairs, 1.0);
    }
}

}  // namespace bench
