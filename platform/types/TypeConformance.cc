#include "platform/types/TypeConformance.h"

#include <dirent.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "platform/propertylist/FileReplacement.h"
#include "platform/propertylist/PropertyList.h"
#include "platform/system/Directories.h"
#include "platform/types/TypeGraph.h"

namespace platform {

namespace {

using Clock = std::chrono::steady_clock;

/// A match asks this ten thousand times; looking at the files each time would cost more than the match.
constexpr auto kLookedAtAgainAfter = std::chrono::milliseconds(100);

/// The files that there are now, in a fixed order, each with the identity by which it is unchanged.
using Files = std::vector<std::pair<std::string, FileIdentity>>;

void addFile(Files& files, std::string path) {
  if (const auto identity = FileIdentity::ofFile(path)) files.emplace_back(std::move(path), *identity);
}

Files presentFiles() {
  Files files;
  for (const std::string& mime : Directories::shared().mimeData) {
    addFile(files, mime + "/subclasses");
    addFile(files, mime + "/aliases");
  }
  for (const std::string& root : Directories::shared().dataRoots()) {
    const std::string directory = root + "/Types";
    const std::unique_ptr<DIR, int (*)(DIR*)> listing(opendir(directory.c_str()), &closedir);
    if (listing == nullptr) continue;
    const size_t first = files.size();
    while (const dirent* entry = readdir(listing.get())) {
      const std::string_view name = entry->d_name;
      if (name.ends_with(".plist")) addFile(files, directory + "/" + entry->d_name);
    }
    std::sort(files.begin() + static_cast<std::ptrdiff_t>(first), files.end());
  }
  return files;
}

std::shared_ptr<const TypeGraph> readGraph(const Files& files) {
  const auto graph = std::make_shared<TypeGraph>();
  for (const auto& [path, identity] : files) {
    if (path.ends_with(".plist")) {
      if (const auto declarations = readDictionaryFile(path)) graph->addDeclarations(*declarations);
    } else {
      const Result<std::string> lines = readFile(path);
      if (const std::string* text = std::get_if<std::string>(&lines))
        graph->addLines(*text, path.ends_with("/aliases"));
    }
  }
  return graph;
}

class Conformance {
 public:
  std::shared_ptr<const TypeGraph> current() {
    const auto now = Clock::now().time_since_epoch().count();
    auto lookAgainAt = lookAgainAt_.load(std::memory_order_acquire);
    if (now >= lookAgainAt) {
      // One thread looks while the others use what is known, but for the first time, when all wait.
      if (lookAgainAt == 0) {
        const std::lock_guard lock(looking_);
        if (lookAgainAt_.load(std::memory_order_acquire) == 0) look();
      } else if (looking_.try_lock()) {
        const std::lock_guard lock(looking_, std::adopt_lock);
        look();
      }
    }
    const std::lock_guard lock(mutex_);
    return graph_;
  }

 private:
  void look() {
    Files files = presentFiles();
    if (graph_ == nullptr || !areSettled_ || files != files_) {
      areSettled_ =
          std::all_of(files.begin(), files.end(), [](const auto& file) { return file.second.isSettled(); });
      auto graph = readGraph(files);
      files_ = std::move(files);
      const std::lock_guard lock(mutex_);
      graph_.swap(graph);
    }
    lookAgainAt_.store((Clock::now() + kLookedAtAgainAfter).time_since_epoch().count(),
                       std::memory_order_release);
  }

  std::atomic<Clock::rep> lookAgainAt_{0};
  std::mutex looking_;  // held while files are read
  // Guarded by looking_.
  Files files_;
  bool areSettled_ = false;
  std::mutex mutex_;
  std::shared_ptr<const TypeGraph> graph_;  // guarded by mutex_; changed only under looking_ too
};

std::shared_ptr<const TypeGraph> currentGraph() {
  static Conformance conformance;
  return conformance.current();
}

}  // namespace

bool typeConformsTo(std::string_view type, std::string_view ancestor) {
  return type == ancestor || currentGraph()->conforms(type, ancestor);
}

bool TypeConformances::conforms(std::string_view type, std::string_view ancestor) {
  if (type == ancestor) return true;
  if (graph_ == nullptr) graph_ = currentGraph();
  const auto from = graph_->find(type);
  const auto to = graph_->find(ancestor);
  if (!from || !to) return false;
  const auto [known, isNew] = ancestors_.try_emplace(*from);
  if (isNew) known->second = graph_->ancestors(*from);
  return std::binary_search(known->second.begin(), known->second.end(), *to);
}

}  // namespace platform
