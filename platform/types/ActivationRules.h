#pragma once

// The activation-rule evaluator. A rule is a boolean, or a dictionary from type identifier to the largest
// count accepted (a number, or the boolean true for any). Items: a dictionary with "items", an array of
// dictionaries with "types" (an array of type identifiers). Any thread.

#include <vector>

#include "platform/types/TypeConformance.h"
#include "platform/value/Flaw.h"
#include "platform/value/Value.h"

namespace platform {

/// Whether `rule` accepts `items`: there is at least one item, each counts for some type of the rule that one
/// of its own types conforms to (for every such type, in fact), and no type's count is exceeded. The rule
/// true accepts any items, false none. A rule or items of another shape are not accepted.
bool evaluateActivationRule(const Value& rule, const Dictionary& items, TypeConformances& types);

/// Why `rule` accepts no items at all; empty when there are some that it accepts.
std::vector<Flaw> flawsOfActivationRule(const Value& rule);
/// Why no rule accepts `items`, but for the rule true where only their types are wrong; empty when one may.
std::vector<Flaw> flawsOfItems(const Dictionary& items);

}  // namespace platform
