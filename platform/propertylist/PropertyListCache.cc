#include "platform/propertylist/PropertyListCache.h"

#include <algorithm>
#include <filesystem>
#include <map>
#include <mutex>
#include <system_error>
#include <utility>
#include <vector>

#include "platform/log/Log.h"
#include "platform/propertylist/FileReplacement.h"
#include "platform/propertylist/PropertyList.h"

namespace platform {

namespace {

/// Tells the log, once for each state of the file, that it says nothing.
void reportUnreadable(const std::string& file, const FileIdentity& identity) {
  static std::mutex mutex;
  static std::map<std::string, FileIdentity> reported;
  {
    const std::lock_guard lock(mutex);
    const auto [known, isNew] = reported.try_emplace(file, identity);
    if (!isNew && known->second == identity) return;
    known->second = identity;
  }
  systemLog("settings at %@ cannot be read and do not count", file);
}

}  // namespace

// Entries are few: going through their hashes needs no nodes of a table, and an entry that makes room hands
// its storage on.
struct PropertyListCache::Implementation {
  struct Entry {
    size_t hash = 0;
    std::string path;
    FileIdentity identity;
    /// None: the file holds no dictionary.
    std::optional<Dictionary> dictionary;
    uint64_t used = 0;  // on the clock
  };

  explicit Implementation(size_t limit) : capacity(std::max<size_t>(limit, 1)) { entries.reserve(capacity); }

  const size_t capacity;
  std::mutex mutex;
  std::vector<Entry> entries;
  uint64_t clock = 0;
  uint64_t generation = 0;  // counts clear()

  Entry* find(size_t hash, const std::string& path) {
    const auto found = std::ranges::find_if(
        entries, [&](const Entry& entry) { return entry.hash == hash && entry.path == path; });
    return found == entries.end() ? nullptr : &*found;
  }

  void remove(Entry& entry) {
    std::swap(entry, entries.back());
    entries.pop_back();
  }

  /// The entry for `path`, which may have been another's, the least recently used one's.
  Entry& place(size_t hash, const std::string& path) {
    Entry* entry = find(hash, path);
    if (entry != nullptr) return *entry;
    entry = entries.size() < capacity ? &entries.emplace_back()
                                      : &*std::ranges::min_element(entries, {}, &Entry::used);
    entry->hash = hash;
    entry->path = path;
    return *entry;
  }
};

PropertyListCache::PropertyListCache(size_t capacity)
    : implementation_(std::make_unique<Implementation>(capacity)) {}

PropertyListCache::~PropertyListCache() = default;

std::optional<Dictionary> PropertyListCache::dictionary(const std::string& path, FileIdentity* source) {
  Implementation& cache = *implementation_;
  const size_t hash = std::hash<std::string>()(path);
  uint64_t generation;
  bool isKept;
  {
    const std::lock_guard lock(cache.mutex);
    generation = cache.generation;
    isKept = cache.find(hash, path) != nullptr;
  }
  // What is not kept needs no look before it is opened; no file is looked at while the lock is held.
  if (isKept) {
    const auto present = FileIdentity::ofFile(path);
    const std::lock_guard lock(cache.mutex);
    Implementation::Entry* const entry = cache.find(hash, path);
    if (entry != nullptr && present == entry->identity) {
      entry->used = ++cache.clock;
      if (source != nullptr) *source = *present;
      return entry->dictionary;
    }
    if (entry != nullptr) cache.remove(*entry);
  }
  // Taken before reading: a file that changes meanwhile is read anew next time.
  FileIdentity identity;
  std::optional<Dictionary> dictionary = readDictionaryFile(path, &identity);
  if (source != nullptr) *source = identity;
  if (identity == FileIdentity() || !identity.isSettled()) return dictionary;
  const std::lock_guard lock(cache.mutex);
  if (generation != cache.generation) return dictionary;
  Implementation::Entry& entry = cache.place(hash, path);
  entry.identity = identity;
  entry.dictionary = dictionary;
  entry.used = ++cache.clock;
  return dictionary;
}

std::optional<Dictionary> PropertyListCache::settings(const std::string& path) {
  // Mostly there is none, which one look tells.
  std::error_code ignored;
  if (std::filesystem::status(path, ignored).type() == std::filesystem::file_type::not_found)
    return Dictionary();
  FileIdentity identity;
  auto known = dictionary(path, &identity);
  if (!known) reportUnreadable(path, identity);
  return known;
}

void PropertyListCache::clear() {
  const std::lock_guard lock(implementation_->mutex);
  ++implementation_->generation;
  implementation_->entries.clear();
}

}  // namespace platform
