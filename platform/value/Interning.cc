// Interned strings: a small table per thread, so that no lock is taken and nothing that one thread does makes
// another wait. Each place of the table has room for two strings; the one that was asked for last stays
// longest. Strings that nobody else holds any more are dropped when their place is needed.

#include <array>
#include <cstdint>
#include <cstring>
#include <utility>

#include "platform/value/Value.h"

namespace platform {

namespace {

/// Longer strings are hardly ever equal to others.
constexpr size_t kLongestInterned = 64;
constexpr size_t kPlaces = 1024;

/// Room for two strings that share a place, with parts of their hashes, so that others are not looked at.
struct Place {
  uint32_t recentTag = 0, olderTag = 0;
  String recent, older;
};

struct Table {
  std::array<Place, kPlaces> places;
};

// A plain pointer beside its owner, since reaching an object that is constructed on demand costs a test more.
thread_local Table* table = nullptr;
/// Set when the thread's table is gone (strings may still be made while the thread ends).
thread_local bool isTableGone = false;

struct TableOwner {
  TableOwner() { table = &own; }
  ~TableOwner() {
    table = nullptr;
    isTableGone = true;
  }
  Table own;
};

bool makeTable() {
  if (!isTableGone) thread_local TableOwner owner;
  return table != nullptr;
}

template <typename Word>
uint64_t load(const char* at) {
  Word word;
  std::memcpy(&word, at, sizeof word);
  return word;
}

uint64_t mixed(uint64_t sum, uint64_t word) {
  sum = (sum ^ word) * 0x9E3779B97F4A7C15ULL;
  return sum ^ sum >> 32;
}

/// Words that overlap at the end, so that there is no loop over single bytes. REQUIRES: `text` is not empty.
uint64_t hash(std::string_view text) {
  const char* const begin = text.data();
  const size_t size = text.size();
  if (size < 4) {
    // The first, the middle and the last byte are all there are.
    const uint64_t bytes =
        load<uint8_t>(begin) | load<uint8_t>(begin + size / 2) << 8 | load<uint8_t>(begin + size - 1) << 16;
    return mixed(size, bytes);
  }
  if (size < 8) return mixed(size, load<uint32_t>(begin) << 32 | load<uint32_t>(begin + size - 4));
  uint64_t sum = size;
  for (size_t at = 0; at + 16 < size; at += 16)
    sum = mixed(sum, load<uint64_t>(begin + at) ^ load<uint64_t>(begin + at + 8) * 0xC2B2AE3D27D4EB4FULL);
  if (size >= 16) sum = mixed(sum, load<uint64_t>(begin + size - 16));
  return mixed(mixed(sum, load<uint64_t>(begin)), load<uint64_t>(begin + size - 8));
}

/// Whether the `size` bytes at `a` and `b` are the same. Written out for short ones, like the hash.
bool isSame(const char* a, const char* b, size_t size) {
  if (size < 8) return std::memcmp(a, b, size) == 0;
  uint64_t different = 0;
  for (size_t at = 0; at + 8 < size; at += 8) different |= load<uint64_t>(a + at) ^ load<uint64_t>(b + at);
  return (different | (load<uint64_t>(a + size - 8) ^ load<uint64_t>(b + size - 8))) == 0;
}

bool isSame(const String& string, std::string_view text) {
  return string.size() == text.size() && isSame(string.view().data(), text.data(), text.size());
}

}  // namespace

String String::interned(std::string_view text) {
  if (text.empty() || text.size() > kLongestInterned) return String(text);
  if (table == nullptr && !makeTable()) return String(text);
  const uint64_t sum = hash(text);
  Place& place = table->places[sum % kPlaces];
  const auto tag = static_cast<uint32_t>(sum >> 32);
  if (place.recentTag == tag && isSame(place.recent, text)) return place.recent;
  if (place.olderTag != tag || !isSame(place.older, text)) {
    place.older = String(text);
    place.olderTag = tag;
  }
  std::swap(place.recent, place.older);
  std::swap(place.recentTag, place.olderTag);
  return place.recent;
}

}  // namespace platform
