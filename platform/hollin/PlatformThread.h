#pragma once

// Threads of the registry's own.

#include <functional>
#include <thread>

namespace platform::hollin {

/// Starts a thread that takes no signals and shows as `name` (at most 15 characters) to the system's tools.
std::thread startPlatformThread(const char* name, std::function<void()> work);

/// Calls `work(i)` once for each i below `count`, on several threads when that is worth it; returns when all
/// calls have.
void forEachInParallel(size_t count, const std::function<void(size_t)>& work);

}  // namespace platform::hollin
