#pragma once

// The declared conformances of one moment, as a graph. Built once, then immutable; any thread.

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "platform/value/Value.h"

namespace platform {

class TypeGraph {
 public:
  void addParent(std::string_view type, std::string_view parent);
  /// Declarations of a property list: type -> parents. Other shapes are passed over.
  void addDeclarations(const Dictionary& declarations);
  /// Lines of the shared MIME database, each "type parent". Aliases lead both ways: they are one type.
  void addLines(std::string_view lines, bool areAliases);

  bool conforms(std::string_view type, std::string_view ancestor) const;

  using Node = uint32_t;
  std::optional<Node> find(std::string_view name) const;
  /// Everything that the type conforms to, itself included, in ascending order.
  std::vector<Node> ancestors(Node type) const;

 private:
  struct Hash {
    using is_transparent = void;
    size_t operator()(std::string_view text) const { return std::hash<std::string_view>()(text); }
  };
  Node node(std::string_view name);

  std::unordered_map<std::string, Node, Hash, std::equal_to<>> nodes_;
  std::vector<std::vector<Node>> parents_;
};

}  // namespace platform
