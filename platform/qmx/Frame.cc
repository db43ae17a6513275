#include "platform/qmx/Frame.h"

#include "platform/qmx/Encoding.h"
#include "platform/qmx/EncodingTags.h"
#include "platform/qmx/Limits.h"

namespace platform::qmx {

namespace {

enum MajorType : uint8_t { unsignedInteger = 0, byteString = 2, array = 4, map = 5, tag = 6 };

constexpr uint64_t kEnvelopeElements = 3;

// An argument stands in the head itself up to this; the four values that follow announce 1, 2, 4 or 8 bytes.
constexpr uint8_t kLargestInHead = 23;

/// A head's longest form.
constexpr size_t kLongestHead = 9;

/// Writes a head to `out` and answers its end.
char* putHead(char* out, MajorType type, uint64_t argument) {
  const auto first = static_cast<uint8_t>(type << 5);
  if (argument <= kLargestInHead) {
    *out++ = static_cast<char>(first | argument);
    return out;
  }
  const int sizeCode = argument <= UINT8_MAX    ? 0
                       : argument <= UINT16_MAX ? 1
                       : argument <= UINT32_MAX ? 2
                                                : 3;
  *out++ = static_cast<char>(first | (kLargestInHead + 1 + sizeCode));
  for (int shift = (8 << sizeCode) - 8; shift >= 0; shift -= 8) *out++ = static_cast<char>(argument >> shift);
  return out;
}

/// Takes one head of `type` from the front of `bytes`; none when something else stands there.
std::optional<uint64_t> takeHead(std::span<const uint8_t>& bytes, MajorType type) {
  if (bytes.empty() || bytes[0] >> 5 != type) return std::nullopt;
  const uint8_t low = bytes[0] & 31;
  bytes = bytes.subspan(1);
  if (low <= kLargestInHead) return low;
  const int sizeCode = low - kLargestInHead - 1;
  const size_t size = size_t{1} << (sizeCode & 3);
  if (sizeCode > 3 || bytes.size() < size) return std::nullopt;
  uint64_t argument = 0;
  for (const uint8_t byte : bytes.first(size)) argument = argument << 8 | byte;
  bytes = bytes.subspan(size);
  return argument;
}

}  // namespace

uint32_t frameLength(const uint8_t* field) {
  return uint32_t{field[0]} << 24 | uint32_t{field[1]} << 16 | uint32_t{field[2]} << 8 | field[3];
}

void setFrameLength(char* field, uint32_t length) {
  for (size_t i = 0; i < kLengthField; ++i) field[i] = static_cast<char>(length >> (24 - 8 * i));
}

std::optional<Frame> decodeFrame(std::span<const uint8_t> contents) {
  if (takeHead(contents, MajorType::array) != kEnvelopeElements) return std::nullopt;
  const auto kind = takeHead(contents, MajorType::unsignedInteger);
  if (!kind || *kind > static_cast<uint64_t>(FrameKind::reply)) return std::nullopt;
  const auto id = takeHead(contents, MajorType::unsignedInteger);
  if (!id) return std::nullopt;
  std::optional<Value> body = decode(contents, kMaximumNesting - 1);
  if (!body) return std::nullopt;
  return Frame{.kind = static_cast<FrameKind>(*kind), .id = *id, .body = std::move(*body)};
}

void appendEnvelope(std::string& out, FrameKind kind, uint64_t id, size_t count) {
  char heads[4 * kLongestHead];
  char* end = putHead(heads, MajorType::array, kEnvelopeElements);
  end = putHead(end, MajorType::unsignedInteger, static_cast<uint64_t>(kind));
  end = putHead(end, MajorType::unsignedInteger, id);
  end = putHead(end, MajorType::map, count);
  out.append(heads, end);
}

void appendEncodedHead(std::string& out, size_t size) {
  char heads[2 * kLongestHead];
  char* end = putHead(heads, MajorType::tag, kEncodedTag);
  end = putHead(end, MajorType::byteString, size);
  out.append(heads, end);
}

}  // namespace platform::qmx
