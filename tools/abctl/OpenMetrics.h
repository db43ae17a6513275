#pragma once

// What "status" tells, as text for programs that collect metrics. Pure function.

#include <string>

#include "platform/value/Value.h"

namespace abctl {

/// `status` in the OpenMetrics text format, version 1.0; `now` is in seconds since 1970.
std::string openMetricsText(const platform::Dictionary& status, double now);

}  // namespace abctl
