#pragma once

// The two readers behind parsePropertyList(). Internal to this folder.

#include <cstdint>
#include <span>
#include <string>
#include <string_view>

#include "platform/propertylist/PropertyList.h"

namespace platform::detail {

inline constexpr std::string_view kBinaryMagic = "bplist";

/// "not a property list" with a reason.
Error corrupt(std::string_view why);

/// Parses XML in place: `text` is destroyed. `where`: parsePropertyList()'s.
Result<Value> parseXMLPropertyList(std::string& text, size_t* where = nullptr);

/// Parses a binary property list of version 00.
Result<Value> parseBinaryPropertyList(std::span<const uint8_t> bytes);

/// Seconds since 1970 of a date and time in UTC as XML property lists write it, "2026-11-22T21:00:00Z"; none
/// for anything else.
std::optional<Date> parseDate(std::string_view text);

/// Days from 1970-01-01 to a day of the Gregorian calendar, extended backwards.
int64_t daysFromCivil(int64_t year, unsigned month, unsigned day);

}  // namespace platform::detail
