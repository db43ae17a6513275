#pragma once

// What a search asks for, as `match` and `watch` take it from the command line. Main thread.

#include <cstdint>
#include <string>
#include <vector>

#include "platform/value/Value.h"

namespace CLI {
class App;
}

namespace abctl {

struct MatchOptions {
  std::vector<std::string> rules;
  std::string rulesFile;
  bool allVersions = false, duplicates = false, systemOnly = false, all = false;

  void declare(CLI::App& command);
  /// Throws Failure (usage).
  platform::Dictionary ruleDictionary() const;
  uint64_t flags() const;
};

}  // namespace abctl
