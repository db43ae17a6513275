#pragma once

// The daemon's view of the user's preferences, domain "com.veltra.ambrel.userprefs". Stateless; any thread.

#include "platform/value/Value.h"

namespace abd {

using namespace platform;

class ABDUserPrefs {
 public:
  static constexpr const char* kDomain = "com.veltra.ambrel.userprefs";
  static constexpr const char* kExclusions = "exclusions";

  /// The rule dictionaries (an array) of plug-ins that the user has excluded, as they are now in the
  /// host-specific scope; none when there are none. Not checked for its shape.
  Value exclusions() const;
};

}  // namespace abd
