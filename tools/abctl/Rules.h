#pragma once

// Rule dictionaries as they are given on the command line. Pure functions but for reading the file.

#include <string>
#include <vector>

#include "platform/value/Value.h"

namespace abctl {

/// The rules of a file (a property list, or JSON; "-" is standard input), if one is named, and the
/// KEY=PATTERN words. A word replaces the file's entry of the same key; words of one key become alternatives.
/// Throws Failure (usage).
platform::Dictionary readRules(const std::string& file, const std::vector<std::string>& words);

/// How rules are written, for the help of the commands that take them.
extern const char* const kRulesHelp;

}  // namespace abctl
