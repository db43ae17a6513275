#pragma once

// Gives memory back to the system that the heap keeps after a burst of large replies. The heap is looked
// through on the platform's background thread, some seconds after enough was freed and at most once in that
// time; whoever allocates meanwhile may wait for it, for about a millisecond for each 10 MiB that are given
// back (what is large lies outside the heap, platform/value/LargeBlocks.h, and needs none of this).

#include <cstddef>

namespace platform {

/// Tells that about so many bytes are or will soon be free that were not in use for long. Any thread; next to
/// nothing to call.
void noteFreedMemory(size_t bytes);

}  // namespace platform
