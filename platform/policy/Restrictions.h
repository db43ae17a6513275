#pragma once

// Device restrictions: "Restrictions.plist" of config/device and config/user. Any thread.

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace platform {

/// Where restrictions may be: the device's files, then the user's.
std::vector<std::string> restrictionFiles();

/// The effective (lowest) "maximumAppsRating" as the files say now; none when no limit is set.
std::optional<int64_t> maximumAppsRating();

}  // namespace platform
