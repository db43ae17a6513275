#pragma once

// Checks and conversions of text encodings. Pure functions, usable from any thread.

#include <cstdint>
#include <span>
#include <string>
#include <string_view>

namespace platform {

/// Whether `text` is well-formed UTF-8 (RFC 3629: shortest forms, no surrogates, at most U+10FFFF).
bool isValidUTF8(std::string_view text);

/// Whether `text` is well-formed UTF-8 and holds no U+0000.
bool isValidText(std::string_view text);

/// Whether XML 1.0 can carry every character of `text` so that it reads back the same: well-formed UTF-8
/// without control characters but tab and line feed (a carriage return is written as a reference), and
/// without U+FFFE and U+FFFF.
bool isValidXMLText(std::string_view text);

/// Appends one character as UTF-8. False when `point` is a surrogate or above U+10FFFF.
bool appendCodePoint(uint32_t point, std::string& out);

/// Appends big-endian UTF-16 as UTF-8. False (and nothing useful appended) when it is not well-formed.
bool appendUTF16(std::span<const uint8_t> bigEndian, std::string& out);

}  // namespace platform
