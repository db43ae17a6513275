// "status": what the daemon does and has done, in numbers.

#include <unistd.h>

#include <chrono>

#include "Ambrel/ABDiagnostics.h"
#include "abd/ABDPlugInHold.h"
#include "abd/ABDQmxClient.h"
#include "abd/ABDServer.h"
#include "abd/requests/Transaction.h"

namespace abd {

namespace {

Dictionary programOf(const ABDQmxClient& client) {
  Dictionary row = {{statuskey::pid, client.pid()}};
  if (client.bundle() == nullptr) return row;
  if (const auto path = client.bundle()->path()) row.set(statuskey::bundle, *path);
  return row;
}

Dictionary holdRow(const ABDPlugInHold& hold) {
  const auto client = hold.client();
  Dictionary row = client != nullptr ? programOf(*client) : Dictionary();
  row.set(statuskey::token, hold.uuid().string());
  row.set(statuskey::since, hold.created());
  row.set(statuskey::plugIns, hold.blocked().size());
  return row;
}

Dictionary records(ABDServer& server) {
  const auto counts = server.cacheCounts();
  return {{statuskey::kept, counts.records},
          {statuskey::limit, server.cacheLimit()},
          {statuskey::purges, counts.purges}};
}

Dictionary registry(ABDServer& server) {
  const HLRegistryStatistics statistics = server.workspace().statistics();
  Dictionary all = {{statuskey::bundles, statistics.bundles},
                    {statuskey::plugIns, statistics.plugIns},
                    {statuskey::announcements, statistics.announcements},
                    {statuskey::watches, statistics.watches},
                    {statuskey::polling, statistics.isPolling}};
  if (statistics.lastScan) all.set(statuskey::scanned, *statistics.lastScan);
  return all;
}

Dictionary annotations(ABDServer& server) {
  const ABDAnnotationStore::Condition condition = server.annotationCondition();
  Dictionary all = {{statuskey::path, server.annotations().annotationsURL().path()},
                    {statuskey::records, condition.records},
                    {statuskey::bytes, condition.bytes}};
  if (condition.saved) all.set(statuskey::saved, *condition.saved);
  if (condition.error) all.set(statuskey::error, condition.error->localizedDescription());
  return all;
}

}  // namespace

Course Transaction::reportStatus() {
  const auto uptime = Statistics::Clock::now() - server().statistics().started;
  Array clients, holds;
  size_t queued = 0;
  for (const auto& client : server().clients()) {
    if (const auto connection = client->connection(); connection != nullptr && client->acceptWork()) {
      const qmx::Connection::Load load = connection->load();
      Dictionary row = programOf(*client);
      row.set(statuskey::requests, client->requestCount());
      row.set(statuskey::waiting, load.messages);
      row.set(statuskey::unsent, load.unsentBytes);
      clients.append(std::move(row));
      queued += load.messages;
    }
    co_await giveWay();
  }
  for (const auto& hold : server().holds()) {
    holds.append(holdRow(*hold));
    co_await giveWay();
  }
  setReply(statuskey::status, Dictionary{{statuskey::version, ABD_VERSION},
                                         {statuskey::service, server().serviceName()},
                                         {statuskey::pid, getpid()},
                                         {statuskey::uptime, std::chrono::duration<double>(uptime).count()},
                                         {statuskey::queued, queued},
                                         {statuskey::clients, std::move(clients)},
                                         {statuskey::holds, std::move(holds)},
                                         {statuskey::requests, requestFigures()},
                                         {statuskey::records, records(server())},
                                         {statuskey::registry, registry(server())},
                                         {statuskey::annotations, annotations(server())}});
  done();
}

}  // namespace abd
