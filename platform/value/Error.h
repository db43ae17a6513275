#pragma once

// An error value: what went wrong, as a triple of domain, code and an optional description. A plain value;
// errors travel as std::optional<Error> (none: success).

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#pragma GCC visibility push(default)

namespace platform {

/// Domain of system errors; the code is an errno value.
inline constexpr std::string_view kPOSIXErrorDomain = "POSIX";
/// Domain of file errors that are not plain system errors.
inline constexpr std::string_view kFileErrorDomain = "File";
/// In domain "File": the file to be read does not exist.
inline constexpr int64_t kFileReadNoSuchFile = 260;
/// In domain "File": the contents are not a property list (corrupt, or too large).
inline constexpr int64_t kFileReadCorrupt = 259;
/// In domain "File": the value cannot be written as a property list.
inline constexpr int64_t kPropertyListWriteInvalid = 3851;

struct Error {
  std::string domain;
  int64_t code = 0;
  /// Absent when the error was made without a description.
  std::optional<std::string> text;

  /// The text, or a sentence made from domain and code when there is none.
  std::string localizedDescription() const;
  /// For logs: `domain code "localized description"`.
  std::string description() const;

  /// An error of domain "POSIX" with the system's text (strerror) for `number`, prefixed by `what` when
  /// given.
  static Error posix(int number, std::string_view what = {});

  friend bool operator==(const Error&, const Error&) = default;
};

}  // namespace platform

#pragma GCC visibility pop
