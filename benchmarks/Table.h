#pragma once

// The table that the figures of one run end in. One thread.

#include <vector>

#include "benchmarks/Pairs.h"

namespace bench {

/// Every figure reported so far, in order.
const std::vector<Figure>& figures();
/// One line per figure for people, then how many aims are missed.
void printTable(const std::vector<Figure>& figures);
/// The same as one JSON array for programs.
void printJSON(const std::vector<Figure>& figures);

}  // namespace bench
