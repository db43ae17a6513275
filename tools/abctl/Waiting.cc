#include "tools/abctl/Waiting.h"

#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <variant>

#include "tools/abctl/Failure.h"

namespace abctl {
namespace {

platform::FileDescriptor opened(int fd) {
  if (fd < 0) throw Failure(kRefused, std::string("cannot wait for events: ") + std::strerror(errno));
  return platform::FileDescriptor(fd);
}

platform::FileDescriptor signalDescriptor() {
  sigset_t stops;
  sigemptyset(&stops);
  for (const int number : {SIGINT, SIGTERM, SIGHUP}) sigaddset(&stops, number);
  pthread_sigmask(SIG_BLOCK, &stops, nullptr);
  return opened(::signalfd(-1, &stops, SFD_CLOEXEC));
}

platform::FileDescriptor counter() {
  return opened(::eventfd(0, EFD_CLOEXEC));
}

void raiseCounter(int fd, uint64_t count) {
  [[maybe_unused]] const ssize_t written = ::write(fd, &count, sizeof count);
}

int milliseconds(std::optional<double> seconds) {
  return seconds ? static_cast<int>(std::clamp(*seconds * 1000, 0.0, 1e9)) : -1;
}

}  // namespace

Waiting::Counters::Counters() : posts(counter()), lost(counter()) {}

Waiting::Waiting() : signals_(signalDescriptor()), counters_(std::make_shared<Counters>()) {}

Waiting::~Waiting() {
  if (connection_ != nullptr) connection_->cancel();
}

void Waiting::watchDaemon(const std::string& service) {
  queue_ = std::make_unique<platform::SerialQueue>("abctl");
  connection_ = platform::qmx::Connection::connect(service, *queue_);
  connection_->setEventHandler([counters = counters_](platform::qmx::Event&& event) {
    const auto* const error = std::get_if<platform::qmx::ConnectionError>(&event);
    if (error != nullptr && *error != platform::qmx::ConnectionError::terminationImminent)
      raiseCounter(counters->lost.get(), 1);
  });
  connection_->resume();
}

void Waiting::reportPosts(uint64_t posts) {
  raiseCounter(counters_->posts.get(), posts);
}

Waiting::Result Waiting::wait(std::optional<double> seconds) {
  pollfd ready[] = {
      {signals_.get(), POLLIN, 0}, {counters_->lost.get(), POLLIN, 0}, {counters_->posts.get(), POLLIN, 0}};
  while (::poll(ready, std::size(ready), milliseconds(seconds)) < 0) {
    if (errno != EINTR) throw Failure(kRefused, std::string("cannot wait: ") + std::strerror(errno));
  }
  if (ready[0].revents != 0) return {Event::stop, 0};
  if (ready[1].revents != 0) return {Event::lost, 0};
  if (ready[2].revents == 0) return {Event::timeout, 0};
  uint64_t posts = 0;
  if (::read(counters_->posts.get(), &posts, sizeof posts) != sizeof posts) posts = 0;
  return {Event::posts, posts};
}

}  // namespace abctl
