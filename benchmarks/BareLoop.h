#pragma once

// The loop of a bare server (Processes.h). Runs in the server's own process until that is killed.

#include <vector>

#include "benchmarks/Processes.h"

namespace bench {

/// Serves every connection of the listening socket `listener` (borrowed).
[[noreturn]] void runBareLoop(int listener, const std::vector<BareAnswer>& answers, bool joinsReplies);

}  // namespace bench
