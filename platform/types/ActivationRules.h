#pragma once

// The activation-rule evaluator. A rule is a boolean, or a dictionary from type identifier to the largest
// count accepted (a number, or true for any). Items: a dictionary with "items", an array of dictionaries with
// "types" (an array of type identifiers). Any thread.

#include "platform/value/Value.h"

namespace platform {

/// Whether `rule` accepts `items`: there is at least one item, each counts for some type of the rule that one
/// of its own types conforms to, and no type's count is exceeded. Anything of another shape is not accepted.
bool evaluateActivationRule(const Value& rule, const Dictionary& items);

}  // namespace platform
