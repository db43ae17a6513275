#pragma once

// What a rule's pattern says about the values it can match before any plug-in is looked at: the literals by
// which a search is narrowed. Pure functions; any thread.

#include <optional>
#include <string>
#include <vector>

#include "platform/value/Value.h"

namespace abd {

/// The one text that `pattern` can be the same as: what follows its "=", or the pattern itself when it begins
/// with a letter or a digit of any script. None for every other pattern.
std::optional<std::string> literalOfPattern(const platform::Value& pattern);

/// The literals of a rule's value (a pattern, or an array of them); none when one of them has none.
std::optional<std::vector<std::string>> literalList(const platform::Value& value);

}  // namespace abd
