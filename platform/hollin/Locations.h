#pragma once

// Where bundles lie: the data roots of the device as they are now, in their order of precedence, and what a
// path says about a bundle. Immutable; made anew when a root appears or goes; any thread.

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "platform/system/Directories.h"

namespace platform::hollin {

inline constexpr std::string_view kApplicationSuffix = ".app";
inline constexpr std::string_view kPlugInSuffix = ".appex";

class Locations {
 public:
  struct Root {
    std::string path;          // canonical as far as it exists
    std::string applications;  // canonical; empty while there is none
    bool isSystem = false;
  };

  /// Looks at the disk.
  static std::shared_ptr<const Locations> current(const Directories& directories);

  /// In order of precedence, no place twice.
  const std::vector<Root>& roots() const { return roots_; }

  bool isOnSystemVolume(std::string_view path) const;
  /// The directory between "Applications" and the application, or "" when there is none.
  std::string containerOf(std::string_view application) const;
  /// Whether `path` has the place and the name of an application in one of the roots.
  bool isApplication(std::string_view path) const;
  /// The entry of an "Applications" directory in which a scan finds the bundle at `path`; "" when none does.
  std::string entryOf(std::string_view path) const;

  /// The application that contains the bundle at `path` (".../X.app" of ".../X.app/PlugIns/Y"), or "".
  static std::string_view applicationOf(std::string_view path);

 private:
  std::vector<Root> roots_;
};

/// The path without its last component, "" for the root.
std::string_view parentOf(std::string_view path);
std::string_view lastComponentOf(std::string_view path);
/// Whether `name` has this suffix and something before it.
bool hasSuffix(std::string_view name, std::string_view suffix);

}  // namespace platform::hollin
