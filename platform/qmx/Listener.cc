#include "platform/qmx/Listener.h"

#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <new>
#include <utility>

#include "platform/log/Log.h"
#include "platform/qmx/Admissions.h"
#include "platform/qmx/Limits.h"
#include "platform/qmx/PeerConnection.h"
#include "platform/qmx/ServiceSocket.h"

namespace platform::qmx {

namespace {

/// Descriptors may also be freed by others: then accepting goes on after this.
constexpr std::chrono::seconds kRetryInterval{1};

/// Raises the descriptor limit to the hard one. The number from which on descriptors are kept for files.
int firstReservedDescriptor() {
  rlimit limit{};
  if (getrlimit(RLIMIT_NOFILE, &limit) != 0) return kReservedDescriptors;
  if (limit.rlim_cur < limit.rlim_max) {
    const rlim_t before = std::exchange(limit.rlim_cur, limit.rlim_max);
    if (setrlimit(RLIMIT_NOFILE, &limit) != 0) limit.rlim_cur = before;
  }
  const int most = static_cast<int>(std::min<rlim_t>(limit.rlim_cur, 1u << 30));
  return std::max(most - kReservedDescriptors, most / 2);
}

class ServiceListener final : public Listener {
 public:
  ServiceListener(ServiceSocket socket, SerialQueue& queue, RunLoop& loop)
      : queue_(queue),
        loop_(loop),
        socket_(std::move(socket)),
        firstReserved_(firstReservedDescriptor()),
        admissions_(std::make_shared<Admissions>([this] { goOn(); })) {}
  ~ServiceListener() override {
    admissions_->close();
    if (retry_ != 0) loop_.cancel(retry_);
    if (isResumed_) loop_.remove(socket_.fd());
    loop_.withdraw(*door_);
  }

  void setConnectionHandler(ConnectionHandler handler) override {
    handler_ = std::make_shared<const ConnectionHandler>(std::move(handler));
  }
  std::optional<Error> resume() override;

 private:
  /// Where peers come in, one at a time: those who are in already have turns between.
  class Door final : public RunLoop::Source {
   public:
    explicit Door(ServiceListener& listener) : listener_(listener) {}
    bool supply() override { return listener_.isOpen_ = listener_.acceptPeer(); }
    void finishTurn() override {}
    /// Whoever is not in yet stands in nobody's way.
    bool isOrphaned() const override { return true; }

   private:
    ServiceListener& listener_;
  };

  void open();
  bool acceptPeer();
  void serve(FileDescriptor peer);
  void refuse(const PeerIdentity& peer);
  void pause(const char* reason);
  void retryLater();
  void goOn();

  SerialQueue& queue_;
  RunLoop& loop_;
  const ServiceSocket socket_;
  /// Descriptors from here on are kept for files. The system gives the lowest free number, so a peer whose
  /// descriptor is one of them shows that the others are taken.
  const int firstReserved_;
  std::shared_ptr<const ConnectionHandler> handler_;
  std::shared_ptr<Admissions> admissions_;
  const std::shared_ptr<Door> door_ = std::make_shared<Door>(*this);
  bool isOpen_ = false;  // the door is among the loop's sources
  bool isResumed_ = false;
  bool isPaused_ = false;
  /// Whether a pause was logged since nobody waited to be accepted.
  bool isShort_ = false;
  /// Whether refusals were logged since the last admission.
  bool isRefusing_ = false;
  /// A peer that came when no descriptors were left.
  FileDescriptor parked_;
  RunLoop::TimerToken retry_ = 0;
};

std::optional<Error> ServiceListener::resume() {
  if (isResumed_) return std::nullopt;
  if (listen(socket_.fd(), SOMAXCONN) != 0 ||
      !loop_.add(socket_.fd(), EPOLLIN, [this](RunLoop::Events) { open(); }))
    return Error::posix(errno);
  isResumed_ = true;
  return std::nullopt;
}

void ServiceListener::open() {
  if (!std::exchange(isOpen_, true)) loop_.enlist(door_);
}

/// False when nobody waits, or nobody can be let in.
bool ServiceListener::acceptPeer() {
  if (isPaused_) return false;
  FileDescriptor peer(accept4(socket_.fd(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
  if (peer && peer.get() < firstReserved_) {
    serve(std::move(peer));
  } else if (peer) {
    parked_ = std::move(peer);
    pause("no descriptors are left for more connections");
  } else if (errno == EAGAIN) {
    isShort_ = false;
    return false;
  } else if (errno != ECONNABORTED && errno != EINTR) {
    pause(std::strerror(errno));
  }
  return !isPaused_;
}

void ServiceListener::serve(FileDescriptor peer) try {
  std::shared_ptr<const PeerIdentity> identity = PeerIdentity::ofSocket(peer.get());
  if (identity->uid() != geteuid() && identity->uid() != 0) {
    systemLog("refusing a connection of user %u (process %d)", identity->uid(), identity->pid());
    return;
  }
  std::shared_ptr<void> admission = admissions_->admit(identity->pid());
  if (admission == nullptr) {
    refuse(*identity);
    return;
  }
  isRefusing_ = false;
  auto connection =
      std::make_shared<PeerConnection>(loop_, std::move(peer), std::move(identity), std::move(admission));
  queue_.async([handler = handler_, connection = std::move(connection)] {
    if (handler != nullptr && *handler) (*handler)(connection);
  });
} catch (const std::bad_alloc&) {
  systemLog("closing a connection: out of memory");
}

void ServiceListener::refuse(const PeerIdentity& peer) {
  if (std::exchange(isRefusing_, true)) return;
  systemLog("refusing connections of process %d: too many are open", peer.pid());
}

void ServiceListener::pause(const char* reason) {
  if (!std::exchange(isShort_, true)) systemLog("accepting connections pauses: %s", reason);
  isPaused_ = true;
  loop_.change(socket_.fd(), 0);
  retryLater();
}

void ServiceListener::retryLater() {
  if (retry_ != 0) return;
  retry_ = loop_.after(kRetryInterval, [this] {
    retry_ = 0;
    goOn();
  });
}

void ServiceListener::goOn() {
  if (!isPaused_) return;
  if (parked_) {
    FileDescriptor peer(fcntl(parked_.get(), F_DUPFD_CLOEXEC, 0));
    if (!peer || peer.get() >= firstReserved_) {
      retryLater();
      return;
    }
    parked_ = FileDescriptor();
    serve(std::move(peer));
  }
  isPaused_ = false;
  loop_.change(socket_.fd(), EPOLLIN);
}

}  // namespace

std::variant<std::unique_ptr<Listener>, Error> Listener::create(const std::string& serviceName,
                                                                SerialQueue& queue, RunLoop& loop) {
  auto socket = ServiceSocket::create(serviceName);
  if (auto* error = std::get_if<Error>(&socket)) return std::move(*error);
  return std::make_unique<ServiceListener>(std::move(std::get<ServiceSocket>(socket)), queue, loop);
}

}  // namespace platform::qmx
