#pragma once

// The test process itself on a device root of its own, for tests that call the libraries directly. The first
// use makes the device and sets this process's variables, before the platform layer reads them.

#include <gtest/gtest.h>

#include <ostream>
#include <string>
#include <string_view>
#include <vector>

#include "tests/support/DeviceRoot.h"

namespace platform {

/// What a failed comparison shows.
inline void PrintTo(const Value& value, std::ostream* out) {
  *out << value.description();
}
inline void PrintTo(const Dictionary& value, std::ostream* out) {
  *out << Value(value).description();
}

}  // namespace platform

namespace testsupport {

const DeviceRoot& thisDevice();

/// Empties the directories of the device, for the next test.
void clearOwnDevice();

/// Lines of a log, without their prefixes, out of what was written to standard error.
std::vector<std::string> logEntries(const std::string& standardError);

/// How many of the entries contain `text`.
size_t entriesWith(const std::vector<std::string>& log, std::string_view text);

/// What `work` writes to this process's log. The registry's announcements come in their own time and are
/// left out.
template <typename F>
std::vector<std::string> logOf(F work) {
  testing::internal::CaptureStderr();
  work();
  auto log = logEntries(testing::internal::GetCapturedStderr());
  std::erase_if(log, [](const auto& each) {
    return each.starts_with("INSTALLED:") || each.starts_with("UNINSTALLED:");
  });
  return log;
}

}  // namespace testsupport
