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
  /// dictionary() of a file that administrators and users write; the log says, once for each state of the
  /// file, that it cannot be read.
  std::optional<Dictionary> settings(const std::string& path);
  /// Forgets every parsed dictionary.
  void clear();

 private:
  struct Implementation;
  std::unique_ptr<Implementation> implementation_;
};

}  // namespace platform
