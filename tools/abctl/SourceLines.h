#pragma once

// On which lines of an XML property list its keys stand. Made from the file's text; a binary list, JSON, or
// UTF-16 has no lines. Main thread.

#include <cstddef>
#include <map>
#include <optional>
#include <string_view>
#include <vector>

#include "platform/value/Flaw.h"

namespace abctl {

class SourceLines {
 public:
  explicit SourceLines(std::string_view text);

  /// The line, from 1, of what `path` names, or of the innermost thing around it that is there; none for the
  /// list itself.
  std::optional<size_t> lineOf(platform::KeyPath path) const;
  /// Keys that stand twice in one dictionary; the last one counts.
  const std::vector<platform::KeyPath>& repeated() const { return repeated_; }

  /// The line in which the character at `offset` stands.
  static size_t lineAt(std::string_view text, size_t offset);

 private:
  std::map<platform::KeyPath, size_t> lines_;
  std::vector<platform::KeyPath> repeated_;
};

}  // namespace abctl
