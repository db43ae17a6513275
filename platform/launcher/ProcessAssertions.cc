#include "platform/launcher/ProcessAssertions.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <ctime>
#include <string_view>
#include <utility>
#include <variant>

#include "platform/propertylist/PropertyList.h"
#include "platform/system/Directories.h"
#include "platform/value/UUID.h"

// An instance makes its file under a hidden name, locks it, fills it, and only then gives it its own name:
// under that name no file is ever without the lock of a living instance, and none is locked a second time.

namespace platform {

namespace {

/// A hidden file without a lock that is this old was left by an instance that died while making it.
constexpr time_t kAbandonedAfterSeconds = 60;

std::string directoryOf(const std::string& bundleIdentifier) {
  const std::string& runtime = Directories::shared().runtime;
  if (runtime.empty() || !isSafeFileName(bundleIdentifier)) return {};
  return runtime + "/Assertions/" + bundleIdentifier;
}

struct flock wholeFile(short type) {
  struct flock lock {};
  lock.l_type = type;
  lock.l_whence = SEEK_SET;
  return lock;
}

/// Whether somebody holds a write lock on the file.
bool isLocked(int file) {
  // Asked as a reader: only a writer is in its way.
  struct flock lock = wholeFile(F_RDLCK);
  return fcntl(file, F_OFD_GETLK, &lock) == 0 && lock.l_type != F_UNLCK;
}

/// Calls `visit` with the name, path and open descriptor of each file in the directory.
template <typename Visit>
void forEachFile(const std::string& directory, const Visit& visit) {
  const std::unique_ptr<DIR, int (*)(DIR*)> listing(opendir(directory.c_str()), &closedir);
  if (listing == nullptr) return;
  while (const dirent* entry = readdir(listing.get())) {
    const std::string_view name = entry->d_name;
    if (name == "." || name == "..") continue;
    const std::string path = directory + "/" + entry->d_name;
    const FileDescriptor file(open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    if (file) visit(name, path, file.get());
  }
}

void removeDeadInstances(const std::string& directory) {
  forEachFile(directory, [](std::string_view name, const std::string& path, int file) {
    struct stat status {};
    if (isLocked(file) || fstat(file, &status) != 0 || !S_ISREG(status.st_mode)) return;
    if (name.starts_with('.') && std::time(nullptr) - status.st_mtime < kAbandonedAfterSeconds) return;
    unlink(path.c_str());
  });
}

/// Locks, fills and names the file; an error number, or 0.
int establish(int file, const std::string& bytes, const std::string& hidden, const std::string& path) {
  struct flock lock = wholeFile(F_WRLCK);
  if (fcntl(file, F_OFD_SETLK, &lock) != 0) return errno;
  errno = EIO;  // for a short write
  if (write(file, bytes.data(), bytes.size()) != static_cast<ssize_t>(bytes.size())) return errno;
  return rename(hidden.c_str(), path.c_str()) == 0 ? 0 : errno;
}

}  // namespace

std::vector<Dictionary> busyExtensionInstances(const std::set<std::string>& bundleIdentifiers) {
  std::vector<Dictionary> busy;
  for (const std::string& identifier : bundleIdentifiers) {
    const std::string directory = directoryOf(identifier);
    if (directory.empty()) continue;
    forEachFile(directory, [&busy](std::string_view name, const std::string& path, int file) {
      if (name.starts_with('.') || !isLocked(file)) return;
      Dictionary instance;
      if (const auto contents = readDictionaryFile(path))
        if ((*contents)["BundleIdentifier"].isString())
          instance.set("BundleIdentifier", (*contents)["BundleIdentifier"]);
      busy.push_back(std::move(instance));
    });
  }
  return busy;
}

BusyAssertion::BusyAssertion(FileDescriptor file, std::string path)
    : file_(std::move(file)), path_(std::move(path)) {}

std::unique_ptr<BusyAssertion> BusyAssertion::take(const std::string& bundleIdentifier) {
  const std::string directory = directoryOf(bundleIdentifier);
  const Result<std::string> bytes = serializePropertyList(Dictionary{{"BundleIdentifier", bundleIdentifier}});
  int number =
      directory.empty() || std::holds_alternative<Error>(bytes) ? EINVAL : makeDirectories(directory);
  if (number == 0) {
    removeDeadInstances(directory);
    const std::string instance = UUID::random().string();
    const std::string hidden = directory + "/." + instance;
    FileDescriptor file(open(hidden.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
    number = file ? establish(file.get(), std::get<std::string>(bytes), hidden, directory + "/" + instance)
                  : errno;
    if (number == 0)
      return std::unique_ptr<BusyAssertion>(new BusyAssertion(std::move(file), directory + "/" + instance));
    if (file) unlink(hidden.c_str());
  }
  errno = number;
  return nullptr;
}

BusyAssertion::~BusyAssertion() {
  unlink(path_.c_str());
}

}  // namespace platform
