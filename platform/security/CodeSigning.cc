#include "platform/security/CodeSigning.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <list>
#include <mutex>
#include <unordered_map>

#include "platform/propertylist/FileReplacement.h"
#include "platform/propertylist/PropertyList.h"
#include "platform/qmx/Bundle.h"
#include "platform/system/FileDescriptor.h"

namespace platform {

namespace {

using Entitlements = std::variant<Dictionary, Error>;

/// What was decided about a file while it had a certain identity. Ownership and permissions are part of that
/// identity: changing them changes the file's change time.
class VerdictCache {
 public:
  std::optional<Entitlements> find(const std::string& path, const FileIdentity& identity) {
    const std::lock_guard lock(mutex_);
    const auto found = byPath_.find(path);
    if (found == byPath_.end() || found->second->identity != identity) return std::nullopt;
    entries_.splice(entries_.begin(), entries_, found->second);
    return found->second->verdict;
  }

  void store(const std::string& path, const FileIdentity& identity, const Entitlements& verdict) {
    const std::lock_guard lock(mutex_);
    const auto found = byPath_.find(path);
    if (found != byPath_.end()) {
      entries_.erase(found->second);
      byPath_.erase(found);
    } else if (entries_.size() == kCapacity) {
      byPath_.erase(entries_.back().path);
      entries_.pop_back();
    }
    entries_.push_front({path, identity, verdict});
    byPath_.emplace(path, entries_.begin());
  }

 private:
  struct Entry {
    std::string path;
    FileIdentity identity;
    Entitlements verdict;
  };
  static constexpr size_t kCapacity = 256;
  std::mutex mutex_;
  std::list<Entry> entries_;  // the most recently used first
  std::unordered_map<std::string, std::list<Entry>::iterator> byPath_;
};

std::optional<Error> reasonNotToHonour(const struct stat& status, const std::string& path) {
  if (!S_ISREG(status.st_mode)) return Error::posix(EPERM, path + " is not a regular file");
  if (status.st_uid != 0 && status.st_uid != geteuid())
    return Error::posix(EPERM, path + " is someone else's");
  if ((status.st_mode & (S_IWGRP | S_IWOTH)) != 0)
    return Error::posix(EPERM, path + " is writable by group or others");
  if (static_cast<uint64_t>(status.st_size) > kMaximumPropertyListFile) return Error::posix(EFBIG, path);
  return std::nullopt;
}

struct Reading {
  Entitlements verdict;
  /// Of the very file that was judged and read, taken before reading; none when the verdict is not the file's
  /// own doing and may be another one next time.
  std::optional<FileIdentity> identity = std::nullopt;
};

Entitlements parseEntitlements(const std::string& bytes, const std::string& path) {
  Result<Value> parsed = parsePropertyList(bytes);
  if (const Error* error = std::get_if<Error>(&parsed)) return *error;
  if (const Dictionary* dictionary = std::get<Value>(parsed).dictionary()) return *dictionary;
  return Error{std::string(kFileErrorDomain), kFileReadCorrupt, path + " holds no dictionary"};
}

Reading readEntitlements(const std::string& path) {
  const FileDescriptor file(open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
  struct stat status {};
  if (!file || fstat(file.get(), &status) != 0) return {Error::posix(errno, path)};
  const FileIdentity identity = FileIdentity::of(status);
  const std::optional<FileIdentity> lasting = identity.isSettled() ? std::optional(identity) : std::nullopt;
  if (auto reason = reasonNotToHonour(status, path)) return {*reason, lasting};
  std::string bytes(static_cast<size_t>(status.st_size), '\0');
  size_t done = 0;
  while (done < bytes.size()) {
    const ssize_t count = read(file.get(), bytes.data() + done, bytes.size() - done);
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return {Error::posix(errno, path)};
    if (count == 0) break;
    done += static_cast<size_t>(count);
  }
  bytes.resize(done);
  return {parseEntitlements(bytes, path), lasting};
}

}  // namespace

std::variant<Dictionary, Error> bundleEntitlements(const std::string& path) {
  static VerdictCache cache;
  const std::string file = path + "/Entitlements.plist";
  struct stat status {};
  if (lstat(file.c_str(), &status) != 0) {
    if (errno == ENOENT) return Dictionary();
    return Error::posix(errno, file);
  }
  if (!S_ISREG(status.st_mode)) return *reasonNotToHonour(status, file);
  if (auto known = cache.find(file, FileIdentity::of(status))) return *std::move(known);
  Reading reading = readEntitlements(file);
  if (reading.identity) cache.store(file, *reading.identity, reading.verdict);
  return std::move(reading.verdict);
}

std::shared_ptr<const CodeSigningTask> CodeSigningTask::create(
    std::shared_ptr<const qmx::PeerIdentity> peer) {
  if (peer == nullptr || peer->pidfd() < 0 || !peer->executablePath()) return nullptr;
  const std::shared_ptr<CodeSigningTask> task(new CodeSigningTask);
  task->bundlePath_ = qmx::Bundle::create(*peer->executablePath(), qmx::Bundle::executable)
                          ->property(qmx::Bundle::bundlePath);
  task->peer_ = std::move(peer);
  return task;
}

std::shared_ptr<const CodeSigningTask> CodeSigningTask::ofBundle(const std::string& path) {
  const std::shared_ptr<CodeSigningTask> task(new CodeSigningTask);
  task->bundlePath_ = path;
  return task;
}

CodeSigningTask::Answer CodeSigningTask::valueForEntitlement(std::string_view name) const {
  Answer answer;
  if (bundlePath_) {
    const Entitlements entitlements = bundleEntitlements(*bundlePath_);
    if (const Error* error = std::get_if<Error>(&entitlements)) {
      answer.error = *error;
    } else {
      answer.value = std::get<Dictionary>(entitlements)[name];
    }
  }
  // Asked last: the answer was true of a process that was still the same when it was found.
  if (peer_ != nullptr && !peer_->runsSameImage()) return {Value(), Error::posix(ESRCH)};
  return answer;
}

}  // namespace platform
