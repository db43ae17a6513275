#pragma once

// Parsed dictionaries of property-list files that are looked up anew on every call but parsed only when their
// file changed. Bounded: the least recently used entry makes room. Any thread.

#include <cstddef>
#include <memory>
#include <optional>
#include <string>

#include "platform/propertylist/FileReplacement.h"
#include "platform/value/Value.h"

namespace platform {

class PropertyListCache {
 public:
  explicit PropertyListCache(size_t capacity);
  ~PropertyListCache();
  PropertyListCache(const PropertyListCache&) = delete;
  PropertyListCache& operator=(const PropertyListCache&) = delete;

  /// The dictionary in the file at `path` as it is now; none when there is none. `source` becomes the
  /// identity of the file that it was read from. No lock is held while reading.
  std::optional<Dictionary> dictionary(const std::string& path, FileIdentity* source = nullptr);
  /// What administrators and users wrote to the file at `path`: empty when there is no file, none when it
  /// cannot be read, which the log says once for each state of the file.
  std::optional<Dictionary> settings(const std::string& path);
  /// Forgets every parsed dictionary.
  void clear();

 private:
  struct Implementation;
  std::unique_ptr<Implementation> implementation_;
};

}  // namespace platform
