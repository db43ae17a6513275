#include "platform/system/Notifications.h"

#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/inotify.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "platform/log/Log.h"
#include "platform/system/Directories.h"
#include "platform/system/FileDescriptor.h"

namespace platform {

namespace {

std::string notificationsDirectory() {
  const std::string& runtime = Directories::shared().runtime;
  return runtime.empty() ? std::string() : runtime + "/Notifications";
}

/// Opens the file for a post, making it and its directory when they are missing; errno on failure.
FileDescriptor openForPosting(const std::string& name) {
  const std::string directory = notificationsDirectory();
  if (directory.empty() || !isSafeFileName(name)) {
    errno = directory.empty() ? ENOENT : EINVAL;
    return {};
  }
  const std::string path = directory + "/" + name;
  const auto openFile = [&path] {
    return open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC,
                0600);
  };
  FileDescriptor file(openFile());
  if (file || errno != ENOENT) return file;
  if (const int number = makeDirectories(directory)) {
    errno = number;
    return {};
  }
  return FileDescriptor(openFile());
}

}  // namespace

void postNotification(const std::string& name) {
  const FileDescriptor file = openForPosting(name);
  const char post = '.';
  ssize_t written = -1;
  do {
    if (file) written = write(file.get(), &post, 1);
  } while (file && written < 0 && errno == EINTR);
  if (written != 1) systemLog("unable to post notification %@: %s", name, std::strerror(errno));
}

/// The directory is watched, not the file: that also sees a file which is removed and made anew.
struct NotificationObserver::Implementation {
  Implementation(const std::string& notification, RunLoop& runLoop, std::function<void(uint64_t)> onPosts)
      : name(notification), loop(runLoop), handler(std::move(onPosts)) {}

  bool watch() {
    if (!openForPosting(name)) return false;
    FileDescriptor descriptor(inotify_init1(IN_NONBLOCK | IN_CLOEXEC));
    if (!descriptor) return false;
    const uint32_t events = IN_MODIFY | IN_CREATE | IN_MOVED_TO | IN_ONLYDIR;
    if (inotify_add_watch(descriptor.get(), notificationsDirectory().c_str(), events) < 0) return false;
    inotify = std::move(descriptor);
    countNewPosts();
    return true;
  }

  /// Whether one of the events may concern our file.
  bool drainEvents() {
    bool concerns = false;
    alignas(inotify_event) char buffer[4096];
    for (;;) {
      const ssize_t length = read(inotify.get(), buffer, sizeof buffer);
      if (length <= 0) return concerns;
      for (const char* at = buffer; at < buffer + length;) {
        inotify_event event;
        std::memcpy(&event, at, sizeof event);
        const char* eventName = at + sizeof event;
        concerns = concerns || (event.mask & IN_Q_OVERFLOW) != 0 || (event.len > 0 && name == eventName);
        at += sizeof event + event.len;
      }
    }
  }

  uint64_t countNewPosts() {
    struct stat status {};
    if (stat((notificationsDirectory() + "/" + name).c_str(), &status) != 0) return 0;
    const auto size = static_cast<uint64_t>(status.st_size);
    const bool isSameFile = status.st_ino == inode && size >= seen;
    const uint64_t posts = isSameFile ? size - seen : size;
    inode = status.st_ino;
    seen = size;
    return posts;
  }

  void attach(const std::shared_ptr<Implementation>& self) {
    loop.add(inotify.get(), EPOLLIN, [weak = std::weak_ptr(self)](RunLoop::Events) {
      const auto alive = weak.lock();
      if (alive == nullptr || !alive->drainEvents()) return;
      const uint64_t posts = alive->countNewPosts();
      if (posts > 0) alive->handler(posts);
    });
    isAttached = true;
  }

  const std::string name;
  RunLoop& loop;
  const std::function<void(uint64_t)> handler;
  FileDescriptor inotify;  // set before the loop knows of it
  // Only on the loop's thread.
  bool isAttached = false;
  ino_t inode = 0;
  uint64_t seen = 0;
};

NotificationObserver::NotificationObserver(const std::string& name, RunLoop& loop,
                                           std::function<void(uint64_t posts)> handler)
    : implementation_(std::make_shared<Implementation>(name, loop, std::move(handler))) {
  if (!implementation_->watch()) return;
  if (loop.isCurrent()) {
    implementation_->attach(implementation_);
  } else {
    loop.async([weak = std::weak_ptr(implementation_)] {
      if (const auto alive = weak.lock()) alive->attach(alive);
    });
  }
}

NotificationObserver::~NotificationObserver() {
  if (implementation_->isAttached) implementation_->loop.remove(implementation_->inotify.get());
}

bool NotificationObserver::isWatching() const {
  return static_cast<bool>(implementation_->inotify);
}

}  // namespace platform
