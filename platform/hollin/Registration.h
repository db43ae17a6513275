#pragma once

// What outlives the process about one bundle: the identities that its plug-ins were given, how it came to be
// registered, and what was read from it. A plain value.

#include <cstdint>
#include <memory>
#include <vector>

#include "platform/hollin/BundleFacts.h"
#include "platform/value/UUID.h"

namespace platform::hollin {

/// The identity of one plug-in of a bundle. Kept when the plug-in goes, so that it is the same when it comes
/// back.
struct Slot {
  String identifier;
  String original;  // the identifier under which it was first registered
  UUID uuid;
  double registered = 0;  // seconds since 1970
};

struct Registration {
  int64_t row = 0;                           // 0: never stored
  String path;                               // canonical
  std::shared_ptr<const BundleFacts> facts;  // as last seen; null when nothing is known
  std::vector<Slot> slots;
  bool isByPath = false;        // registered by path: outlives its bundle
  bool isUnregistered = false;  // found by scanning, but not wanted until it changes
  bool isNew = false;           // on its way to the store for the first time
  double goneSince = 0;         // when the bundle was first missed; 0 while it is there
};

}  // namespace platform::hollin
