#pragma once

// Directory watches, inotify(7), grouped by what they are kept for. A subject's watches are renewed together:
// between begin() and end() its directories are named again, and those that were not are dropped. One
// directory may be watched for several subjects. Used by the monitor's thread.

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "platform/hollin/Vigil.h"
#include "platform/system/FileDescriptor.h"

namespace platform::hollin {

/// What directories are watched for. Owned by the monitor; its address identifies it.
struct Subject {
  enum class Kind : uint8_t {
    applications,  // an "Applications" directory: entries come and go
    entry,         // one entry of it: an application, or a container of some
    registered,    // a bundle registered by path
    sdks,          // a directory of SDKs
  };
  Kind kind;
  std::string path;
  std::shared_ptr<Vigil> vigil = {};  // of an entry, and of what is registered by path
  std::vector<int> watches = {}, previous = {};
  bool isWhole = false;  // all directories that were to be watched are
};

class Watches {
 public:
  Watches() { open(); }

  /// The descriptor to poll for events; -1 when there is none to be had.
  int descriptor() const { return inotify_.get(); }
  /// Whether the system gave fewer watches than were asked for since the last call of resetExhaustion().
  bool isExhausted() const { return exhaustion_ != 0; }
  /// The error number that says why.
  int exhaustion() const { return exhaustion_; }
  void resetExhaustion();
  /// How many watches it has. Any thread.
  size_t count() const { return count_.load(std::memory_order_relaxed); }

  void begin(Subject& subject);
  /// Watches a directory and what happens in it. False when it cannot be watched.
  bool add(Subject& subject, const std::string& directory);
  /// The same when there is such a directory.
  void addIfThere(Subject& subject, const std::string& directory);
  /// Watches every directory above the absolute `path`, for the next component of the path only, link by
  /// link; with `isFile` also what is written to the file that it leads to.
  void addWay(Subject& subject, const std::string& path, bool isFile = false);
  void end(Subject& subject);
  /// Drops all watches of a subject.
  void drop(Subject& subject);

  /// Something happened: in a directory of the subject's with the thing called `name` ("" when with the
  /// directory itself), or (`isOnTheWay`) above its path.
  using Report = std::function<void(Subject& subject, std::string_view name, bool isOnTheWay)>;
  /// Takes pending events and reports them. False when events were lost.
  bool read(const Report& report);

 private:
  struct Owner {
    Subject* subject;
    std::string awaited;  // only what happens with this name matters; empty: everything
  };
  void open();
  bool watch(Subject& subject, const std::string& directory, uint32_t mask, std::string_view awaited);
  void release(Subject& subject, int watch);
  void handle(int watch, uint32_t mask, std::string_view name, const Report& report);

  FileDescriptor inotify_;
  int exhaustion_ = 0;
  std::unordered_multimap<int, Owner> owners_;
  std::atomic<size_t> count_{0};  // of different ones among them
};

}  // namespace platform::hollin
