// Interned strings: a small table per thread, so that no lock is taken and nothing that one thread does makes
// another wait. Each place of the table has room for two strings; the one that was asked for last stays
// longest. Strings that nobody else holds any more are dropped when their place is needed.

#include <array>
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

uint64_t hash(std::string_view text) {
  constexpr uint64_t kFactor = 0x9E3779B97F4A7C15ULL;
  uint64_t sum = text.size() * kFactor;
  while (!text.empty()) {
    uint64_t word = 0;
    const size_t size = text.size() < sizeof word ? text.size() : sizeof word;
    std::memcpy(&word, text.data(), size);
    sum = (sum ^ word) * kFactor;
    sum ^= sum >> 32;
    text.remove_prefix(size);
  }
  return sum;
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
