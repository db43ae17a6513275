#include "benchmarks/Client.h"

#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <deque>
#include <utility>

#include "benchmarks/Pairs.h"
#include "benchmarks/Processes.h"

namespace bench {

namespace {

int connectTo(const std::string& socketPath) {
  const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const sockaddr_un address = Client::address(socketPath);
  if (fd >= 0 && connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0) return fd;
  const int error = errno;
  close(fd);
  errno = error;
  return -1;
}

}  // namespace

bool sendAll(int fd, std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t count = send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    if (count < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    bytes.remove_prefix(static_cast<size_t>(count));
  }
  return true;
}

sockaddr_un Client::address(const std::string& socketPath) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (socketPath.size() >= sizeof address.sun_path) giveUp("too long for a socket: " + socketPath);
  memcpy(address.sun_path, socketPath.data(), socketPath.size());
  return address;
}

bool Client::canConnect(const std::string& socketPath) {
  const int fd = connectTo(socketPath);
  if (fd < 0) return false;
  close(fd);
  return true;
}

Client::Client(const std::string& socketPath) : fd_(connectTo(socketPath)), buffer_(64 << 10) {
  if (fd_ < 0) giveUp("cannot connect to " + socketPath + ": " + strerror(errno));
}

Client::Client(Client&& other) noexcept
    : fd_(std::exchange(other.fd_, -1)), buffer_(std::move(other.buffer_)) {}

Client::~Client() {
  if (fd_ >= 0) close(fd_);
}

std::string_view Client::roundTrip(std::string_view frame) {
  if (!sendAll(fd_, frame)) giveUp("a server closed its connection");
  size_t filled = 0, size = 4;
  while (filled < size) {
    const ssize_t count = read(fd_, buffer_.data() + filled, buffer_.size() - filled);
    if (count <= 0) giveUp("a server closed its connection");
    filled += static_cast<size_t>(count);
    if (filled < 4) continue;
    size = 4 + bigEndian32(buffer_.data());
    if (buffer_.size() < size) buffer_.resize(size);
  }
  return {buffer_.data(), size};
}

namespace {

/// A connection of a load: which step is next, and when the requests under way were sent.
struct Lane {
  explicit Lane(Client&& connection) : client(std::move(connection)) {}
  Client client;
  size_t nextStep = 0;
  std::deque<double> sentAt;
  std::vector<char> input = std::vector<char>(256 << 10);
  size_t filled = 0;
};

class Load {
 public:
  Load(const std::vector<Step>& script, size_t requests) : script_(script), requests_(requests) {
    result_.latencies.reserve(requests + 4096);
  }

  void addLane(const std::string& socketPath) {
    lanes_.emplace_back(Client(socketPath));
    lanes_.back().nextStep = lanes_.size() - 1;
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.ptr = &lanes_.back();
    epoll_ctl(epoll_, EPOLL_CTL_ADD, lanes_.back().client.fd(), &event);
  }

  LoadResult run(size_t inFlight) {
    for (Lane& lane : lanes_) sendNext(lane, inFlight, {}, secondsNow());
    takeReplies(lanes_.size() * inFlight);
    result_.latencies.clear();
    const double begin = secondsNow();
    takeReplies(requests_);
    result_.seconds = (secondsNow() - begin) * static_cast<double>(requests_) /
                      static_cast<double>(result_.latencies.size());
    close(epoll_);
    return std::move(result_);
  }

 private:
  void takeReplies(size_t total) {
    epoll_event events[64];
    while (result_.latencies.size() < total) {
      const int count = epoll_wait(epoll_, events, 64, -1);
      for (int i = 0; i < count; i++) take(*static_cast<Lane*>(events[i].data.ptr));
    }
  }

  void sendNext(Lane& lane, size_t count, std::string_view lastReply, double now) {
    out_.clear();
    for (size_t i = 0; i < count; i++) {
      const Step& step = script_[lane.nextStep++ % script_.size()];
      const size_t begin = out_.size();
      out_ += step.frame;
      if (step.tokenOffset != 0 && lastReply.size() >= 16)
        out_.replace(begin + step.tokenOffset, 16, lastReply.substr(lastReply.size() - 16));
      lane.sentAt.push_back(now);
    }
    if (!sendAll(lane.client.fd(), out_)) giveUp("a server closed its connection");
  }

  void take(Lane& lane) {
    const ssize_t count =
        read(lane.client.fd(), lane.input.data() + lane.filled, lane.input.size() - lane.filled);
    if (count <= 0) giveUp("a server closed its connection");
    lane.filled += static_cast<size_t>(count);
    const double now = secondsNow();
    size_t used = 0, replies = 0;
    std::string_view last;
    while (lane.filled - used >= 4) {
      const char* frame = lane.input.data() + used;
      const size_t size = 4 + bigEndian32(frame);
      if (lane.input.size() < size) giveUp("a reply is too large for this load");
      if (lane.filled - used < size) break;
      last = {frame, size};
      used += size;
      replies++;
      result_.latencies.push_back(now - lane.sentAt.front());
      lane.sentAt.pop_front();
    }
    if (replies > 0) sendNext(lane, replies, last, now);
    if (used < lane.filled) memmove(lane.input.data(), lane.input.data() + used, lane.filled - used);
    lane.filled -= used;
  }

  const std::vector<Step>& script_;
  const size_t requests_;
  const int epoll_ = epoll_create1(EPOLL_CLOEXEC);
  std::deque<Lane> lanes_;  // addresses stay
  std::string out_;
  LoadResult result_;
};

}  // namespace

LoadResult runLoad(const std::string& socketPath, const std::vector<Step>& script, size_t clients,
                   size_t inFlight, size_t requests) {
  Load load(script, requests);
  for (size_t i = 0; i < clients; i++) load.addLane(socketPath);
  return load.run(inFlight);
}

}  // namespace bench
