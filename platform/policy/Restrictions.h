#pragma once

// Device restrictions: "Restrictions.plist" of config/device and config/user. Looked up anew on every call.
// Any thread.

#include <cstdint>
#include <optional>

namespace platform {

/// The effective (lowest) "maximumAppsRating"; none when no limit is set.
std::optional<int64_t> maximumAppsRating();

}  // namespace platform
