#include "platform/hollin/Locations.h"

#include <algorithm>

namespace platform::hollin {

std::string_view parentOf(std::string_view path) {
  const size_t slash = path.rfind('/');
  return slash == std::string_view::npos ? std::string_view() : path.substr(0, slash);
}

std::string_view lastComponentOf(std::string_view path) {
  return path.substr(path.rfind('/') + 1);
}

bool hasSuffix(std::string_view name, std::string_view suffix) {
  return name.size() > suffix.size() && name.ends_with(suffix);
}

std::shared_ptr<const Locations> Locations::current(const Directories& directories) {
  auto locations = std::make_shared<Locations>();
  const auto add = [&locations](const std::string& configured, bool isSystem) {
    Root root{canonicalPathOfFutureFile(configured), canonicalPath(configured + "/Applications"), isSystem};
    if (root.path.empty()) return;
    for (const Root& known : locations->roots_)
      if (known.path == root.path || (!root.applications.empty() && known.applications == root.applications))
        return;
    locations->roots_.push_back(std::move(root));
  };
  if (!directories.dataUser.empty()) add(directories.dataUser, false);
  for (const std::string& path : directories.dataSystem) add(path, true);
  return locations;
}

bool Locations::isOnSystemVolume(std::string_view path) const {
  for (const Root& root : roots_)
    if (isInside(path, root.path) || (!root.applications.empty() && isInside(path, root.applications)))
      return root.isSystem;
  return false;
}

std::string Locations::containerOf(std::string_view application) const {
  const std::string_view parent = parentOf(application);
  for (const Root& root : roots_) {
    if (root.applications.empty()) continue;
    if (parent == root.applications) return {};
    if (parentOf(parent) == root.applications) return std::string(parent);
  }
  return {};
}

bool Locations::isApplication(std::string_view path) const {
  if (!hasSuffix(lastComponentOf(path), kApplicationSuffix)) return false;
  const std::string_view parent = parentOf(path);
  return std::any_of(roots_.begin(), roots_.end(), [parent](const Root& root) {
    if (root.applications.empty()) return false;
    return parent == root.applications ||
           (parentOf(parent) == root.applications && !hasSuffix(lastComponentOf(parent), kApplicationSuffix));
  });
}

std::string Locations::entryOf(std::string_view path) const {
  const std::string_view application = applicationOf(path);
  if (!hasSuffix(lastComponentOf(path), kPlugInSuffix) || application.empty() || !isApplication(application))
    return {};
  const std::string container = containerOf(application);
  return container.empty() ? std::string(application) : container;
}

std::string_view Locations::applicationOf(std::string_view path) {
  const std::string_view parent = parentOf(path);
  if (lastComponentOf(parent) != "PlugIns") return {};
  const std::string_view application = parentOf(parent);
  return hasSuffix(lastComponentOf(application), kApplicationSuffix) ? application : std::string_view();
}

}  // namespace platform::hollin
