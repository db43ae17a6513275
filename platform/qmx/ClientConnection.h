#pragma once

// The client's end of a connection. The owner holds a ClientConnection; what the loop and running work refer
// to is its channel, which outlives it by what is under way. Any thread sends; reading, connecting and
// closing happen on the loop that the queue is bound to; handlers run on the queue, which is not touched any
// more after the ClientConnection is gone.

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <variant>
#include <vector>

#include "platform/qmx/Connection.h"
#include "platform/qmx/FrameReader.h"
#include "platform/qmx/OutputQueue.h"
#include "platform/system/FileDescriptor.h"

namespace platform::qmx {

class ClientChannel : public std::enable_shared_from_this<ClientChannel> {
 public:
  using Handler = Connection::Handler;
  using Reply = Connection::Reply;
  using ReplyHandler = Connection::ReplyHandler;

  ClientChannel(std::string serviceName, SerialQueue& queue);

  void setEventHandler(Handler handler);
  void resume();
  /// `handler` is empty for what wants no reply.
  void send(Message message, ReplyHandler handler);
  void cancel();
  /// The owner has gone.
  void close();
  /// -1 when there is no connection.
  int fd() const;

 private:
  enum class State : uint8_t { suspended, disconnected, connecting, connected, closed };
  using Socket = std::shared_ptr<const FileDescriptor>;
  /// A reply for its handler, or an event for the event handler.
  using Delivery = std::variant<std::pair<ReplyHandler, Reply>, Event>;

  // On the loop's thread.
  void connect();
  void connected(FileDescriptor socket);
  void handleEvents(RunLoop::Events events);
  bool readOnce();
  bool takeFrames();
  bool takeFrame(std::span<const uint8_t> contents);
  void lose(ConnectionError error);

  // Any thread, with the mutex held.
  void beginConnecting();
  void deliverLater(Delivery delivery);
  void failPending(ConnectionError error);

  // Any thread, without.
  void writeQueued();
  void deliver();

  const std::string serviceName_;
  RunLoop& loop_;

  mutable std::mutex mutex_;
  // Guarded by mutex_.
  State state_ = State::suspended;
  SerialQueue* queue_;  // null when the owner has gone
  std::shared_ptr<const Handler> handler_;
  Socket socket_;
  uint64_t lastId_ = 0;
  std::map<uint64_t, ReplyHandler> pending_;
  std::vector<Delivery> deliveries_;
  bool isDeliveryQueued_ = false;
  OutputQueue queued_;
  bool isWriting_ = false;  // some thread is in writeQueued() and owns outgoing_
  bool isBlocked_ = false;  // the socket takes no more: the loop writes when it does

  /// What is being written; of whoever set isWriting_.
  OutputQueue outgoing_;

  // The loop's thread only.
  FrameReader reader_;
  int attempts_ = 0;
  bool isRegistered_ = false;
};

/// A handler may drop the connection while another thread is still inside the send that it answers.
class ClientConnection final : public Connection {
 public:
  ClientConnection(const std::string& serviceName, SerialQueue& queue)
      : channel_(std::make_shared<ClientChannel>(serviceName, queue)) {}
  ~ClientConnection() override { channel_->close(); }

  void setEventHandler(Handler handler) override { channel_->setEventHandler(std::move(handler)); }
  void setContext(std::shared_ptr<void> context) override { context_ = std::move(context); }
  void resume() override { channel_->resume(); }
  void send(Message message) override;
  void goOnLater(Work rest) override;
  void sendWithReply(Dictionary body, ReplyHandler handler) override;
  void cancel() override { channel_->cancel(); }
  const std::shared_ptr<const PeerIdentity>& peer() const override { return peer_; }
  std::string description() const override;

 private:
  const std::shared_ptr<ClientChannel> channel_;
  const std::shared_ptr<const PeerIdentity> peer_;  // always null
  std::shared_ptr<void> context_;
};

}  // namespace platform::qmx
