#include "platform/hollin/Watches.h"

#include <sys/inotify.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <unordered_set>

namespace platform::hollin {

namespace {

/// What happens to names, and who may use them.
constexpr uint32_t kNames = IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO | IN_ATTRIB;
constexpr uint32_t kContents = kNames | IN_CLOSE_WRITE | IN_MODIFY;
constexpr uint32_t kEverything = kContents | IN_DELETE_SELF | IN_MOVE_SELF | IN_EXCL_UNLINK;
/// A directory may be watched for several subjects: masks add up.
constexpr uint32_t kAlways = IN_ONLYDIR | IN_MASK_ADD;

constexpr size_t kEventBuffer = 64 << 10;
/// Events that keep coming must not keep the thread from its work.
constexpr int kReadsAtATime = 32;

/// As many as the kernel follows.
constexpr int kMostLinks = 40;

/// "" when `path` is no link.
std::string targetOfLink(const std::string& path) {
  char target[PATH_MAX];
  const ssize_t length = readlink(path.c_str(), target, sizeof target);
  return length <= 0 ? std::string() : std::string(target, static_cast<size_t>(length));
}

}  // namespace

void Watches::open() {
  inotify_ = FileDescriptor(inotify_init1(IN_NONBLOCK | IN_CLOEXEC));
  if (!inotify_) exhaustion_ = errno;
}

void Watches::resetExhaustion() {
  exhaustion_ = 0;
  if (!inotify_) open();
}

bool Watches::watch(Subject& subject, const std::string& directory, uint32_t mask, std::string_view awaited) {
  if (!inotify_) return false;
  const int watch = inotify_add_watch(inotify_.get(), directory.c_str(), mask | kAlways);
  if (watch < 0) {
    if (errno == ENOSPC || errno == ENOMEM) exhaustion_ = errno;
    return false;
  }
  subject.watches.push_back(watch);
  const auto [begin, end] = owners_.equal_range(watch);
  if (begin == end) ++count_;
  const bool isKnown = std::any_of(begin, end, [&subject, awaited](const auto& entry) {
    return entry.second.subject == &subject && entry.second.awaited == awaited;
  });
  if (!isKnown) owners_.emplace(watch, Owner{&subject, std::string(awaited)});
  return true;
}

void Watches::begin(Subject& subject) {
  subject.previous = std::move(subject.watches);
  subject.watches.clear();
  subject.isWhole = true;
}

bool Watches::add(Subject& subject, const std::string& directory) {
  const bool isWatched = watch(subject, directory, kEverything, {});
  if (!isWatched) subject.isWhole = false;
  return isWatched;
}

void Watches::addIfThere(Subject& subject, const std::string& directory) {
  if (!watch(subject, directory, kEverything, {}) && errno != ENOENT && errno != ENOTDIR)
    subject.isWhole = false;
}

void Watches::addWay(Subject& subject, const std::string& path, bool isFile) {
  // Downwards: what appears below a directory after its watch was set is an event.
  std::string reached, rest = path;
  int links = 0;
  for (size_t begin = 0; (begin = rest.find_first_not_of('/')) != std::string::npos;) {
    const size_t end = std::min(rest.find('/', begin), rest.size());
    const std::string component = rest.substr(begin, end - begin);
    rest.erase(0, end);
    if (component == ".") continue;
    if (component == "..") {
      reached.erase(std::min(reached.rfind('/'), reached.size()));
      continue;
    }
    const bool isLast = rest.find_first_not_of('/') == std::string::npos;
    watch(subject, reached.empty() ? "/" : reached, isFile && isLast ? kContents : kNames, component);
    reached.append("/").append(component);
    const std::string target = targetOfLink(reached);
    if (target.empty()) continue;
    if (++links > kMostLinks) return;
    reached.erase(target.front() == '/' ? 0 : reached.rfind('/'));
    rest.insert(0, target);
  }
}

void Watches::end(Subject& subject) {
  const std::unordered_set<int> kept(subject.watches.begin(), subject.watches.end());
  for (const int watch : subject.previous)
    if (!kept.contains(watch)) release(subject, watch);
  subject.previous.clear();
  subject.watches.shrink_to_fit();
}

void Watches::drop(Subject& subject) {
  begin(subject);
  end(subject);
}

void Watches::release(Subject& subject, int watch) {
  auto [entry, end] = owners_.equal_range(watch);
  if (entry == end) return;  // the directory is gone, and its watch with it
  bool isShared = false;
  while (entry != end) {
    if (entry->second.subject == &subject) {
      entry = owners_.erase(entry);
    } else {
      isShared = true;
      ++entry;
    }
  }
  if (isShared) return;
  inotify_rm_watch(inotify_.get(), watch);
  --count_;
}

void Watches::handle(int watch, uint32_t mask, std::string_view name, const Report& report) {
  const auto [begin, end] = owners_.equal_range(watch);
  const bool isItself =
      name.empty() && (mask & (IN_DELETE_SELF | IN_MOVE_SELF | IN_UNMOUNT | IN_ATTRIB)) != 0;
  for (auto entry = begin; entry != end; ++entry) {
    const Owner& owner = entry->second;
    if (owner.awaited.empty()) {
      if (isItself || !name.empty()) report(*owner.subject, name, false);
    } else if (isItself || name == owner.awaited) {
      report(*owner.subject, name, true);
    }
  }
  if ((mask & IN_IGNORED) == 0 || begin == end) return;
  owners_.erase(begin, end);
  --count_;
}

bool Watches::read(const Report& report) {
  bool isComplete = true;
  alignas(inotify_event) char buffer[kEventBuffer];
  for (int i = 0; inotify_ && i < kReadsAtATime; i++) {
    const ssize_t size = ::read(inotify_.get(), buffer, sizeof buffer);
    if (size <= 0) break;
    for (ssize_t offset = 0; offset < size;) {
      inotify_event event;
      std::memcpy(&event, buffer + offset, sizeof event);
      const char* name = buffer + offset + sizeof event;
      offset += static_cast<ssize_t>(sizeof event + event.len);
      if ((event.mask & IN_Q_OVERFLOW) != 0) {
        isComplete = false;
      } else {
        handle(event.wd, event.mask, event.len == 0 ? std::string_view() : std::string_view(name), report);
      }
    }
  }
  return isComplete;
}

}  // namespace platform::hollin
