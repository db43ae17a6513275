#pragma once

// A moment in time as seconds since 1970-01-01 00:00 UTC, fractions included. A plain value.

#include <compare>
#include <string>

#pragma GCC visibility push(default)

namespace platform {

struct Date {
  double secondsSince1970 = 0;

  static Date now();

  /// "2026-11-22 21:00:00 +0000" (fractions are not shown).
  std::string description() const;

  friend auto operator<=>(const Date&, const Date&) = default;
};

}  // namespace platform

#pragma GCC visibility pop
