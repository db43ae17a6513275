#include "platform/hollin/PlatformThread.h"

#include <pthread.h>
#include <signal.h>

#include <algorithm>
#include <atomic>
#include <system_error>
#include <utility>
#include <vector>

namespace platform::hollin {

namespace {

constexpr size_t kMostHelpers = 3;
/// Items that are worth a thread, and that a thread takes at a time.
constexpr size_t kItemsPerThread = 64, kItemsAtATime = 16;

/// Blocks all signals on the calling thread while it lives: threads inherit the mask that they are made with.
class SignalsBlocked {
 public:
  SignalsBlocked() {
    sigset_t all;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before_);
  }
  ~SignalsBlocked() { pthread_sigmask(SIG_SETMASK, &before_, nullptr); }
  SignalsBlocked(const SignalsBlocked&) = delete;
  SignalsBlocked& operator=(const SignalsBlocked&) = delete;

 private:
  sigset_t before_;
};

}  // namespace

std::thread startPlatformThread(const char* name, std::function<void()> work) {
  const SignalsBlocked blocked;
  std::thread thread(std::move(work));
  pthread_setname_np(thread.native_handle(), name);
  return thread;
}

void forEachInParallel(size_t count, const std::function<void(size_t)>& work) {
  std::atomic<size_t> next{0};
  const auto run = [&next, &work, count] {
    for (;;) {
      const size_t begin = next.fetch_add(kItemsAtATime);
      if (begin >= count) return;
      for (size_t i = begin; i < std::min(count, begin + kItemsAtATime); i++) work(i);
    }
  };
  const size_t processors = std::max(1u, std::thread::hardware_concurrency());
  std::vector<std::thread> helpers(std::min({processors - 1, kMostHelpers, count / kItemsPerThread}));
  for (std::thread& helper : helpers) {
    try {
      helper = startPlatformThread("hollin-read", run);
    } catch (const std::system_error&) {
      break;  // no more threads: fewer do it too
    }
  }
  run();
  std::erase_if(helpers, [](const std::thread& helper) { return !helper.joinable(); });
  for (std::thread& helper : helpers) helper.join();
}

}  // namespace platform::hollin
