#pragma once

// A universally unique identifier (RFC 9562): 16 bytes, compared by value. A plain value, usable from any
// thread.

#include <array>
#include <compare>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#pragma GCC visibility push(default)

namespace platform {

class UUID {
 public:
  using Bytes = std::array<uint8_t, 16>;

  /// The nil UUID (all zero).
  UUID() = default;
  explicit UUID(const Bytes& bytes) : bytes_(bytes) {}

  /// A new random UUID (version 4) from the kernel's generator, getrandom(2). Stops the process when the
  /// kernel has no randomness to give.
  static UUID random();

  /// Reads the 8-4-4-4-12 hexadecimal text form in either letter case; none for anything else.
  static std::optional<UUID> fromString(std::string_view text);

  /// None unless `bytes` has exactly 16 bytes.
  static std::optional<UUID> fromBytes(std::span<const uint8_t> bytes);

  /// The canonical text form: upper-case hexadecimal, 8-4-4-4-12.
  std::string string() const;
  std::string description() const { return string(); }

  const Bytes& bytes() const { return bytes_; }

  friend auto operator<=>(const UUID&, const UUID&) = default;

 private:
  Bytes bytes_{};
};

}  // namespace platform

#pragma GCC visibility pop

template <>
struct std::hash<platform::UUID> {
  size_t operator()(const platform::UUID& uuid) const noexcept {
    // Only random UUIDs are hashed in bulk, so folding the halves is enough.
    uint64_t high, low;
    std::memcpy(&high, uuid.bytes().data(), sizeof high);
    std::memcpy(&low, uuid.bytes().data() + sizeof high, sizeof low);
    return static_cast<size_t>(high ^ (low * 0x9E3779B97F4A7C15ULL));
  }
};
