#pragma once

// The settings of the user and of the device as one request sees them: each file is looked at when the
// request first needs it, and the answer holds until the request's end, however long it takes and whoever is
// served in between. A change that was complete before the request was sent therefore counts for all of it,
// and a request costs the same looks whatever it finds. Only on the service queue.

#include <cstdint>
#include <optional>

#include "platform/policy/Consent.h"
#include "platform/types/TypeConformance.h"

namespace abd {

using namespace platform;

class RequestSettings {
 public:
  /// The device's limit; none when there is no limit.
  const std::optional<int64_t>& maximumAppsRating();
  const ConsentDecisions& consent();
  TypeConformances& types() { return types_; }

 private:
  // None: not asked yet.
  std::optional<std::optional<int64_t>> maximumAppsRating_;
  std::optional<ConsentDecisions> consent_;
  TypeConformances types_;
};

}  // namespace abd
