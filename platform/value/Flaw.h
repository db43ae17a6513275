#pragma once

// Something in a property list that is passed over, gets in the way, or never has an effect: what decides
// about it tells those who ask. Plain values.

#include <string>
#include <vector>

#include "platform/value/Value.h"

namespace platform {

/// Keys from the top of a property list down; an element of an array goes by its index.
using KeyPath = std::vector<String>;

struct Flaw {
  KeyPath path;
  std::string reason;
};

}  // namespace platform
