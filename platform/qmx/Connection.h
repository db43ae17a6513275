#pragma once

// One stream of frames between two processes, for either side. Peer connections (made by a Listener) and
// client connections (made by connect()) behave the same: events go to the event handler on the loop that
// drives the connection, replies to the closure of their request.
//
// A connection is created suspended; nothing is read before resume(). It dies once: the event handler gets
// connectionInvalid as its last event, pending replies get the same error, the context is released, and the
// loop drops its own reference. Whoever holds a weak reference then finds it gone.

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <variant>

#include "platform/qmx/Message.h"
#include "platform/qmx/PeerIdentity.h"
#include "platform/queue/RunLoop.h"
#include "platform/queue/SerialQueue.h"

namespace platform::qmx {

/// The service's error objects.
enum class ConnectionError : uint8_t { terminationImminent, connectionInvalid, interrupted };
/// What an error object prints as.
std::string description(ConnectionError error);

/// A well-formed frame whose body is not a map, or the error behind an event of no other kind.
struct UnexpectedObject {
  Value object;
};

using Event = std::variant<Message, ConnectionError, UnexpectedObject>;

class Connection : public std::enable_shared_from_this<Connection> {
 public:
  using Handler = std::function<void(Event&&)>;
  /// What a request ends with: its reply, or the error that took its place.
  using Reply = std::variant<Message, ConnectionError>;
  using ReplyHandler = std::function<void(Reply&&)>;

  /// A connection to the named service of this user, delivering on `queue` (kept by the caller while the
  /// connection lives). Nothing is awaited: a service that is not there shows as connectionInvalid after
  /// resume(), and the next send tries anew.
  static std::shared_ptr<Connection> connect(const std::string& serviceName, SerialQueue& queue);

  virtual ~Connection() = default;

  /// Set before resume(); released when the connection has died.
  virtual void setEventHandler(Handler handler) = 0;
  /// One strong reference that the connection holds for its owner until it is destroyed.
  virtual void setContext(std::shared_ptr<void> context) = 0;
  /// Starts reading and delivering. Once.
  virtual void resume() = 0;
  /// Sends a message or a reply. Never blocks: what the peer does not take is kept in order (bounded by
  /// kMaximumUnsentBytes, beyond which requests of this peer wait). Sending on a dead connection does
  /// nothing. Peer connections: on the loop's thread; client connections: any thread.
  virtual void send(Message message) = 0;
  /// Sends a request; `handler` runs once, on the connection's queue. Client connections; any thread.
  virtual void sendWithReply(Dictionary body, ReplyHandler handler) = 0;
  /// Drops the connection as if the peer had gone. Any thread.
  virtual void cancel() = 0;

  /// Peer connections: how many requests were handed to the handler and are not answered or dropped yet
  /// counts against kMaximumPendingRequests; the dispatcher says here that one more was taken up. On the
  /// loop's thread.
  virtual void requestDispatched() = 0;

  /// The peer's identity; null on client connections.
  virtual const std::shared_ptr<const PeerIdentity>& peer() const = 0;
  /// "<connection 0x... fd=7 pid=123>".
  virtual std::string description() const = 0;
};

}  // namespace platform::qmx
