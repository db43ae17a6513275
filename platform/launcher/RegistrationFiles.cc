#include "platform/launcher/RegistrationFiles.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <charconv>
#include <memory>
#include <mutex>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "platform/propertylist/PropertyList.h"
#include "platform/system/Directories.h"
#include "platform/system/FileDescriptor.h"

namespace platform {

namespace {

struct Writes {
  std::mutex mutex;  // held while a file changes its name, never while one is read or written
  std::atomic<RegistrationNumber> last{0};  // changes under the lock
  // Of the registrations that this process wrote and that may still be there.
  std::unordered_map<std::string, RegistrationNumber> numbers;
};

/// Never destroyed: the background thread may still be sweeping while the process exits.
Writes& writes() {
  static Writes& shared = *new Writes;
  return shared;
}

int commit(const std::string& temporary, const std::string& path) {
  Writes& state = writes();
  const std::lock_guard lock(state.mutex);
  if (rename(temporary.c_str(), path.c_str()) != 0) return errno;
  state.numbers[path] = ++state.last;
  return 0;
}

/// Removes `path` unless it was written after `upTo`; an error number, or 0. A missing file is no error.
int removeUnlessNewer(const std::string& path, RegistrationNumber upTo) {
  Writes& state = writes();
  const std::lock_guard lock(state.mutex);
  const auto written = state.numbers.find(path);
  if (written != state.numbers.end()) {
    if (written->second > upTo) return 0;
    state.numbers.erase(written);
  }
  return unlink(path.c_str()) == 0 || errno == ENOENT ? 0 : errno;
}

int writeWhole(const std::string& path, const std::string& bytes) {
  const FileDescriptor file(open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
  if (!file) return errno;
  for (size_t done = 0; done < bytes.size();) {
    const ssize_t count = write(file.get(), bytes.data() + done, bytes.size() - done);
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) return count < 0 ? errno : EIO;
    done += static_cast<size_t>(count);
  }
  return 0;
}

/// The names in a directory; an error number in `error` (0 when it is merely missing).
std::vector<std::string> namesIn(const std::string& directory, int& error) {
  std::vector<std::string> names;
  const std::unique_ptr<DIR, int (*)(DIR*)> listing(opendir(directory.c_str()), &closedir);
  if (listing == nullptr) {
    if (errno != ENOENT && errno != ENOTDIR) error = errno;
    return names;
  }
  while (const dirent* entry = readdir(listing.get())) {
    const std::string_view name = entry->d_name;
    if (name != "." && name != "..") names.emplace_back(name);
  }
  return names;
}

/// What is to be removed, looked up by what a registration says.
class Removals {
 public:
  explicit Removals(std::span<const ExternalServiceRemoval> removals) {
    for (const ExternalServiceRemoval& removal : removals) {
      Task& task = tasks_[key(removal.bundleIdentifier, removal.bundleVersion)];
      task.upTo = std::max(task.upTo, removal.upTo);
    }
  }

  struct Task {
    RegistrationNumber upTo = 0;
    bool removedAny = false;
    int error = 0;  // the first one
  };
  /// Null when the registration stays.
  Task* find(const Dictionary& registration) {
    const auto identifier = registration["BundleIdentifier"].string();
    const auto version = registration["BundleVersion"].string();
    if (tasks_.empty() || !identifier || !version) return nullptr;
    const auto found = tasks_.find(key(*identifier, *version));
    return found == tasks_.end() ? nullptr : &found->second;
  }
  int32_t resultOf(const ExternalServiceRemoval& removal, int listingError) const {
    const Task& task = tasks_.at(key(removal.bundleIdentifier, removal.bundleVersion));
    if (task.error != 0) return task.error;
    if (listingError != 0) return listingError;
    return task.removedAny ? kRemovalDone : kRemovalNoSuchService;
  }

