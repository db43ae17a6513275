// How peers and their messages reach the server: a new connection becomes a client on the listener's queue,
// a message becomes a transaction on the connection's queue, and the transaction runs on the service queue.
// This file stands above server, client and transaction, which know each other by name only.

#include <algorithm>
#include <new>

#include "abd/ABDQmxClient.h"
#include "abd/ABDServer.h"
#include "abd/ABDTrace.h"
#include "abd/requests/Transaction.h"
#include "platform/log/Log.h"

namespace abd {

namespace {

constexpr uint32_t kRequestsPerCountLine = 1000;

/// A message of the wire's kinds that is no dictionary, for the log.
struct Unexpected {
  const Value& object;
  std::string description() const { return object.description(); }
};

}  // namespace

void ABDServer::installConnectionHandlers() {
  using Service = ABDQmxClient::Service;
  const auto handler = [server = server()](Service service) {
    return [server, service](std::shared_ptr<qmx::Connection> connection) {
      try {
        ABDQmxClient::initWithConnection(connection, *server, service);
      } catch (const std::bad_alloc&) {
        systemLog("closing %@: out of memory", *connection);
        connection->cancel();
      }
    };
  };
  service_->setConnectionHandler(handler(Service::main));
  if (diagnostics_ != nullptr) diagnostics_->setConnectionHandler(handler(Service::diagnostics));
}

std::shared_ptr<ABDQmxClient> ABDServer::clientOf(pid_t pid) const {
  const auto found =
      std::ranges::find(clients_, pid, [](const ABDQmxClient* client) { return client->pid(); });
  return found == clients_.end() ? nullptr : (*found)->shared_from_this();
}

std::vector<std::shared_ptr<ABDQmxClient>> ABDServer::clients() const {
  std::vector<std::shared_ptr<ABDQmxClient>> all;
  all.reserve(clients_.size());
  for (ABDQmxClient* client : clients_) all.push_back(client->shared_from_this());
  return all;
}

std::shared_ptr<ABDQmxClient> ABDQmxClient::initWithConnection(
    const std::shared_ptr<qmx::Connection>& connection, ABDServer& server, Service service) {
  const std::shared_ptr<ABDQmxClient> client(new ABDQmxClient(connection, server, service));
  client->identify();
  connection->setContext(client);
  connection->setEventHandler([client](qmx::Event&& event) { client->handleEvent(std::move(event)); });
  if (service == Service::main) server.clients_.insert(client.get());  // until its death is told
  connection->resume();
  return client;
}

void ABDQmxClient::handleEvent(qmx::Event&& event) {
  if (auto* message = std::get_if<qmx::Message>(&event)) {
    handleMessage(std::move(*message));
  } else if (const auto* error = std::get_if<qmx::ConnectionError>(&event)) {
    switch (*error) {
      case qmx::ConnectionError::terminationImminent:
        dying();
        break;
      case qmx::ConnectionError::connectionInvalid:
        dead();
        break;
      default:
        server_.log("unexpected error %@", qmx::description(*error));
    }
  } else {
    const Unexpected unexpected{std::get<qmx::UnexpectedObject>(event).object};
    server_.log("unexpected message %@ on connection %@", unexpected, connection());
  }
}

void ABDQmxClient::handleMessage(qmx::Message&& message) {
  if (server_.verbose() >= ABDServer::kVerboseMessages) server_.debug("incoming request %@", message);
  if (trace::requestInputIsEnabled()) trace::requestInput(pid(), message.description());
  auto transaction = std::make_shared<Transaction>(std::move(message), shared_from_this());
  server_.submitWork([transaction = std::move(transaction)] { transaction->client().serve(transaction); });
}

void ABDQmxClient::serve(std::shared_ptr<Transaction> transaction) {
  // A connection hands over one after the other, but all that is left when it dies.
  if (const auto unfinished = unfinished_.lock()) return unfinished->setNext(std::move(transaction));
  if (++requestCount_ % kRequestsPerCountLine == 0)
    server_.debug("client %d used %u requests so far", pid(), requestCount_);
  beginRequest();
  transaction->dispatch();
}

}  // namespace abd
