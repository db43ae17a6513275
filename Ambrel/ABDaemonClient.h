#pragma once

// The client's half of the daemon's protocol: one connection to the daemon's service and one call per
// request. Each call sends one message and hands the raw reply to the caller's closure on the library's own
// serial queue "abd_client", in the order in which replies arrive; a closure must not wait for another reply
// of the same client. Calls: any thread. The connection lives as long as this object; it connects anew with
// the next request after it broke. When the object is destroyed, what has not come yet is answered with
// connectionInvalid or dropped, a running closure is waited for (unless it is the one that destroys the
// object), and none runs afterwards.

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Ambrel/ABErrors.h"
#include "Ambrel/ABProtocol.h"
#include "platform/qmx/Connection.h"
#include "platform/queue/SerialQueue.h"
#include "platform/value/UUID.h"
#include "platform/value/Value.h"

#pragma GCC visibility push(default)

namespace ambrel {

using namespace platform;

class ABDaemonClient {
 public:
  /// A reply message, or the error that took its place. errorInReply() tells them apart.
  using Reply = qmx::Connection::Reply;
  using ReplyHandler = qmx::Connection::ReplyHandler;

  /// initWithServiceName: connects to the named service (null: the default one).
  explicit ABDaemonClient(const char* serviceName = nullptr);
  ABDaemonClient(const ABDaemonClient&) = delete;
  ABDaemonClient& operator=(const ABDaemonClient&) = delete;

  const std::shared_ptr<qmx::Connection>& abd() const { return abd_; }
  SerialQueue& replyQueue() const { return *replyQueue_; }
  /// The version that every request carries; kProtocolVersion after construction.
  int64_t protocolVersion() const { return protocolVersion_.load(std::memory_order_relaxed); }
  void setProtocolVersion(int64_t version) { protocolVersion_.store(version, std::memory_order_relaxed); }

  // Plumbing.
  Dictionary request(const char* name) const;
  Dictionary request(const char* name, const std::vector<std::string>& paths) const;
  static void set(Dictionary& message, const std::vector<UUID>& uuids);
  void send(Dictionary message, ReplyHandler reply);
  /// The error that a reply carries, or none when the request succeeded. Throws InternalInconsistency (a
  /// std::logic_error) for a text without a code, which no daemon sends.
  static std::optional<Error> errorInReply(const Reply& reply);
  /// `value` as a property-list message value (as it is when it is one already); none for any version but 3.
  static Value convertToQMX(const Value& value, uint64_t version);
  /// The property list in a property-list message value; none unless protocolVersion() is 3.
  Value convertFromQMX(const Value& value) const;

  // Requests.
  void addPlugIns(const std::vector<std::string>& paths, ReplyHandler reply);
  void removePlugIns(const std::vector<std::string>& paths, ReplyHandler reply);
  void bulkPlugins(uint64_t flags, ReplyHandler reply);
  void readyPlugIns(const std::vector<UUID>& uuids, uint64_t flags, ReplyHandler reply);
  void accessPlugIns(const std::vector<UUID>& uuids, uint64_t flags, ReplyHandler reply);
  /// Without rules the request carries none.
  void matchPlugIns(const std::optional<Dictionary>& rules, uint64_t flags, ReplyHandler reply);
  void setPluginAnnotations(const std::vector<UUID>& uuids, const Dictionary& annotations,
                            ReplyHandler reply);
  void holdPlugins(const std::vector<std::string>& paths, uint64_t flags, ReplyHandler reply);
  void releaseHold(const UUID& token, ReplyHandler reply);

 private:
  std::shared_ptr<SerialQueue> replyQueue_;
  std::shared_ptr<qmx::Connection> abd_;
  std::atomic<int64_t> protocolVersion_{kProtocolVersion};
};

}  // namespace ambrel

#pragma GCC visibility pop
