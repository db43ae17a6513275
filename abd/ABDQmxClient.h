#pragma once

// One connected peer: who it is (pid, bundle, entitlements), what becomes of its messages, and its death.
// The connection owns the client (context slot and event handler), the client knows the connection weakly,
// each transaction holds its client. Made on the listener's queue; events arrive on the connection's queue,
// requests run on the service queue.

#include <sys/types.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "abd/RequestHost.h"
#include "platform/qmx/Connection.h"

namespace abd {

using namespace platform;
using namespace ambrel;

class ABDPlugInHold;
class ABDServer;
class Transaction;

class ABDQmxClient : public RequestHost, public std::enable_shared_from_this<ABDQmxClient> {
 public:
  /// What a peer is connected to.
  enum class Service : uint8_t { main, diagnostics };

  /// initWithConnection:server:. The connection is configured and resumed.
  static std::shared_ptr<ABDQmxClient> initWithConnection(const std::shared_ptr<qmx::Connection>& connection,
                                                          ABDServer& server, Service service = Service::main);
  ABDQmxClient(const ABDQmxClient&) = delete;
  ABDQmxClient& operator=(const ABDQmxClient&) = delete;

  /// The termination-imminent event: the peer's process is gone, its connection is not.
  void dying();
  /// The connection-invalid event: drops the peer's holds and stops serving it.
  void dead();

  /// Null once the connection is gone.
  std::shared_ptr<qmx::Connection> connection() const { return connection_.lock(); }
  ABDServer& server() const { return server_; }
  Service service() const { return service_; }
  const qmx::PeerIdentity& peer() const { return *peer_; }
  /// Requests that it has sent and that had their turn. On the service queue.
  uint32_t requestCount() const { return requestCount_; }
  /// Begins with a request, or has it wait for the one that is unfinished. On the service queue.
  void serve(std::shared_ptr<Transaction> transaction);
  /// Has coming requests wait for one that goes on later; none: they need not wait. On the service queue.
  void setUnfinished(std::weak_ptr<Transaction> transaction) { unfinished_ = std::move(transaction); }
  /// Whether requests of this peer are still served.
  bool acceptWork() const { return acceptWork_.load(std::memory_order_acquire); }

  /// Whether the peer's process runs unconfined (and still runs at all). On the service queue.
  bool isUnsandboxed() const;
  /// Whether the peer may see what hosts are not offered. On the service queue.
  bool isManager();

  std::string description() const;

 private:
  friend class ABDServer;
  ABDQmxClient(const std::shared_ptr<qmx::Connection>& connection, ABDServer& server, Service service);
  void identify();
  void handleEvent(qmx::Event&& event);
  void handleMessage(qmx::Message&& message);

  // Set before the first event.
  const std::weak_ptr<qmx::Connection> connection_;
  ABDServer& server_;
  const Service service_;
  const std::shared_ptr<const qmx::PeerIdentity> peer_;

  std::atomic<bool> acceptWork_{true};

  // Only on the service queue.
  uint32_t requestCount_ = 0;
  std::weak_ptr<Transaction> unfinished_;

  // Only on the server's "serverSync" queue.
  std::vector<std::shared_ptr<ABDPlugInHold>> holds_;  // the peer's, in creation order
  bool holdsDropped_ = false;
};

}  // namespace abd
