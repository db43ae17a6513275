#include "platform/propertylist/FileReplacement.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <memory>
#include <vector>

#include "platform/propertylist/FileDescriptor.h"
#include "platform/value/UUID.h"

namespace platform {

namespace {

using detail::FileDescriptor;

/// Where a file really lies: its directory, and its name in there.
struct Place {
  std::string directory;
  std::string name;

  std::string path(const std::string& other) const { return directory + "/" + other; }
};

/// A symbolic link at `path` is kept and the file that it leads to is meant, whether that exists yet or not.
Place placeOf(std::string path) {
  // As many links as the kernel follows, path_resolution(7).
  for (int links = 0; links < 40; ++links) {
    char target[PATH_MAX];
    const ssize_t size = readlink(path.c_str(), target, sizeof target);
    if (size <= 0 || static_cast<size_t>(size) == sizeof target) break;
    const std::string_view next(target, static_cast<size_t>(size));
    if (next.front() == '/') {
      path = next;
    } else {
      const size_t slash = path.rfind('/');
      path = (slash == std::string::npos ? "" : path.substr(0, slash + 1)) + std::string(next);
    }
  }
  const size_t slash = path.rfind('/');
  if (slash == std::string::npos) return {".", path};
  return {slash == 0 ? "/" : path.substr(0, slash), path.substr(slash + 1)};
}

std::string temporaryPrefix(const Place& place) {
  return "." + place.name + ".tmp-";
}

std::optional<Error> writeAll(int file, std::string_view bytes, const std::string& path) {
  while (!bytes.empty()) {
    const ssize_t count = write(file, bytes.data(), bytes.size());
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) return Error::posix(count < 0 ? errno : EIO, path);
    bytes.remove_prefix(static_cast<size_t>(count));
  }
  return std::nullopt;
}

std::optional<Error> writeDurably(const std::string& path, std::string_view bytes) {
  FileDescriptor file(open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, 0666));
  if (!file.isValid()) return Error::posix(errno, path);
  if (auto error = writeAll(file.get(), bytes, path)) return error;
  if (fsync(file.get()) != 0) return Error::posix(errno, path);
  if (!file.close()) return Error::posix(errno, path);
  return std::nullopt;
}

}  // namespace

std::optional<Error> replaceFile(const std::string& path, std::string_view bytes) {
  const Place place = placeOf(path);
  // Opened first, so that nothing can fail for want of descriptors after the rename.
  const FileDescriptor directory(open(place.directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!directory.isValid()) return Error::posix(errno, place.directory);
  const std::string temporary = place.path(temporaryPrefix(place) + UUID::random().string().substr(0, 8));
  if (auto error = writeDurably(temporary, bytes)) {
    if (error->code != EEXIST) unlink(temporary.c_str());
    return error;
  }
  if (rename(temporary.c_str(), place.path(place.name).c_str()) != 0) {
    const int number = errno;
    unlink(temporary.c_str());
    return Error::posix(number, path);
  }
  if (fsync(directory.get()) != 0) return Error::posix(errno, place.directory);
  return std::nullopt;
}

std::variant<std::string, Error> keepAside(const std::string& path) {
  const Place place = placeOf(path);
  const std::string file = place.path(place.name);
  const std::string name = file + ".damaged-" + std::to_string(std::time(nullptr));
  std::string aside = name;
  for (int i = 1; link(file.c_str(), aside.c_str()) != 0; ++i) {
    if (errno != EEXIST) {
      // Directories, and everything on some file systems, have one name only.
      if (renameat2(AT_FDCWD, file.c_str(), AT_FDCWD, aside.c_str(), RENAME_NOREPLACE) == 0) break;
      if (errno != EEXIST) return Error::posix(errno, path);
    }
    aside = name + "-" + std::to_string(i);
  }
  return aside;
}

void sweepTemporaryFiles(const std::string& path) {
  const Place place = placeOf(path);
  const std::string prefix = temporaryPrefix(place);
  const std::unique_ptr<DIR, int (*)(DIR*)> directory(opendir(place.directory.c_str()), closedir);
  if (directory == nullptr) return;
  std::vector<std::string> names;
  while (const dirent* entry = readdir(directory.get())) {
    const std::string_view name = entry->d_name;
    if (name.starts_with(prefix) && name.size() == prefix.size() + 8) names.emplace_back(name);
  }
  for (const std::string& name : names) unlink(place.path(name).c_str());
}

FileIdentity FileIdentity::of(const struct stat& status) {
  constexpr int64_t kNanoseconds = 1'000'000'000;
  return {.device = status.st_dev,
          .inode = status.st_ino,
          .size = static_cast<uint64_t>(status.st_size),
          .modificationNanoseconds = status.st_mtim.tv_sec * kNanoseconds + status.st_mtim.tv_nsec,
          .changeNanoseconds = status.st_ctim.tv_sec * kNanoseconds + status.st_ctim.tv_nsec};
}

bool FileIdentity::isSettled() const {
  constexpr int64_t kNanoseconds = 1'000'000'000;
  constexpr int64_t kSettlesIn = 100'000'000;
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  return now.tv_sec * kNanoseconds + now.tv_nsec - changeNanoseconds >= kSettlesIn;
}

std::optional<FileIdentity> FileIdentity::ofFile(const std::string& path) {
  struct stat status;
  if (stat(path.c_str(), &status) != 0 || !S_ISREG(status.st_mode)) return std::nullopt;
  return of(status);
}

}  // namespace platform
