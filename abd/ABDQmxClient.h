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
#include <string_view>
#include <utility>
#include <vector>

#include "Ambrel/ABBundle.h"
#include "abd/RequestSettings.h"
#include "abd/plugin/Rules.h"
#include "platform/qmx/Connection.h"
#include "platform/security/CodeSigning.h"
#include "platform/value/Value.h"

namespace abd {

using namespace platform;
using namespace ambrel;

class ABDPlugInHold;
class ABDServer;
class Transaction;

class ABDQmxClient : public std::enable_shared_from_this<ABDQmxClient> {
 public:
  /// initWithConnection:server:. The connection is configured and resumed.
  static std::shared_ptr<ABDQmxClient> initWithConnection(const std::shared_ptr<qmx::Connection>& connection,
                                                          ABDServer& server);
  ABDQmxClient(const ABDQmxClient&) = delete;
  ABDQmxClient& operator=(const ABDQmxClient&) = delete;

  /// The termination-imminent event: the peer's process is gone, its connection is not.
  void dying();
  /// The connection-invalid event: drops the peer's holds and stops serving it.
  void dead();

  /// Null once the connection is gone.
  std::shared_ptr<qmx::Connection> connection() const { return connection_.lock(); }
  ABDServer& server() const { return server_; }
  pid_t pid() const { return peer_->pid(); }
  const qmx::PeerIdentity& peer() const { return *peer_; }
  /// Null when the peer's executable is unknown.
  const std::shared_ptr<ABBundle>& bundle() const { return bundle_; }
  /// Whether requests of this peer are still served.
  bool acceptWork() const { return acceptWork_.load(std::memory_order_acquire); }

  /// The value of one entitlement of the peer's process, or a none value. Asked once for each request that
  /// wants to know. When the question fails (the process is gone or runs another image, the entitlements
  /// cannot be read) the peer has none, but the restriction of the plug-ins that it may use stays what it was
  /// when it was known last, the first time when the peer connected. On the service queue.
  Value entitlementValueForKey(std::string_view key);
  /// Whether the peer has the entitlement with a value that is not equal to false. On the service queue.
  bool hasEntitlement(std::string_view key);
  /// Whether the peer's process runs unconfined (and still runs at all). On the service queue.
  bool isUnsandboxed() const;
  /// The settings as the peer's current request sees them. On the service queue.
  RequestSettings& settings() { return settings_; }
  /// The peer's own restriction, `rules`, taken apart once for each request. On the service queue.
  const Rules& restriction(const Dictionary& rules);

  std::string description() const;

 private:
  friend class ABDServer;
  ABDQmxClient(const std::shared_ptr<qmx::Connection>& connection, ABDServer& server);
  void identify();
  void handleEvent(qmx::Event&& event);
  void handleMessage(qmx::Message&& message);
  void serve(Transaction& transaction);

  // Set before the first event.
  const std::weak_ptr<qmx::Connection> connection_;
  ABDServer& server_;
  const std::shared_ptr<const qmx::PeerIdentity> peer_;
  std::shared_ptr<ABBundle> bundle_;
  std::shared_ptr<const CodeSigningTask> task_;

  std::atomic<bool> acceptWork_{true};

  // Only on the service queue.
  uint32_t requestCount_ = 0;
  Value lastRestriction_;  // entitlement::allowedPlugIns, as it was known last
  // What this request has asked for.
  std::vector<std::pair<std::string, Value>> entitlements_;
  RequestSettings settings_;
  std::unique_ptr<const Rules> restriction_;

  // Only on the server's "serverSync" queue.
  std::vector<std::shared_ptr<ABDPlugInHold>> holds_;  // the peer's, in creation order
  bool holdsDropped_ = false;
};

}  // namespace abd
