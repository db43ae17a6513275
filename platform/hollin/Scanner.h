#pragma once

// Finds the bundles of applications on disk: `Applications/X.app` and `Applications/<container>/X.app`, and
// in each `PlugIns/*.appex`. It lists directories and looks at files, and reads none. An entry of an
// "Applications" directory is the unit in which installs and removals are noticed. Used by one thread.

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <unordered_set>
#include <vector>

#include "platform/hollin/BundleFacts.h"

namespace platform::hollin {

struct FoundBundle {
  std::string path;  // canonical
  uint32_t entry;    // index into Scan::entries
  FileIdentity info, entitlementsFile;
};

struct Scan {
  struct Entry {
    std::string path;
    bool isIncomplete = false;  // something could not be listed for now: what is missing may well be there
  };
  std::vector<Entry> entries;
  std::vector<FoundBundle> bundles;
  // A bundle was reached on two ways, or lies outside of the entry that leads to it.
  bool hasAliases = false;
};

class Scanner {
 public:
  enum class Way : uint8_t {
    directory,    // its canonical path, before it is listed
    link,         // to a directory, before it is followed
    linkToAFile,  // whose contents matter
  };
  /// Called with what is met on the way to bundles, and with the entry that it belongs to.
  using Visit = std::function<void(Way way, const std::string& path, const std::string& entry)>;

  explicit Scanner(Visit visit = {}) : visit_(std::move(visit)) {}

  /// Every entry of an "Applications" directory (a canonical path).
  void scanApplications(const std::string& applications);
  /// One entry, whether it exists or not.
  void scanEntry(const std::string& entry);
  /// What was found, no bundle twice: the first way to it counts.
  Scan take();

 private:
  struct Child {
    std::string name;
    bool isLink;
  };
  struct Directory;

  void visit(Way way, const std::string& path);
  void scanContents(const Directory& parent, const Child& child);
  void scanApplication(const Directory& parent, const Child& child);
  void scanPlugIns(int plugIns, const std::string& path);
  void add(int directory, const std::string& name, std::string path);
  std::vector<Child> listDirectories(int directory, const std::string& path);
  int openDirectory(int parent, const std::string& name, const std::string& path);
  std::string resolve(const Directory& parent, const Child& child);
  void fail(const std::string& path, int number);

  const Visit visit_;
  Scan scan_;
  std::string application_;               // the one that is being looked at
  size_t listed_ = 0;                     // "Applications" directories with something in them
  std::unordered_set<std::string> seen_;  // what links led to
};

}  // namespace platform::hollin
