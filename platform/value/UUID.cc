#include "platform/value/UUID.h"

#include <sys/random.h>

#include <cstdlib>

namespace platform {

namespace {

constexpr bool isDashAt(size_t i) {
  return i == 8 || i == 13 || i == 18 || i == 23;
}

int digitValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

}  // namespace

UUID UUID::random() {
  Bytes bytes;
  // Requests of up to 256 bytes are never short once the generator is seeded, getrandom(2).
  if (getrandom(bytes.data(), bytes.size(), 0) != static_cast<ssize_t>(bytes.size())) std::abort();
  bytes[6] = static_cast<uint8_t>((bytes[6] & 0x0F) | 0x40);
  bytes[8] = static_cast<uint8_t>((bytes[8] & 0x3F) | 0x80);
  return UUID(bytes);
}

std::optional<UUID> UUID::fromString(std::string_view text) {
  if (text.size() != 36) return std::nullopt;
  Bytes bytes;
  size_t digits = 0;
  for (size_t i = 0; i < text.size(); ++i) {
    if (isDashAt(i)) {
      if (text[i] != '-') return std::nullopt;
      continue;
    }
    const int value = digitValue(text[i]);
    if (value < 0) return std::nullopt;
    uint8_t& byte = bytes[digits / 2];
    byte = static_cast<uint8_t>(digits % 2 == 0 ? value << 4 : byte | value);
    ++digits;
  }
  return UUID(bytes);
}

std::optional<UUID> UUID::fromBytes(std::span<const uint8_t> bytes) {
  if (bytes.size() != 16) return std::nullopt;
  Bytes copy;
  std::memcpy(copy.data(), bytes.data(), copy.size());
  return UUID(copy);
}

std::string UUID::string() const {
  constexpr char kDigits[] = "0123456789ABCDEF";
  std::string text;
  text.reserve(36);
  for (const uint8_t byte : bytes_) {
    if (isDashAt(text.size())) text += '-';
    text += kDigits[byte >> 4];
    text += kDigits[byte & 15];
  }
  return text;
}

}  // namespace platform
