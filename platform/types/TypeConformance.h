#pragma once

// Which type identifiers conform to which: data/Types/*.plist (type -> list of parents, or one parent) and
// the shared MIME database's "subclasses" and "aliases", so that MIME types work as type identifiers. What
// all files say counts together. Changed files are noticed by a question that comes at least a tenth of a
// second after they were last looked at: within that time an answer may still be the old one. Any thread.

#include <cstdint>
#include <memory>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace platform {

class TypeGraph;

/// Whether `type` conforms to `ancestor`: reflexive and transitive; cycles are tolerated.
bool typeConformsTo(std::string_view type, std::string_view ancestor);

/// The same for many questions that are to see one state of the files, that of the first question; what was
/// found out for one is kept for the others. Used by one thread at a time.
class TypeConformances {
 public:
  bool conforms(std::string_view type, std::string_view ancestor);

 private:
  std::shared_ptr<const TypeGraph> graph_;  // null: nothing was asked yet
  std::unordered_map<uint32_t, std::vector<uint32_t>> ancestors_;
};

}  // namespace platform
