#pragma once

// The system's own error values: domain "Ambrel", a code and an optional description. Pure functions; any
// thread.

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "platform/log/Format.h"
#include "platform/value/Error.h"

#pragma GCC visibility push(default)

namespace ambrel {

using namespace platform;

inline constexpr std::string_view AmbrelErrorDomain = "Ambrel";

/// Codes of the domain. All but the misconfigured plug-in also travel in replies.
inline constexpr int64_t kABErrorRegistration = 2;    // a plug-in could not be registered or unregistered
inline constexpr int64_t kABErrorRequest = 4;         // malformed request, unknown plug-in, failed service
inline constexpr int64_t kABErrorVersion = 7;         // unsupported version of the protocol or of a file
inline constexpr int64_t kABErrorPath = 9;            // a path is not acceptable
inline constexpr int64_t kABErrorAccess = 11;         // the client is not allowed
inline constexpr int64_t kABErrorMisconfigured = 12;  // a plug-in's bundle is not acceptable
inline constexpr int64_t kABErrorBusy = 14;           // plug-ins to be held are in use

/// Without a description the error carries none (not an empty one).
Error ABError(int64_t code, std::optional<std::string> description);

template <typename... Args>
Error ABErrorWithFormat(int64_t code, Format<Args...> text, const Args&... args) {
  return ABError(code, format<Args...>(text, args...));
}
/// Without a format the error carries no description; arguments are not looked at.
template <typename... Args>
Error ABErrorWithFormat(int64_t code, std::nullptr_t, const Args&...) {
  return ABError(code, std::nullopt);
}

}  // namespace ambrel

#pragma GCC visibility pop
