// Any bytes as one encoded value and as a stream of frames: what is accepted is written back and read again
// without a change, its parts can be described and unpacked, and how a stream is cut makes no difference.

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "platform/qmx/Encoding.h"
#include "platform/qmx/Frame.h"
#include "platform/qmx/FrameReader.h"
#include "platform/qmx/Limits.h"
#include "platform/qmx/Message.h"

namespace {

using namespace platform;

std::span<const uint8_t> bytesOf(const std::string& text) {
  return {reinterpret_cast<const uint8_t*>(text.data()), text.size()};
}

void require(bool condition) {
  if (!condition) std::abort();
}

void checkRoundTrip(const Value& value, int nesting) {
  std::string first, second;
  qmx::encode(value, first);
  const std::optional<Value> again = qmx::decode(bytesOf(first), nesting);
  require(again.has_value() && again->kind() == value.kind());
  qmx::encode(*again, second);
  // Compared as bytes: NaN and encoded lists equal only themselves.
  require(first == second);
}

/// All bodies of the frames in `bytes`, encoded again, read in pieces of `pieceSize`.
std::string bodiesIn(std::span<const uint8_t> bytes, size_t pieceSize) {
  qmx::FrameReader reader(qmx::kMaximumRequestFrame, 0);
  std::string bodies;
  while (!bytes.empty() && !reader.isOversized()) {
    const std::span<uint8_t> space = reader.space();
    const size_t count = std::min({space.size(), bytes.size(), pieceSize});
    std::memcpy(space.data(), bytes.data(), count);
    reader.received(count);
    bytes = bytes.subspan(count);
    for (; reader.count() > 0; reader.pop()) {
      const std::optional<qmx::Frame> frame = qmx::decodeFrame(reader.front());
      if (!frame) return bodies + " malformed";
      qmx::encode(frame->body, bodies);
    }
  }
  return bodies + (reader.isOversized() ? " oversized" : reader.isInsideFrame() ? " unfinished" : "");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size > 0) require(bodiesIn({data, size}, SIZE_MAX) == bodiesIn({data, size}, 1 + data[0] % 16));
  const std::optional<Value> value = qmx::decode({data, size}, qmx::kMaximumNesting);
  if (!value) return 0;
  checkRoundTrip(*value, qmx::kMaximumNesting);
  if (const EncodedPropertyList* list = value->encoded()) {
    if (const std::optional<Value> contents = qmx::decodePropertyList(*list))
      checkRoundTrip(*contents, qmx::kMaximumNesting);
  }
  if (const Dictionary* body = value->dictionary()) {
    const qmx::Message message{.body = *body};
    (void)message.description();
    // Its entries, kept and joined, are the same dictionary.
    qmx::EncodedListBuilder builder;
    builder.beginMap(body->size());
    builder.kept(qmx::encodeEntries(*body));
    std::string whole;
    qmx::encode(*value, whole);
    require(builder.finish().joined() == whole);
  }
  return 0;
}
