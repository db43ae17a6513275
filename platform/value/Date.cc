#include "platform/value/Date.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <ctime>

namespace platform {

Date Date::now() {
  timespec time{};
  clock_gettime(CLOCK_REALTIME, &time);
  return Date{static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) * 1e-9};
}

std::string Date::description() const {
  // gmtime_r takes any time_t, but a double holds more than that.
  constexpr double kLimit = 1e15;
  if (!(secondsSince1970 > -kLimit && secondsSince1970 < kLimit)) {
    return std::to_string(secondsSince1970) + " seconds since 1970";
  }
  const auto whole = static_cast<time_t>(std::floor(secondsSince1970));
  tm parts{};
  if (gmtime_r(&whole, &parts) == nullptr) return std::to_string(whole) + " seconds since 1970";
  char text[64];
  std::string out(text, strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &parts));
  // Just before a whole second the difference is rounded up to it.
  const auto microseconds =
      std::min(static_cast<int>((secondsSince1970 - static_cast<double>(whole)) * 1e6), 999'999);
  if (microseconds != 0)
    out.append(text, static_cast<size_t>(snprintf(text, sizeof text, ".%06d", microseconds)));
  return out + " +0000";
}

}  // namespace platform
