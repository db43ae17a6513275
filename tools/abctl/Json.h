#pragma once

// Values as JSON text and back, for programs that drive abctl. Pure functions.
//
// Strings, numbers, booleans, arrays and dictionaries map to themselves; UUIDs become their text, dates ISO
// 8601 text (UTC), data base64 text. Control characters and bytes that are no UTF-8 come out escaped or
// replaced, so the text is always valid JSON.

#include <string>
#include <string_view>

#include "platform/value/Value.h"

namespace abctl {

/// Indented by two blanks, or on one line.
std::string jsonText(const platform::Value& value, bool indented = true);

/// Throws Failure (usage) naming `source` when `text` is no JSON. Null becomes a none value.
platform::Value valueOfJson(std::string_view text, const std::string& source);

}  // namespace abctl
