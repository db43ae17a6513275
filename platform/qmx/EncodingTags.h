#pragma once

// The tags of the wire's encoding. Internal to this folder.

#include <cstdint>

namespace platform::qmx {

inline constexpr uint64_t kDateTag = 1;
inline constexpr uint64_t kEncodedTag = 24;
inline constexpr uint64_t kUUIDTag = 37;

}  // namespace platform::qmx
