// Any bytes as one encoded value: what is accepted is written back and read again without a change, and its
// parts can be described and unpacked.

#include <cstdint>
#include <cstdlib>
#include <string>

#include "platform/qmx/Encoding.h"
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

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
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
