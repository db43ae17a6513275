#include "platform/qmx/ClientConnection.h"

// Writing: whoever sends writes, on its own thread, so that a request costs no wake-up of the loop. One
// thread at a time does so (isWriting_) and takes along what the others have queued meanwhile; the mutex is
// not held over the system call. When the socket is full the loop goes on.
//
// A lost connection is noticed on the loop's thread alone. Its socket is kept open by whoever writes to it.

#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>

#include "platform/log/Failure.h"
#include "platform/log/Log.h"
#include "platform/qmx/Frame.h"
#include "platform/qmx/Limits.h"
#include "platform/qmx/ServiceAddress.h"

namespace platform::qmx {

namespace {

/// Storage that is kept between replies.
constexpr size_t kKeptStorage = 1u << 20;
/// While the service has too many peers that wait to be accepted.
constexpr std::chrono::milliseconds kConnectInterval{10};
constexpr int kConnectAttempts = 3000;

}  // namespace

ClientChannel::ClientChannel(std::string serviceName, SerialQueue& queue)
    : serviceName_(std::move(serviceName)),
      loop_(queue.loop()),
      queue_(&queue),
      reader_(UINT32_MAX, kKeptStorage) {}

void ClientChannel::setEventHandler(Handler handler) {
  auto shared = std::make_shared<const Handler>(std::move(handler));
  const std::lock_guard lock(mutex_);
  handler_.swap(shared);
}

int ClientChannel::fd() const {
  const std::lock_guard lock(mutex_);
  return socket_ == nullptr ? -1 : socket_->get();
}

void ClientChannel::resume() {
  const std::lock_guard lock(mutex_);
  if (state_ == State::suspended) beginConnecting();
}

void ClientChannel::beginConnecting() {
  state_ = State::connecting;
  loop_.async([channel = shared_from_this()] {
    channel->attempts_ = 0;
    channel->connect();
  });
}

void ClientChannel::send(Message message, ReplyHandler handler) {
  {
    const std::lock_guard lock(mutex_);
    if (state_ == State::closed) return;
    if (handler) {
      message.id = ++lastId_;
      pending_.emplace(lastId_, std::move(handler));
    }
    if (!queued_.append(message)) {
      if (const auto request = pending_.find(message.id); request != pending_.end()) {
        deliverLater(std::pair(std::move(request->second), Reply(ConnectionError::connectionInvalid)));
        pending_.erase(request);
      }
      return;
    }
    if (state_ == State::disconnected) beginConnecting();
    if (state_ != State::connected || isWriting_ || isBlocked_) return;
  }
  writeQueued();
}

void ClientChannel::writeQueued() {
  std::unique_lock lock(mutex_);
  if (isWriting_) return;
  isWriting_ = true;
  Socket socket = socket_;
  while (state_ == State::connected && !isBlocked_) {
    if (socket != socket_) {
      // Another connection: of the last one nothing is left to be sent.
      socket = socket_;
      outgoing_.clear();
    }
    outgoing_.append(std::move(queued_));
    if (outgoing_.empty()) break;
    lock.unlock();
    const OutputQueue::Outcome outcome = outgoing_.write(socket->get());
    lock.lock();
    if (socket != socket_ || outcome == OutputQueue::Outcome::everything ||
        outcome == OutputQueue::Outcome::more)
      continue;
    isBlocked_ = true;
    // A failed write is left to the loop, which finds the end of the stream.
    if (outcome == OutputQueue::Outcome::blocked)
      loop_.async([channel = shared_from_this(), socket] {
        const std::lock_guard inner(channel->mutex_);
        if (channel->socket_ == socket && channel->isBlocked_)
          channel->loop_.change(socket->get(), EPOLLIN | EPOLLRDHUP | EPOLLOUT);
      });
    else
      shutdown(socket->get(), SHUT_RDWR);
  }
  if (state_ != State::connected) outgoing_.clear();
  isWriting_ = false;
}

void ClientChannel::cancel() {
  loop_.async([channel = shared_from_this()] { channel->lose(ConnectionError::interrupted); });
}

void ClientChannel::close() {
  std::shared_ptr<const Handler> handler;
  {
    const std::lock_guard lock(mutex_);
    state_ = State::closed;
    failPending(ConnectionError::connectionInvalid);
    queue_ = nullptr;
    handler.swap(handler_);
  }
  loop_.async([channel = shared_from_this()] { channel->lose(ConnectionError::connectionInvalid); });
}

// --- On the loop's thread ---

void ClientChannel::connect() {
  {
    const std::lock_guard lock(mutex_);
    if (state_ != State::connecting) return;
  }
  const auto address = serviceAddress(serviceName_);
  FileDescriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  const auto* target = std::get_if<sockaddr_un>(&address);
  if (target == nullptr || !socket) {
    lose(ConnectionError::connectionInvalid);
  } else if (::connect(socket.get(), reinterpret_cast<const sockaddr*>(target), sizeof *target) == 0) {
    connected(std::move(socket));
  } else if (errno == EAGAIN && ++attempts_ < kConnectAttempts) {
    loop_.after(kConnectInterval, [channel = shared_from_this()] { channel->connect(); });
  } else {
    lose(ConnectionError::connectionInvalid);
  }
}

void ClientChannel::connected(FileDescriptor socket) {
  const int fd = socket.get();
  {
    const std::lock_guard lock(mutex_);
    if (state_ != State::connecting) return;
    socket_ = std::make_shared<const FileDescriptor>(std::move(socket));
    state_ = State::connected;
    isBlocked_ = false;
  }
  isRegistered_ = loop_.add(fd, EPOLLIN | EPOLLRDHUP, [channel = shared_from_this()](RunLoop::Events events) {
    channel->handleEvents(events);
  });
  if (isRegistered_)
    writeQueued();
  else
    lose(ConnectionError::connectionInvalid);
}

void ClientChannel::handleEvents(RunLoop::Events events) {
  if ((events & EPOLLOUT) != 0) {
    {
      const std::lock_guard lock(mutex_);
      isBlocked_ = false;
      loop_.change(socket_->get(), EPOLLIN | EPOLLRDHUP);
    }
    writeQueued();
  }
  // The end of the stream shows when all that came before it was read.
  if ((events & ~RunLoop::Events{EPOLLOUT}) != 0 && !readOnce()) lose(ConnectionError::interrupted);
}

/// False: the connection is of no more use.
bool ClientChannel::readOnce() {
  const auto space = reader_.space();
  const ssize_t count = read(socket_->get(), space.data(), space.size());
  if (count < 0) return errno == EAGAIN || errno == EINTR;
  if (count == 0) return false;
  reader_.received(static_cast<size_t>(count));
  return takeFrames();
}

bool ClientChannel::takeFrames() {
  while (reader_.count() > 0) {
    const bool isGood = takeFrame(reader_.front());
    reader_.pop();
    if (!isGood) {
      systemLog("closing the connection to %s: a malformed frame", serviceName_);
      return false;
    }
  }
  return true;
}

bool ClientChannel::takeFrame(std::span<const uint8_t> contents) {
  std::optional<Frame> frame = decodeFrame(contents);
  if (!frame) return false;
  const Dictionary* body = frame->body.dictionary();
  const std::lock_guard lock(mutex_);
  if (state_ == State::closed) return true;  // nobody waits for it any more
  if (frame->kind != FrameKind::reply) {
    if (body != nullptr)
      deliverLater(Event(Message{.body = *body, .kind = frame->kind, .id = frame->id}));
    else
      deliverLater(Event(UnexpectedObject{std::move(frame->body)}));
    return true;
  }
  const auto request = pending_.find(frame->id);
  if (request == pending_.end() || body == nullptr) return false;
  deliverLater(std::pair(std::move(request->second),
                         Reply(Message{.body = *body, .kind = FrameKind::reply, .id = frame->id})));
  pending_.erase(request);
  return true;
}

void ClientChannel::lose(ConnectionError error) {
  Socket lost;
  const std::lock_guard lock(mutex_);
  if (state_ == State::suspended || state_ == State::disconnected) return;
  if (state_ != State::closed) state_ = State::disconnected;
  socket_.swap(lost);
  if (isRegistered_) loop_.remove(lost->get());
  isRegistered_ = false;
  queued_.clear();
  if (!isWriting_) outgoing_.clear();
  isBlocked_ = false;
  reader_.reset();
  failPending(error);
  if (state_ != State::closed) deliverLater(Event(error));
}

// --- Delivering ---

void ClientChannel::failPending(ConnectionError error) {
  for (auto& [id, handler] : pending_) deliverLater(std::pair(std::move(handler), Reply(error)));
  pending_.clear();
}

void ClientChannel::deliverLater(Delivery delivery) {
  if (queue_ == nullptr) return;
  deliveries_.push_back(std::move(delivery));
  if (std::exchange(isDeliveryQueued_, true)) return;
  queue_->async([channel = shared_from_this()] { channel->deliver(); });
}

void ClientChannel::deliver() {
  std::vector<Delivery> deliveries;
  std::shared_ptr<const Handler> handler;
  {
    const std::lock_guard lock(mutex_);
    deliveries.swap(deliveries_);
    isDeliveryQueued_ = false;
    handler = handler_;
  }
  for (Delivery& delivery : deliveries) {
    if (auto* reply = std::get_if<std::pair<ReplyHandler, Reply>>(&delivery))
      reply->first(std::move(reply->second));
    else if (handler != nullptr && *handler)
      (*handler)(std::move(std::get<Event>(delivery)));
  }
}

// --- ClientConnection ---

void ClientConnection::send(Message message) {
  const std::shared_ptr<ClientChannel> channel = channel_;
  channel->send(std::move(message), nullptr);
}

void ClientConnection::goOnLater(Work) {
  raiseInternalInconsistency("%@: only messages of peers are served in slices", *this);
}

void ClientConnection::sendWithReply(Dictionary body, ReplyHandler handler) {
  // The reply comes whether or not anybody wants to see it.
  if (!handler) handler = [](Reply&&) {};
  const std::shared_ptr<ClientChannel> channel = channel_;
  channel->send(Message{.body = std::move(body), .kind = FrameKind::request, .id = 0}, std::move(handler));
}

std::string ClientConnection::description() const {
  return format("<connection %p fd=%d>", static_cast<const void*>(this), channel_->fd());
}

}  // namespace platform::qmx
