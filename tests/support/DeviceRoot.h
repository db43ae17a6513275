#pragma once

// A whole device in a temporary directory: every root that the platform layer looks at, empty until a test
// writes into it. Gone with the object.

#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include "platform/value/Value.h"

namespace testsupport {

namespace fs = std::filesystem;
using namespace platform;

/// What the files of a plug-in bundle say. Entries of the dictionaries are added to what every bundle has.
struct PlugInBundle {
  std::string identifier;
  std::string version = "1.0";
  std::string point = "com.example.share";  // "ZQExtensionPointName"; empty: none
  Dictionary attributes = {};
  Dictionary plugIn = {};  // the "ZQExtension" section
  Dictionary info = {};    // the top level
  Dictionary entitlements = {};
};

/// `dictionary` with all entries of `more`.
Dictionary merged(Dictionary dictionary, const Dictionary& more);
/// The bundle's Info dictionary.
Dictionary infoDictionary(const PlugInBundle& bundle);

class DeviceRoot {
 public:
  DeviceRoot();
  ~DeviceRoot();
  DeviceRoot(const DeviceRoot&) = delete;
  DeviceRoot& operator=(const DeviceRoot&) = delete;

  const std::string& path() const { return path_; }
  std::string dataUser() const { return path_ + "/data/veltra"; }
  std::string dataSystem() const { return path_ + "/share/veltra"; }
  std::string configUser() const { return path_ + "/config/veltra"; }
  std::string configDevice() const { return path_ + "/device/veltra"; }
  std::string state() const { return path_ + "/state/veltra"; }
  std::string runtime() const { return path_ + "/run/veltra"; }
  std::string annotationFile() const { return state() + "/com.veltra.ambrel/Annotations"; }
  /// Number of posts of a notification so far: of annotations' and holds' changes, unless it is named.
  size_t changeNotifications(std::string_view name = "com.veltra.ambrel.annotation-change") const;
  /// The stored annotation table; an empty one when the file is missing or no whole annotation file.
  Dictionary storedAnnotations() const;

  /// `more` (of each variable the first counts), and the XDG variables and PATH of a process that lives on
  /// this device and logs to its standard error.
  std::vector<std::string> environment(std::vector<std::string> more = {}) const;

  /// Writes a bundle directory at `path` with its files.
  void writeBundle(const std::string& path, const PlugInBundle& bundle) const;
  /// Installs an application with plug-ins (each in PlugIns/<identifier>.appex) by one rename, as installers
  /// do. `place` is relative to "Applications" ("Notes.app", "container/Notes.app"). Answers its path.
  std::string install(const std::string& place, const std::vector<PlugInBundle>& plugIns,
                      bool onSystemVolume = false) const;
  /// The path of a plug-in in an application that install() made.
  static std::string plugInPath(const std::string& application, std::string_view identifier) {
    return application + "/PlugIns/" + std::string(identifier) + ".appex";
  }

 private:
  std::string path_;
};

/// Writes a property list, or any text, to `path`; makes missing parents.
void writePropertyList(const std::string& path, const Value& value);
void writeText(const std::string& path, std::string_view text, unsigned mode = 0644);
std::string readText(const std::string& path);
std::vector<std::string> linesOf(const std::string& text);
inline bool contains(std::string_view text, std::string_view part) {
  return text.find(part) != std::string_view::npos;
}

}  // namespace testsupport
