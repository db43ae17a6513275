#pragma once

// Memory of large blocks, outside the heap: what a burst of large replies took goes back to the system as
// soon as it is freed, whatever lies around it. Of the most common size a few are kept for the next ones, for
// fresh memory costs more than filling it. Any thread.

#include <cstddef>

namespace platform::detail {

/// From this size on a block is large.
inline constexpr size_t kLargeBlock = 60u << 10;

/// REQUIRES: size >= kLargeBlock. Throws std::bad_alloc.
void* takeLargeBlock(size_t size);
/// REQUIRES: `block` was taken with this `size`.
void giveLargeBlock(void* block, size_t size) noexcept;

}  // namespace platform::detail
