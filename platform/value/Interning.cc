// Interned strings: a small table per thread, so that no lock is taken and nothing that one thread does makes
// another wait. Each place of the table has room for two strings; the one that was asked for last stays
// longest. Strings that nobody else holds any more are dropped when their place is needed.

#include <array>
#include <cstdint>
#include <cstring>

#include "platform/value/Value.h"

namespace platform {

namespace {

/// Longer strings are hardly ever keys.
constexpr size_t kLongestInterned = 64;
constexpr size_t kPlaces = 1024;

/// Set when the thread's table is gone (strings may still be made while the thread ends).
thread_local bool isTableGone = false;

struct Table {
  std::array<std::array<String, 2>, kPlaces> places;
  ~Table() { isTableGone = true; }
};

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

/// REQUIRES: `text` is not empty.
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
  for (size_t at = 0; at + 8 < size; at += 8) sum = mixed(sum, load<uint64_t>(begin + at));
  // The last word overlaps the one before.
  return mixed(sum, load<uint64_t>(begin + size - 8));
}

}  // namespace

String String::interned(std::string_view text) {
  if (text.empty() || text.size() > kLongestInterned || isTableGone) return String(text);
  thread_local Table table;
  auto& [recent, older] = table.places[hash(text) % kPlaces];
  if (recent.view() == text) return recent;
  if (older.view() != text) older = String(text);
  std::swap(recent, older);
  return recent;
}

}  // namespace platform
