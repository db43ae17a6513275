// Interned strings: a small table per thread, so that no lock is taken and nothing that one thread does makes
// another wait. Each place of the table has room for two strings; the one that was asked for last stays
// longest. Strings that nobody else holds any more are dropped when their place is needed. Those that are
// asked for again and again are kept for ever, up to a number, which spares counting their holders.

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdint>
#include <cstring>
#include <utility>

#include "platform/value/Value.h"

namespace platform {

namespace {

/// Longer strings are hardly ever equal to others.
constexpr size_t kLongestInterned = 64;
constexpr size_t kPlaces = 1024;

/// How often a string is asked for before it is kept for ever, and how many are at most.
constexpr uint32_t kOften = 8;
constexpr uint32_t kMostForever = 4096;

struct Kept {
  uint32_t tag = 0;  // a part of the hash, so that other strings are not looked at
  uint32_t count = 0;
  String string;
};

struct Place {
  Kept recent, older;
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

/// Takes every byte of up to 32 and, of longer strings, both ends. Without a loop, whose length nothing could
/// predict. REQUIRES: `text` is not empty.
uint64_t hash(std::string_view text) {
  const char* const begin = text.data();
  const size_t size = text.size();
  uint64_t a, b, c = 0, d = 0;
  if (size >= 8) {
    const size_t last = size - 8;
    a = load<uint64_t>(begin);
    b = load<uint64_t>(begin + last);
    c = load<uint64_t>(begin + std::min<size_t>(8, last));
    d = load<uint64_t>(begin + (last > 8 ? last - 8 : 0));
  } else if (size >= 4) {
    a = load<uint32_t>(begin);
    b = load<uint32_t>(begin + size - 4);
  } else {
    a = load<uint8_t>(begin) | load<uint8_t>(begin + size / 2) << 8;
    b = load<uint8_t>(begin + size - 1);
  }
  const uint64_t sum = (a ^ size) * 0x9E3779B97F4A7C15ULL + b * 0xC2B2AE3D27D4EB4FULL +
                       c * 0xD6E8FEB86659FD93ULL + d * 0xA0761D6478BD642FULL;
  return (sum ^ sum >> 32) * 0x9E3779B97F4A7C15ULL;
}

}  // namespace

void String::keepForever() {
  // They are listed, so that they are not mistaken for forgotten memory.
  static std::array<std::atomic<const void*>, kMostForever> all;
  static std::atomic<uint32_t> count = 0;
  if (count.load(std::memory_order_relaxed) >= kMostForever) return;
  const uint32_t index = count.fetch_add(1, std::memory_order_relaxed);
  if (index >= kMostForever) return;
  data_.node_->references.fetch_or(detail::Counted::kForever, std::memory_order_relaxed);
  all[index].store(data_.node_.get(), std::memory_order_relaxed);
}

String String::interned(std::string_view text) {
  if (text.empty() || text.size() > kLongestInterned) return String(text);
  if (table == nullptr && !makeTable()) return String(text);
  const uint64_t sum = hash(text);
  auto& [recent, older] = table->places[sum >> 32 & (kPlaces - 1)];
  const auto tag = static_cast<uint32_t>(sum);
  if (recent.tag != tag || recent.string.view() != text) {
    if (older.tag != tag || older.string.view() != text) older = {.tag = tag, .count = 0, .string = text};
    std::swap(recent, older);
  }
  if (recent.count < kOften && ++recent.count == kOften) recent.string.keepForever();
  return recent.string;
}

}  // namespace platform
