#include "platform/value/UTF8.h"

#include <cstring>

namespace platform {

namespace {

constexpr uint64_t kHighBits = 0x8080808080808080ULL;
constexpr uint64_t kLowBits = 0x0101010101010101ULL;

uint64_t load(const char* at) {
  uint64_t word;
  std::memcpy(&word, at, sizeof word);
  return word;
}

/// A bit is set somewhere when one of the eight bytes is below `limit` (at most 128). REQUIRES: no byte has
/// its high bit set.
constexpr uint64_t anyBelow(uint64_t word, uint64_t limit) {
  return (word - kLowBits * limit) & kHighBits;
}

/// The length of the well-formed sequence at `at`, whose first byte is not ASCII; 0 when there is none.
size_t sequenceLength(const unsigned char* at, const unsigned char* end) {
  const auto isContinuation = [&](size_t i) { return (at[i] & 0xC0) == 0x80; };
  const auto left = static_cast<size_t>(end - at);
  const unsigned char first = at[0];
  if (first < 0xC2 || first > 0xF4) return 0;
  if (first < 0xE0) return left >= 2 && isContinuation(1) ? 2 : 0;
  if (first < 0xF0) {
    if (left < 3 || !isContinuation(1) || !isContinuation(2)) return 0;
    if (first == 0xE0 && at[1] < 0xA0) return 0;  // longer than needed
    if (first == 0xED && at[1] > 0x9F) return 0;  // a surrogate
    return 3;
  }
  if (left < 4 || !isContinuation(1) || !isContinuation(2) || !isContinuation(3)) return 0;
  if (first == 0xF0 && at[1] < 0x90) return 0;
  if (first == 0xF4 && at[1] > 0x8F) return 0;  // above U+10FFFF
  return 4;
}

/// Sixteen bytes that are compared at once (to 0 or -1 each); signed, so that whatever is not ASCII is
/// negative.
using Lane = int8_t __attribute__((vector_size(16)));
constexpr size_t kBlock = 4 * sizeof(Lane);

/// Whether a whole block is ASCII of at least `plainFrom` (and, where that is a blank, tabs and line feeds).
template <int8_t plainFrom>
bool isPlainBlock(const char* at) {
  Lane lanes[kBlock / sizeof(Lane)];
  std::memcpy(lanes, at, sizeof lanes);
  const auto bad = [](Lane bytes) {
    if constexpr (plainFrom == 0x20) {
      return (bytes < plainFrom) ^ ((bytes == '\t') | (bytes == '\n'));
    } else {
      return bytes < plainFrom;
    }
  };
  const Lane all = (bad(lanes[0]) | bad(lanes[1])) | (bad(lanes[2]) | bad(lanes[3]));
  uint64_t words[2];
  std::memcpy(words, &all, sizeof words);
  return (words[0] | words[1]) == 0;
}

/// Walks `text`. Plain ASCII bytes of at least `plainFrom` are taken many at once; `accepts` judges every
/// other sequence (pointer and length).
template <int8_t plainFrom, typename Accepts>
bool isMadeOf(std::string_view text, Accepts accepts) {
  const char* at = text.data();
  const char* const end = at + text.size();
  while (at != end) {
    while (end - at >= static_cast<ptrdiff_t>(kBlock) && isPlainBlock<plainFrom>(at)) at += kBlock;
    while (end - at >= 8) {
      const uint64_t word = load(at);
      if ((word & kHighBits) != 0) break;
      if constexpr (plainFrom > 0) {
        if (anyBelow(word, plainFrom) != 0) break;
      }
      at += 8;
    }
    if (at == end) break;
    // Up to a word's worth of other characters, then many at once again.
    for (const char* const until = end - at > 8 ? at + 8 : end; at < until;) {
      size_t length = 1;
      if (static_cast<unsigned char>(*at) >= 0x80) {
        length = sequenceLength(reinterpret_cast<const unsigned char*>(at),
                                reinterpret_cast<const unsigned char*>(end));
        if (length == 0) return false;
      }
      if (!accepts(reinterpret_cast<const unsigned char*>(at), length)) return false;
      at += length;
    }
  }
  return true;
}

/// Whether `text` is ASCII without a NUL. Without a loop, for what most texts are. REQUIRES: 1 to 16 bytes.
bool isShortPlainText(std::string_view text) {
  const auto half = [](const char* at) {
    uint32_t word;
    std::memcpy(&word, at, sizeof word);
    return uint64_t{word};
  };
  const char* const begin = text.data();
  const char* const end = begin + text.size();
  uint64_t first, last;
  if (text.size() >= 8) {
    first = load(begin);
    last = load(end - 8);
  } else if (text.size() >= 4) {
    first = last = half(begin) | half(end - 4) << 32;
  } else {
    const auto byte = [](char c) { return uint64_t{static_cast<unsigned char>(c)}; };
    first = last = (kLowBits << 24) | byte(*begin) | byte(begin[text.size() / 2]) << 8 | byte(end[-1]) << 16;
  }
  return ((first | last) & kHighBits) == 0 && (anyBelow(first, 1) | anyBelow(last, 1)) == 0;
}

}  // namespace

bool isValidUTF8(std::string_view text) {
  return isMadeOf<0>(text, [](const unsigned char*, size_t) { return true; });
}

bool isValidText(std::string_view text) {
  if (text.size() - 1 < 16 && isShortPlainText(text)) return true;
  return isMadeOf<1>(text, [](const unsigned char* at, size_t) { return *at != 0; });
}

bool isValidXMLText(std::string_view text) {
  return isMadeOf<0x20>(text, [](const unsigned char* at, size_t length) {
    if (length == 1) return *at >= 0x20 || *at == '\t' || *at == '\n' || *at == '\r';
    return !(length == 3 && at[0] == 0xEF && at[1] == 0xBF && at[2] >= 0xBE);
  });
}

bool appendCodePoint(uint32_t point, std::string& out) {
  const auto append = [&](uint32_t byte) { out += static_cast<char>(static_cast<unsigned char>(byte)); };
  if (point > 0x10FFFF || (point >= 0xD800 && point < 0xE000)) return false;
  if (point < 0x80) {
    append(point);
  } else if (point < 0x800) {
    append(0xC0 | point >> 6);
    append(0x80 | (point & 0x3F));
  } else if (point < 0x10000) {
    append(0xE0 | point >> 12);
    append(0x80 | (point >> 6 & 0x3F));
    append(0x80 | (point & 0x3F));
  } else {
    append(0xF0 | point >> 18);
    append(0x80 | (point >> 12 & 0x3F));
    append(0x80 | (point >> 6 & 0x3F));
    append(0x80 | (point & 0x3F));
  }
  return true;
}

bool appendUTF16(std::span<const uint8_t> bigEndian, std::string& out) {
  if (bigEndian.size() % 2 != 0) return false;
  const auto unit = [&](size_t i) { return static_cast<uint32_t>(bigEndian[i] << 8 | bigEndian[i + 1]); };
  for (size_t i = 0; i < bigEndian.size(); i += 2) {
    uint32_t point = unit(i);
    if (point >= 0xDC00 && point < 0xE000) return false;
    if (point >= 0xD800 && point < 0xDC00) {
      if (i + 2 >= bigEndian.size()) return false;
      const uint32_t low = unit(i + 2);
      if (low < 0xDC00 || low >= 0xE000) return false;
      point = 0x10000 + ((point - 0xD800) << 10) + (low - 0xDC00);
      i += 2;
    }
    appendCodePoint(point, out);
  }
  return true;
}

}  // namespace platform
