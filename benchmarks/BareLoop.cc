#include "benchmarks/BareLoop.h"

#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <map>
#include <string_view>

#include "benchmarks/Client.h"

namespace bench {

namespace {

/// What of a connection's input is not yet a whole frame.
struct Input {
  std::vector<char> bytes = std::vector<char>(64 << 10);
  size_t filled = 0;
};

class BareLoop {
 public:
  BareLoop(int listener, const std::vector<BareAnswer>& answers, bool joinsReplies)
      : listener_(listener), answers_(answers), joinsReplies_(joinsReplies), epoll_(epoll_create1(0)) {
    watch(listener);
  }

  [[noreturn]] void run() {
    epoll_event events[64];
    for (;;) {
      const int count = epoll_wait(epoll_, events, 64, -1);
      for (int i = 0; i < count; i++) {
        const int fd = events[i].data.fd;
        if (fd == listener_) {
          watch(accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC));
        } else {
          serve(fd);
        }
      }
    }
  }

 private:
  void watch(int fd) {
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.fd = fd;
    epoll_ctl(epoll_, EPOLL_CTL_ADD, fd, &event);
  }

  void serve(int fd) {
    Input& input = inputs_[fd];
    const ssize_t count = read(fd, input.bytes.data() + input.filled, input.bytes.size() - input.filled);
    if (count <= 0) {
      inputs_.erase(fd);
      close(fd);
      return;
    }
    input.filled += static_cast<size_t>(count);
    size_t used = 0;
    joined_.clear();
    while (input.filled - used >= 8) {
      const char* frame = input.bytes.data() + used;
      const size_t size = 4 + bigEndian32(frame);
      if (input.filled - used < size) break;
      answer(fd, answers_[bigEndian32(frame + 4)]);
      used += size;
    }
    if (!joined_.empty()) sendAll(fd, joined_);
    if (used < input.filled) memmove(input.bytes.data(), input.bytes.data() + used, input.filled - used);
    input.filled -= used;
  }

  void answer(int fd, const BareAnswer& answer) {
    if (answer.work) answer.work();
    if (joinsReplies_) {
      joined_ += answer.reply;
    } else {
      sendAll(fd, answer.reply);
    }
  }

  const int listener_;
  const std::vector<BareAnswer>& answers_;
  const bool joinsReplies_;
  const int epoll_;
  std::map<int, Input> inputs_;
  std::string joined_;
};

}  // namespace

void runBareLoop(int listener, const std::vector<BareAnswer>& answers, bool joinsReplies) {
  BareLoop(listener, answers, joinsReplies).run();
}

}  // namespace bench
