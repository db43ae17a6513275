#include "platform/types/TypeGraph.h"

#include <algorithm>

namespace platform {

TypeGraph::Node TypeGraph::node(std::string_view name) {
  if (const auto known = find(name)) return *known;
  const Node added = static_cast<Node>(parents_.size());
  nodes_.emplace(name, added);
  parents_.emplace_back();
  return added;
}

std::optional<TypeGraph::Node> TypeGraph::find(std::string_view name) const {
  const auto found = nodes_.find(name);
  return found == nodes_.end() ? std::nullopt : std::optional(found->second);
}

void TypeGraph::addParent(std::string_view type, std::string_view parent) {
  const Node child = node(type);
  const Node above = node(parent);
  parents_[child].push_back(above);
}

void TypeGraph::addDeclarations(const Dictionary& declarations) {
  for (const auto& [type, parents] : declarations) {
    if (const auto parent = parents.string()) addParent(type, *parent);
    if (const Array* list = parents.array())
      for (const Value& each : *list)
        if (const auto parent = each.string()) addParent(type, *parent);
  }
}

void TypeGraph::addLines(std::string_view lines, bool areAliases) {
  while (!lines.empty()) {
    const size_t end = std::min(lines.find('\n'), lines.size());
    const std::string_view line = lines.substr(0, end);
    lines.remove_prefix(std::min(end + 1, lines.size()));
    const size_t space = line.find(' ');
    if (space == std::string_view::npos || space == 0 || space + 1 == line.size()) continue;
    addParent(line.substr(0, space), line.substr(space + 1));
    if (areAliases) addParent(line.substr(space + 1), line.substr(0, space));
  }
}

std::vector<TypeGraph::Node> TypeGraph::ancestors(Node type) const {
  std::vector<bool> isReached(parents_.size());
  std::vector<Node> reached{type};
  isReached[type] = true;
  for (size_t i = 0; i < reached.size(); ++i) {
    for (const Node parent : parents_[reached[i]]) {
      if (isReached[parent]) continue;
      isReached[parent] = true;
      reached.push_back(parent);
    }
  }
  std::sort(reached.begin(), reached.end());
  return reached;
}

bool TypeGraph::conforms(std::string_view type, std::string_view ancestor) const {
  if (type == ancestor) return true;
  const auto from = find(type);
  const auto to = find(ancestor);
  if (!from || !to) return false;
  const std::vector<Node> all = ancestors(*from);
  return std::binary_search(all.begin(), all.end(), *to);
}

}  // namespace platform
