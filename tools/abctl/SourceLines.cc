#include "tools/abctl/SourceLines.h"

#include <algorithm>
#include <pugixml.hpp>
#include <string>

namespace abctl {
namespace {

using platform::KeyPath;

/// Goes through a list in the order of its text.
class Walk {
 public:
  Walk(std::string_view text, std::map<KeyPath, size_t>& lines, std::vector<KeyPath>& repeated)
      : text_(text), lines_(lines), repeated_(repeated) {}

  void read(const pugi::xml_node& element) {
    const std::string_view name = element.name();
    size_t index = 0;
    for (const pugi::xml_node child : element.children()) {
      if (child.type() != pugi::node_element) continue;
      if (name == "dict" && child.name() == std::string_view("key")) {
        readEntry(child);
      } else if (name == "array") {
        enter(std::to_string(index++), child);
        read(child);
        path_.pop_back();
      }
    }
  }

 private:
  void readEntry(const pugi::xml_node& key) {
    enter(key.child_value(), key);
    pugi::xml_node value = key.next_sibling();
    while (value && value.type() != pugi::node_element) value = value.next_sibling();
    read(value);
    path_.pop_back();
  }

  void enter(platform::String name, const pugi::xml_node& node) {
    path_.push_back(std::move(name));
    const auto offset = std::max<ptrdiff_t>(node.offset_debug(), 0);
    line_ += static_cast<size_t>(std::count(text_.begin() + at_, text_.begin() + offset, '\n'));
    at_ = offset;
    if (!lines_.emplace(path_, line_).second) {
      lines_[path_] = line_;
      repeated_.push_back(path_);
    }
  }

  const std::string_view text_;
  std::map<KeyPath, size_t>& lines_;
  std::vector<KeyPath>& repeated_;
  KeyPath path_;
  ptrdiff_t at_ = 0;
  size_t line_ = 1;
};

}  // namespace

SourceLines::SourceLines(std::string_view text) {
  pugi::xml_document document;
  if (!document.load_buffer(text.data(), text.size(), pugi::parse_default, pugi::encoding_utf8)) return;
  Walk(text, lines_, repeated_).read(document.child("plist").first_child());
}

std::optional<size_t> SourceLines::lineOf(KeyPath path) const {
  for (; !path.empty(); path.pop_back())
    if (const auto found = lines_.find(path); found != lines_.end()) return found->second;
  return std::nullopt;
}

size_t SourceLines::lineAt(std::string_view text, size_t offset) {
  return 1 + static_cast<size_t>(std::ranges::count(text.substr(0, offset), '\n'));
}

}  // namespace abctl
