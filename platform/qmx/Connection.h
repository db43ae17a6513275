#pragma once

// One stream of frames between two processes, for either side. Peer connections (made by a Listener) and
// client connections (made by connect()) behave the same: events go to the event handler on the loop that
// drives the connection, replies to the closure of their request.
//
// A connection is created suspended; nothing is read before resume(). A peer connection dies once: the event
// handler gets what had arrived whole and then connectionInvalid as its last event, and is released; the loop
// drops its own reference. When the end of the stream is noticed while no open connection has a message
// waiting, each of its messages still gets its turn before that event, as those of an open connection do;
// otherwise they are handed over together with it, and their receiver finds the peer dead. Replies are
// written as long as somebody keeps the connection to send them, to a peer that only stopped sending, and the
// stream is closed after that. A client connection lives as long as its
// owner keeps it: when the service cannot be reached or goes away, the event handler and every pending reply
// get the error, and the next send connects anew.
//
// Peer connections hand over one message at a time, in the order of arrival, between pieces of work of the
// loop's queues: what the event handler submits to a queue of the same loop has run before the next message
// comes. Messages beyond that wait inside the connection (kMaximumPendingRequests, kMaximumUnsentBytes). Work
// that takes long is done in slices (goOnLater()), between which the other connections have their turns.

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <variant>

#include "platform/qmx/Message.h"
#include "platform/qmx/PeerIdentity.h"
#include "platform/queue/RunLoop.h"
#include "platform/queue/SerialQueue.h"

#pragma GCC visibility push(default)

namespace platform::qmx {

/// The service's error objects. terminationImminent: the peer's process is gone, the stream is not.
/// connectionInvalid: a peer connection has died, or the service cannot be reached. interrupted: the
/// service went away; the client connection can be used again.
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

  /// Set before resume(); released when the connection has died. Runs on the loop's thread for peer
  /// connections, on the connection's queue for client connections.
  virtual void setEventHandler(Handler handler) = 0;
  /// One strong reference that the connection holds for its owner until it is destroyed.
  virtual void setContext(std::shared_ptr<void> context) = 0;
  /// Starts reading and delivering. Once.
  virtual void resume() = 0;
  /// Sends a message or a reply. Never blocks: what the peer does not take is kept in order (bounded by
  /// kMaximumUnsentBytes, beyond which requests of this peer wait). On a cancelled connection it does
  /// nothing. Peer connections: on the loop's thread; client connections: any thread.
  virtual void send(Message message) = 0;
  /// The work of the message that was handed over last is not finished: `rest` runs when the other
  /// connections have had their turns, and the next message comes after it. Dropped when the connection dies
  /// first. Peer connections; on the loop's thread, once until `rest` runs.
  virtual void goOnLater(Work rest) = 0;
  /// Sends a request; `handler` runs once, on the connection's queue. Client connections; any thread.
  virtual void sendWithReply(Dictionary body, ReplyHandler handler) = 0;
  /// Drops the connection as if the peer had gone, but for what is unsent or not handed over. Any thread.
  virtual void cancel() = 0;

  /// What waits inside the connection: messages that have arrived whole, the unfinished one included, and
  /// bytes that the peer has not taken. Peer connections (nothing elsewhere); on the loop's thread.
  struct Load {
    size_t messages = 0, unsentBytes = 0;
  };
  virtual Load load() const { return {}; }

  /// The peer's identity; null on client connections.
  virtual const std::shared_ptr<const PeerIdentity>& peer() const = 0;
  /// "<connection 0x... fd=7 pid=123>".
  virtual std::string description() const = 0;
};

}  // namespace platform::qmx

#pragma GCC visibility pop
