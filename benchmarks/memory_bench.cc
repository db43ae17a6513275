// How much memory the daemon holds for each record in its cache, against the size of the Info files. Records
// are brought in by small searches, so that no large reply counts.

#include "benchmarks/Benches.h"
#include "benchmarks/Client.h"
#include "benchmarks/Frames.h"
#include "benchmarks/Pairs.h"
#include "benchmarks/Plugins.h"
#include "benchmarks/Processes.h"

namespace bench {

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
}

}  // namespace bench
