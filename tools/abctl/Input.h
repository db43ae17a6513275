#pragma once

// What people hand to abctl in files or as JSON on the command line. Main thread.

#include <string>

#include "platform/value/Value.h"

namespace abctl {

/// The dictionary in `file` ("-": standard input), a property list or JSON; `what` it is to be is said in
/// errors, in the plural. Throws Failure (usage).
platform::Dictionary dictionaryOfFile(const std::string& file, const std::string& what);

/// A property list begins with "<" or with its binary mark, JSON with neither.
bool looksLikeJson(const std::string& text);

}  // namespace abctl
