#pragma once

// Values to and from CBOR (RFC 8949), the deterministic subset that the wire uses: definite lengths, text
// keys, no key twice, no none values; dates are tag 1 with float64, UUIDs tag 37, encoded property lists
// tag 24. Pure functions over bytes, usable from any thread; decoding never trusts a declared size and never
// recurses deeper than kMaximumNesting.

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "platform/value/Value.h"

namespace platform::qmx {

/// Appends the encoding of `value` to `out`. A none value is encoded as null. Of an encoded property list the
/// pieces are copied.
void encode(const Value& value, std::string& out);

/// The encoding of `value` as bytes that can be kept and shared.
Data encoded(const Value& value);

/// Decodes exactly one item that fills `bytes`; none when it is malformed. `nesting` is the number of
/// containers that may stand inside each other. Map entries with null values are left out.
std::optional<Value> decode(std::span<const uint8_t> bytes, int nesting);

/// The property list that an encoded one holds; none when it is malformed.
std::optional<Value> decodePropertyList(const EncodedPropertyList& list);

/// Wraps `value` as an encoded property list (message value of tag 24).
EncodedPropertyList encodePropertyList(const Value& value);

/// Joins an encoded property list from kept parts and fresh entries without copying the kept ones. Usage:
/// beginArray(n), then n times { beginMap(k), k entries by entry() or kept() }.
class EncodedListBuilder {
 public:
  void beginArray(size_t count);
  void beginMap(size_t count);
  void value(const Value& value);
  void entry(std::string_view key, const Value& value);
  /// `part` holds the encodings of some whole entries of the current map (see encodeEntries()).
  void kept(const Data& part);
  EncodedPropertyList finish();

 private:
  /// A piece whose bytes are in fresh_ still.
  struct Pending {
    size_t piece = 0, offset = 0, size = 0;
  };
  void extendFresh(size_t from);
  void seal();
  std::string fresh_;
  std::vector<EncodedPropertyList::Piece> pieces_;
  std::vector<Pending> pending_;
};

/// The encodings of all entries of `dictionary` one after the other, without a map head.
Data encodeEntries(const Dictionary& dictionary);

}  // namespace platform::qmx
