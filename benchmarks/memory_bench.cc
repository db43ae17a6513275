// How much memory the daemon holds: for each record in its cache, against the size of the Info files (records
// are brought in by small searches, so that no large reply counts), and after bursts of large answers.

#include <unistd.h>

#include <algorithm>
#include <memory>

#include "benchmarks/Benches.h"
#include "benchmarks/Client.h"
#include "benchmarks/Frames.h"
#include "benchmarks/Pairs.h"
#include "benchmarks/Plugins.h"
#include "benchmarks/Processes.h"

namespace bench {

namespace {

constexpr double kMiB = 1 << 20;
constexpr unsigned kPatience = 10;  // seconds

/// Clients that ask for everything at once, read all or nothing of it, and end: how much more memory the
/// daemon holds some seconds later.
void benchBurst(const Daemon& daemon, const std::string& name, size_t clients, size_t requests, bool reads) {
  const std::string request = matchFrame({});
  Client first(daemon.socketPath());
  for (int i = 0; i < 3; i++) first.roundTrip(request);
  const double before = daemon.anonymousMemory();
  double peak = before;
  {
    std::vector<std::unique_ptr<Client>> all;
    for (size_t i = 0; i < clients; i++) all.push_back(std::make_unique<Client>(daemon.socketPath()));
    for (size_t i = 0; i < requests; i++)
      for (const auto& client : all) sendAll(client->fd(), request);
    for (int i = 0; i < 20; i++) {
      usleep(100'000);
      peak = std::max(peak, daemon.anonymousMemory());
    }
    for (const auto& client : all)
      for (size_t i = 1; reads && i < requests; i++) client->roundTrip(request);
  }
  sleep(kPatience);
  const double after = daemon.anonymousMemory();
  const double more = std::max(0.0, (after - before) / kMiB);
  report({"(g) " + name + ": MiB above before, 10 s later", bytes(after),
          bytes(before) + ", peak " + bytes(peak), more, more, more, 10});
}

}  // namespace

void benchMemory() {
  constexpr size_t kRecords = 10000, kBatches = 5, kStep = 100;
  constexpr size_t kBatch = kRecords / kBatches;
  const Population& device = population(kRecords);
  const Daemon daemon(device.dataHome, device.place + "/memory", static_cast<int>(2 * kRecords));
  Client client(daemon.socketPath());
  Pairs pairs;
  // What is allocated once and for all comes with the first question.
  client.roundTrip(matchFrame(identifierRules(0, kStep)));
  for (size_t batch = 0; batch < kBatches; batch++) {
    const size_t first = batch == 0 ? kStep : 0;  // those are there already
    const double before = daemon.anonymousMemory();
    for (size_t i = first; i < kBatch; i += kStep)
      replyBody(client.roundTrip(matchFrame(identifierRules(batch * kBatch + i, kStep))));
    const double perRecord = (daemon.anonymousMemory() - before) / static_cast<double>(kBatch - first);
    pairs.add(device.meanInfoSize, perRecord);
  }
  report("(d) memory of a cached record, against its Info file", pairs, 3.0, bytes);

  const Population& few = population(1000);
  const Daemon busy(few.dataHome, few.place + "/burst", -1);
  benchBurst(busy, "8 readers that never read", 8, 100, false);
  benchBurst(busy, "64 clients with large answers", 64, 2, true);
}

}  // namespace bench
