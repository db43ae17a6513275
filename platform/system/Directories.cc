#include "platform/system/Directories.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <memory>
#include <optional>

#include "platform/system/CanonicalOpen.h"

namespace platform {

namespace {

constexpr std::string_view kOurs = "/veltra";
constexpr size_t kLongestName = 200;

/// An absolute path from the environment; anything else counts as not set.
std::optional<std::string> absolutePath(const char* variable) {
  const char* value = std::getenv(variable);
  if (value == nullptr || *value != '/') return std::nullopt;
  return value;
}

/// Canonical where it can be told; as given otherwise (an unreadable parent is no reason to forget a root).
std::string rootPath(const std::string& path) {
  std::string canonical = canonicalPathOfFutureFile(path);
  return canonical.empty() ? path : canonical;
}

std::string below(const std::optional<std::string>& base, std::string_view rest) {
  return base ? rootPath(*base + std::string(rest)) : std::string();
}

/// One directory of the user: the variable, else its place in the home directory.
std::optional<std::string> userDirectory(const char* variable, std::string_view inHome) {
  if (auto path = absolutePath(variable)) return path;
  auto home = absolutePath("HOME");
  if (home) home->append(inHome);
  return home;
}

std::vector<std::string> directoryList(const char* variable, std::string_view standard) {
  const char* value = std::getenv(variable);
  const std::string_view list = value == nullptr || *value == '\0' ? standard : std::string_view(value);
  std::vector<std::string> out;
  for (size_t begin = 0; begin <= list.size();) {
    const size_t end = std::min(list.find(':', begin), list.size());
    if (list[begin] == '/') out.emplace_back(list.substr(begin, end - begin));
    begin = end + 1;
  }
  return out;
}

void appendUnlessKnown(std::vector<std::string>& paths, std::string path, const std::string& known) {
  if (path.empty() || path == known || std::find(paths.begin(), paths.end(), path) != paths.end()) return;
  paths.push_back(std::move(path));
}

std::string runtimeDirectory() {
  if (const auto path = absolutePath("XDG_RUNTIME_DIR")) return below(path, kOurs);
  const std::string user = std::to_string(geteuid());
  struct stat status {};
  const std::string managed = "/run/user/" + user;
  if (stat(managed.c_str(), &status) == 0 && S_ISDIR(status.st_mode)) return below(managed, kOurs);
  const std::string own = "/tmp/veltra-" + user;
  return makePrivateDirectory(own) == 0 ? below(own, kOurs) : std::string();
}

}  // namespace

const Directories& Directories::shared() {
  // Never destroyed: the platform's own threads may still ask while the process exits.
  static const Directories& directories = *new Directories(fromEnvironment());
  return directories;
}

Directories Directories::fromEnvironment() {
  Directories out;
  const auto dataHome = userDirectory("XDG_DATA_HOME", "/.local/share");
  out.dataUser = below(dataHome, kOurs);
  appendUnlessKnown(out.mimeData, below(dataHome, "/mime"), {});
  for (const std::string& path : directoryList("XDG_DATA_DIRS", "/usr/local/share/:/usr/share/")) {
    appendUnlessKnown(out.dataSystem, below(path, kOurs), out.dataUser);
    appendUnlessKnown(out.mimeData, below(path, "/mime"), {});
  }
  out.configUser = below(userDirectory("XDG_CONFIG_HOME", "/.config"), kOurs);
  for (const std::string& path : directoryList("XDG_CONFIG_DIRS", "/etc/xdg"))
    appendUnlessKnown(out.configDevice, below(path, kOurs), out.configUser);
  out.state = below(userDirectory("XDG_STATE_HOME", "/.local/state"), kOurs);
  out.runtime = runtimeDirectory();
  return out;
}

std::vector<std::string> Directories::dataRoots() const {
  std::vector<std::string> roots;
  roots.reserve(dataSystem.size() + 1);
  if (!dataUser.empty()) roots.push_back(dataUser);
  roots.insert(roots.end(), dataSystem.begin(), dataSystem.end());
  return roots;
}

int makeDirectories(const std::string& path, unsigned mode) {
  if (path.empty()) return ENOENT;
  // The usual case first: all parents are there.
  if (mkdir(path.c_str(), mode) == 0) return 0;
  if (errno == ENOENT) {
    for (size_t end = path.find('/', 1); end != std::string::npos; end = path.find('/', end + 1)) {
      if (mkdir(path.substr(0, end).c_str(), mode) != 0 && errno != EEXIST) {
        // A parent that may not be written to may well exist.
        struct stat status {};
        const int number = errno;
        if (stat(path.substr(0, end).c_str(), &status) != 0) return number;
      }
    }
    if (mkdir(path.c_str(), mode) == 0) return 0;
  }
  const int number = errno;
  struct stat status {};
  if (stat(path.c_str(), &status) != 0) return number;
  return S_ISDIR(status.st_mode) ? 0 : ENOTDIR;
}

int makePrivateDirectory(const std::string& path) {
  if (mkdir(path.c_str(), 0700) != 0 && errno != EEXIST) return errno;
  struct stat status {};
  if (lstat(path.c_str(), &status) != 0) return errno;
  if (!S_ISDIR(status.st_mode)) return ENOTDIR;
  if (status.st_uid != geteuid()) return EPERM;
  return (status.st_mode & 077) == 0 ? 0 : EACCES;
}

std::string canonicalPath(const std::string& path) {
  // realpath(3) asks about each component.
  if (openCanonical(path)) return path;
  const std::unique_ptr<char, decltype(&std::free)> resolved(realpath(path.c_str(), nullptr), &std::free);
  return resolved ? std::string(resolved.get()) : std::string();
}

std::string canonicalPathOfFutureFile(const std::string& path) {
  std::string existing = path;
  std::string rest;
  for (;;) {
    while (existing.size() > 1 && existing.back() == '/') existing.pop_back();
    std::string resolved = canonicalPath(existing);
    if (!resolved.empty()) return resolved == "/" && !rest.empty() ? rest : resolved + rest;
    // A link that leads nowhere is not a file that may still come.
    struct stat status {};
    if (errno != ENOENT || lstat(existing.c_str(), &status) == 0) return {};
    const size_t slash = existing.rfind('/');
    if (slash == std::string::npos) return {};
    const std::string_view component = std::string_view(existing).substr(slash + 1);
    if (component == "..") return {};
    if (!component.empty() && component != ".") rest.insert(0, "/" + std::string(component));
    existing.resize(std::max<size_t>(slash, 1));
  }
}

bool isInside(std::string_view path, std::string_view directory) {
  if (directory == "/") return path.starts_with('/');
  return path.starts_with(directory) && (path.size() == directory.size() || path[directory.size()] == '/');
}

bool isSafeFileName(std::string_view name) {
  return !name.empty() && name != "." && name != ".." && name.size() <= kLongestName &&
         name.find('/') == std::string_view::npos && name.find('\0') == std::string_view::npos;
}

}  // namespace platform
