#include "platform/hollin/Scanner.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string_view>
#include <utility>

#include "platform/hollin/Locations.h"
#include "platform/log/Log.h"
#include "platform/system/Directories.h"
#include "platform/system/FileDescriptor.h"

namespace platform::hollin {

/// An open directory and its canonical path.
struct Scanner::Directory {
  int descriptor;
  const std::string& path;
};

namespace {

constexpr size_t kListingBuffer = 32 << 10;

/// Running out of something says nothing about what is on the disk.
bool isTransient(int number) {
  return number == EMFILE || number == ENFILE || number == ENOMEM;
}

/// What is in the way of listing a directory that is no error: it is gone, or it is none.
bool isAbsence(int number) {
  return number == ENOENT || number == ENOTDIR;
}

bool isLink(const std::string& path) {
  struct stat status {};
  return lstat(path.c_str(), &status) == 0 && S_ISLNK(status.st_mode);
}

}  // namespace

Scan Scanner::take() {
  if (scan_.hasAliases || listed_ > 1) {
    std::unordered_set<std::string_view> known;
    known.reserve(scan_.bundles.size());
    const size_t duplicates = std::erase_if(
        scan_.bundles, [&known](const FoundBundle& found) { return !known.insert(found.path).second; });
    if (duplicates > 0) scan_.hasAliases = true;
  }
  return std::move(scan_);
}

void Scanner::fail(const std::string& path, int number) {
  if (isAbsence(number)) return;
  systemLog("cannot list %@: %s", path, strerror(number));
  if (isTransient(number)) scan_.entries.back().isIncomplete = true;
}

void Scanner::visit(Way way, const std::string& path) {
  if (visit_) visit_(way, path, scan_.entries.back().path);
}

/// The directory, which is no link, or -1.
int Scanner::openDirectory(int parent, const std::string& name, const std::string& path) {
  const int descriptor = openat(parent, name.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC | O_NOFOLLOW);
  if (descriptor < 0) fail(path, errno);
  return descriptor;
}

/// Names of all directories, and of all links, in an open directory.
std::vector<Scanner::Child> Scanner::listDirectories(int directory, const std::string& path) {
  std::vector<Child> children;
  alignas(dirent64) thread_local char buffer[kListingBuffer];
  for (;;) {
    const ssize_t size = getdents64(directory, buffer, sizeof buffer);
    if (size < 0) fail(path, errno);
    if (size <= 0) return children;
    for (ssize_t offset = 0; offset < size;) {
      const auto* entry = reinterpret_cast<const dirent64*>(buffer + offset);
      offset += entry->d_reclen;
      unsigned char type = entry->d_type;
      struct stat status {};
      if (type == DT_UNKNOWN && fstatat(directory, entry->d_name, &status, AT_SYMLINK_NOFOLLOW) == 0)
        type = static_cast<unsigned char>(IFTODT(status.st_mode));
      const std::string_view name = entry->d_name;
      if ((type == DT_DIR || type == DT_LNK) && name != "." && name != "..")
        children.push_back({std::string(name), type == DT_LNK});
    }
  }
}

/// The canonical path of a child; "" when it is a link that leads nowhere, in a circle, or where a link led
/// before.
std::string Scanner::resolve(const Directory& parent, const Child& child) {
  std::string path = parent.path + "/" + child.name;
  if (!child.isLink) return path;
  visit(Way::link, path);
  std::string target = canonicalPath(path);
  if (target.empty()) {
    fail(path, errno);
    return {};
  }
  scan_.hasAliases = true;
  if (!seen_.insert(target).second) return {};
  return target;
}

void Scanner::scanApplications(const std::string& applications) {
  const FileDescriptor directory(open(applications.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!directory) {
    if (!isAbsence(errno)) systemLog("cannot list %@: %s", applications, strerror(errno));
    return;
  }
  scan_.entries.push_back({applications});  // for what goes wrong in the listing
  const std::vector<Child> children = listDirectories(directory.get(), applications);
  if (!children.empty()) listed_++;
  for (const Child& child : children) {
    scan_.entries.push_back({applications + "/" + child.name});
    scanContents({directory.get(), applications}, child);
  }
}

void Scanner::scanEntry(const std::string& entry) {
  scan_.entries.push_back({entry});
  struct stat status {};
  if (lstat(entry.c_str(), &status) != 0 || !(S_ISDIR(status.st_mode) || S_ISLNK(status.st_mode))) return;
  const std::string parent(parentOf(entry));
  scanContents({AT_FDCWD, parent},
               {std::string(lastComponentOf(entry)), static_cast<bool>(S_ISLNK(status.st_mode))});
}

/// An entry is an application or a container of some.
void Scanner::scanContents(const Directory& parent, const Child& child) {
  if (hasSuffix(child.name, kApplicationSuffix)) {
    scanApplication(parent, child);
    return;
  }
  const std::string path = resolve(parent, child);
  if (path.empty()) return;
  visit(Way::directory, path);
  const bool isRelative = !child.isLink && parent.descriptor != AT_FDCWD;
  const FileDescriptor container(
      openDirectory(isRelative ? parent.descriptor : AT_FDCWD, isRelative ? child.name : path, path));
  if (!container) return;
  for (const Child& application : listDirectories(container.get(), path))
    if (hasSuffix(application.name, kApplicationSuffix))
      scanApplication({container.get(), path}, application);
}

void Scanner::scanApplication(const Directory& parent, const Child& child) {
  const std::string path = resolve(parent, child);
  if (path.empty()) return;
  visit(Way::directory, path);
  application_ = path;
  std::string plugIns = path + "/PlugIns";
  const bool isRelative = !child.isLink && parent.descriptor != AT_FDCWD;
  FileDescriptor directory(openat(isRelative ? parent.descriptor : AT_FDCWD,
                                  (isRelative ? child.name + "/PlugIns" : plugIns).c_str(),
                                  O_RDONLY | O_DIRECTORY | O_CLOEXEC | O_NOFOLLOW));
  const int number = errno;
  if (!directory && isLink(plugIns)) {
    plugIns = resolve({AT_FDCWD, path}, {"PlugIns", true});
    if (plugIns.empty()) return;
    directory = FileDescriptor(openDirectory(AT_FDCWD, plugIns, plugIns));
  } else if (!directory) {
    fail(plugIns, number);
  }
  if (directory) scanPlugIns(directory.get(), plugIns);
}

void Scanner::scanPlugIns(int plugIns, const std::string& path) {
  visit(Way::directory, path);
  for (const Child& child : listDirectories(plugIns, path)) {
    if (!hasSuffix(child.name, kPlugInSuffix)) continue;
    std::string bundle = resolve({plugIns, path}, child);
    if (!bundle.empty()) add(plugIns, child.name, std::move(bundle));
  }
}

void Scanner::add(int directory, const std::string& name, std::string path) {
  // A link may have led into an application that is no entry's.
  if (const auto application = Locations::applicationOf(path);
      application != application_ && !application.empty())
    visit(Way::directory, std::string(application));
  visit(Way::directory, path);
  FoundBundle found{std::move(path), static_cast<uint32_t>(scan_.entries.size() - 1), {}, {}};
  struct stat status {};
  char file[NAME_MAX + sizeof "/Entitlements.plist"];
  const auto look = [&](const char* suffix) {
    std::memcpy(file, name.data(), name.size());
    std::strcpy(file + name.size(), suffix);
    return fstatat(directory, file, &status, AT_SYMLINK_NOFOLLOW) == 0;
  };
  bool isThere = look("/Info.plist");
  if (isThere && S_ISLNK(status.st_mode)) {
    visit(Way::linkToAFile, found.path + "/Info.plist");
    isThere = fstatat(directory, file, &status, 0) == 0;
  }
  if (isThere) found.info = identityOf(status);
  if (look("/Entitlements.plist")) found.entitlementsFile = identityOf(status);
  scan_.bundles.push_back(std::move(found));
}

}  // namespace platform::hollin
