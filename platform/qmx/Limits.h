#pragma once

// Every limit of the message service, in one place.

#include <chrono>
#include <cstddef>
#include <cstdint>

namespace platform::qmx {

/// Bytes of a request frame, its length field not counted.
inline constexpr uint32_t kMaximumRequestFrame = 4u << 20;
/// A larger one lets requests of others go first.
inline constexpr size_t kSmallRequest = 16u << 10;
/// Containers inside containers in a message; a frame's own array counts.
inline constexpr int kMaximumNesting = 512;
/// Requests of one connection that were read and not yet dispatched; then its reading pauses.
inline constexpr size_t kMaximumPendingRequests = 64;
/// Bytes of replies of one connection that were not yet taken; then its reading and dispatching pause.
inline constexpr size_t kMaximumUnsentBytes = 64u << 20;
/// A peer that takes nothing of what is due for this long is closed.
inline constexpr std::chrono::seconds kSendTimeout{30};
/// A frame that was begun must end within this time.
inline constexpr std::chrono::seconds kFrameTimeout{10};
inline constexpr size_t kMaximumConnectionsPerProcess = 256;
inline constexpr size_t kMaximumConnections = 4096;
/// Descriptors kept back for files when accepting.
inline constexpr int kReservedDescriptors = 64;
/// After a request that took longer, pending ends of streams are looked at before the next is dispatched.
inline constexpr std::chrono::milliseconds kLongRequest{1};

}  // namespace platform::qmx
