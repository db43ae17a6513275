#include "platform/propertylist/PropertyListCache.h"

#include <list>
#include <mutex>
#include <unordered_map>

#include "platform/propertylist/FileReplacement.h"
#include "platform/propertylist/PropertyList.h"

namespace platform {

struct PropertyListCache::Implementation {
  struct Entry {
    std::string path;
    FileIdentity identity;
    /// None: the file holds no dictionary.
    std::optional<Dictionary> dictionary;
  };

  explicit Implementation(size_t limit) : capacity(limit) {}

  const size_t capacity;
  std::mutex mutex;
  std::list<Entry> entries;                                                 // most recently used first
  std::unordered_map<std::string_view, std::list<Entry>::iterator> byPath;  // keys lie in the entries
  uint64_t generation = 0;                                                  // counts clear()

  bool isKept(const std::string& path) {
    const std::lock_guard lock(mutex);
    return byPath.contains(path);
  }

  void remove(const std::string& path) {
    const auto found = byPath.find(path);
    if (found == byPath.end()) return;
    const auto entry = found->second;
    byPath.erase(found);
    entries.erase(entry);
  }

  void insert(Entry entry) {
    if (capacity == 0) return;
    remove(entry.path);
    if (entries.size() == capacity) remove(entries.back().path);
    entries.push_front(std::move(entry));
    byPath.emplace(entries.front().path, entries.begin());
  }
};

PropertyListCache::PropertyListCache(size_t capacity)
    : implementation_(std::make_unique<Implementation>(capacity)) {}

PropertyListCache::~PropertyListCache() = default;

std::optional<Dictionary> PropertyListCache::dictionary(const std::string& path, FileIdentity* source) {
  Implementation& cache = *implementation_;
  // What is not kept needs no look before it is opened; no file is looked at while the lock is held.
  const auto present = cache.isKept(path) ? FileIdentity::ofFile(path) : std::nullopt;
  uint64_t generation;
  {
    const std::lock_guard lock(cache.mutex);
    generation = cache.generation;
    const auto found = cache.byPath.find(path);
    if (found != cache.byPath.end() && present == found->second->identity) {
      cache.entries.splice(cache.entries.begin(), cache.entries, found->second);
      if (source != nullptr) *source = *present;
      return found->second->dictionary;
    }
    cache.remove(path);
  }
  // Taken before reading: a file that changes meanwhile is read anew next time.
  FileIdentity identity;
  std::optional<Dictionary> dictionary = readDictionaryFile(path, &identity);
  if (source != nullptr) *source = identity;
  if (identity == FileIdentity() || !identity.isSettled()) return dictionary;
  const std::lock_guard lock(cache.mutex);
  if (generation == cache.generation) cache.insert({path, identity, dictionary});
  return dictionary;
}

void PropertyListCache::clear() {
  const std::lock_guard lock(implementation_->mutex);
  ++implementation_->generation;
  implementation_->byPath.clear();
  implementation_->entries.clear();
}

}  // namespace platform
