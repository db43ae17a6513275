#pragma once

// The system log: syslog(3), with a copy on standard error when that is a terminal, when there is no log
// socket, or with ABD_LOG=stderr in the environment. One call is one entry and one line: control characters
// are escaped. Any thread.

#include <string>
#include <string_view>

#include "platform/log/Format.h"

namespace platform {

/// Leaves the copy on standard error out from now on, unless ABD_LOG asks for it: for programs that tell
/// their user what went wrong themselves. Before the first entry.
void keepLogFromStandardError();

/// Writes one finished entry.
void writeLogEntry(std::string_view text);

/// Formats and writes one entry.
template <typename... Args>
void systemLog(Format<Args...> text, const Args&... args) {
  writeLogEntry(format<Args...>(text, args...));
}

}  // namespace platform