 private:
  /// Property lists hold no NUL.
  static std::string key(std::string_view identifier, std::string_view version) {
    return std::string(identifier) + '\0' + std::string(version);
  }
  std::unordered_map<std::string, Task> tasks_;
};

}  // namespace

std::optional<uint64_t> processStartTime(pid_t pid) {
  if (pid <= 0) return std::nullopt;
  const FileDescriptor file(open(("/proc/" + std::to_string(pid) + "/stat").c_str(), O_RDONLY | O_CLOEXEC));
  char buffer[2048];
  const ssize_t length = file ? read(file.get(), buffer, sizeof buffer) : -1;
  if (length <= 0) return std::nullopt;
  const std::string_view text(buffer, static_cast<size_t>(length));
  // The command stands in parentheses and may hold anything; the state follows as field 3, the time is 22.
  size_t at = text.rfind(')');
  if (at == std::string_view::npos || at + 2 >= text.size()) return std::nullopt;
  if (text[at + 2] == 'Z' || text[at + 2] == 'X') return std::nullopt;
  for (int field = 2; field < 22; ++field) {
    at = text.find(' ', at);
    if (at == std::string_view::npos) return std::nullopt;
    ++at;
  }
  uint64_t time = 0;
  const auto end = std::from_chars(text.data() + at, text.data() + text.size(), time);
  return end.ec == std::errc() ? std::optional(time) : std::nullopt;
}

std::string RegistrationFiles::directory() {
  const std::string& runtime = Directories::shared().runtime;
  return runtime.empty() ? std::string() : runtime + "/Launcher";
}

std::string RegistrationFiles::path(pid_t host, const UUID& plugIn) {
  return directory() + "/" + std::to_string(host) + "/" + plugIn.string() + ".plist";
}

int RegistrationFiles::write(pid_t host, const UUID& plugIn, const std::string& bytes, bool& isNewHost) {
  if (directory().empty()) return ENOENT;
  const std::string hostDirectory = directory() + "/" + std::to_string(host);
  const std::string temporary = hostDirectory + "/." + UUID::random().string();
  int number = writeWhole(temporary, bytes);
  // A sweep may remove the directory again as long as it is empty.
  for (int attempt = 0; number == ENOENT && attempt < 8; ++attempt) {
    isNewHost = true;
    if ((number = makeDirectories(hostDirectory)) != 0) return number;
    number = writeWhole(temporary, bytes);
  }
  if (number == 0) number = commit(temporary, path(host, plugIn));
  if (number != 0) unlink(temporary.c_str());
  return number;
}

RegistrationNumber RegistrationFiles::lastWrite() {
  return writes().last;
}

void RegistrationFiles::removeOne(pid_t host, const UUID& plugIn) {
  removeUnlessNewer(path(host, plugIn), lastWrite());
}

std::vector<int32_t> RegistrationFiles::remove(std::span<const ExternalServiceRemoval> wanted,
                                               RegistrationNumber upTo) {
  Removals removals(wanted);
  int error = 0;
  for (const std::string& host :
       directory().empty() ? std::vector<std::string>() : namesIn(directory(), error)) {
    const std::string hostDirectory = directory() + "/" + host;
    pid_t pid = 0;
    std::from_chars(host.data(), host.data() + host.size(), pid);
    const auto startTime = processStartTime(pid);
    for (const std::string& name : namesIn(hostDirectory, error)) {
      const std::string file = hostDirectory + "/" + name;
      if (name.starts_with('.')) {
        // A write in progress, unless its host is gone.
        if (!startTime) unlink(file.c_str());
        continue;
      }
      const auto registration = readDictionaryFile(file);
      Removals::Task* task = registration ? removals.find(*registration) : nullptr;
      const bool isDead =
          !startTime || !registration || (*registration)["HostStartTime"].unsignedValue() != *startTime;
      if (task == nullptr && !isDead) continue;
      const int number = removeUnlessNewer(file, isDead ? upTo : task->upTo);
      if (task != nullptr) {
        task->removedAny |= number == 0;
        if (task->error == 0) task->error = number;
      } else if (!registration && error == 0) {
        error = number;  // others are swept by the way
      }
    }
    if (!startTime) rmdir(hostDirectory.c_str());
  }
  std::vector<int32_t> results;
  results.reserve(wanted.size());
  for (const ExternalServiceRemoval& removal : wanted) results.push_back(removals.resultOf(removal, error));
  return results;
}

}  // namespace platform
