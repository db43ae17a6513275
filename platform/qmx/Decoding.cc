// The decoder takes one item head after the other and builds values itself. Short heads, which most are, it
// reads itself; everything else comes from the library's streaming decoder. Model: `owed_` is the number of
// bytes that the containers begun so far need at least for what they still declare (one per item); a count
// that would raise it above the bytes left is malformed, however the counts are nested. Storage is made when
// a container is complete, of the exact size.

#include <cbor/callbacks.h>
#include <cbor/streaming.h>

#include <iterator>
#include <utility>

#include "platform/qmx/Encoding.h"
#include "platform/qmx/EncodingTags.h"
#include "platform/qmx/Limits.h"
#include "platform/value/UTF8.h"

namespace platform::qmx {

namespace {

/// One item as the library's decoder reports it: a scalar, or the head of something.
struct Item {
  enum class Kind : uint8_t {
    malformed,
    unsignedInteger,
    negativeInteger,
    data,
    text,
    array,
    map,
    tag,
    real,
    boolean,
    null,
  };
  Kind kind = Kind::malformed;
  /// The integer (of a negative one -1 - argument), count, tag or boolean.
  uint64_t argument = 0;
  double real = 0;
  std::span<const uint8_t> bytes;
};

template <Item::Kind kind, typename T>
void takeArgument(void* item, T argument) {
  static_cast<Item*>(item)->kind = kind;
  static_cast<Item*>(item)->argument = argument;
}

template <Item::Kind kind>
void takeBytes(void* item, cbor_data bytes, size_t size) {
  static_cast<Item*>(item)->kind = kind;
  static_cast<Item*>(item)->bytes = {bytes, size};
}

template <typename T>
void takeReal(void* item, T real) {
  static_cast<Item*>(item)->kind = Item::Kind::real;
  static_cast<Item*>(item)->real = static_cast<double>(real);
}

void takeNull(void* item) {
  static_cast<Item*>(item)->kind = Item::Kind::null;
}

void takeMalformed(void* item) {
  static_cast<Item*>(item)->kind = Item::Kind::malformed;
}

constexpr cbor_callbacks kCallbacks = {
    .uint8 = takeArgument<Item::Kind::unsignedInteger, uint8_t>,
    .uint16 = takeArgument<Item::Kind::unsignedInteger, uint16_t>,
    .uint32 = takeArgument<Item::Kind::unsignedInteger, uint32_t>,
    .uint64 = takeArgument<Item::Kind::unsignedInteger, uint64_t>,
    .negint64 = takeArgument<Item::Kind::negativeInteger, uint64_t>,
    .negint32 = takeArgument<Item::Kind::negativeInteger, uint32_t>,
    .negint16 = takeArgument<Item::Kind::negativeInteger, uint16_t>,
    .negint8 = takeArgument<Item::Kind::negativeInteger, uint8_t>,
    .byte_string_start = takeMalformed,
    .byte_string = takeBytes<Item::Kind::data>,
    .string = takeBytes<Item::Kind::text>,
    .string_start = takeMalformed,
    .indef_array_start = takeMalformed,
    .array_start = takeArgument<Item::Kind::array, size_t>,
    .indef_map_start = takeMalformed,
    .map_start = takeArgument<Item::Kind::map, size_t>,
    .tag = takeArgument<Item::Kind::tag, uint64_t>,
    .float2 = takeReal<float>,
    .float4 = takeReal<float>,
    .float8 = takeReal<double>,
    .undefined = takeMalformed,
    .null = takeNull,
    .boolean = takeArgument<Item::Kind::boolean, bool>,
    .indef_break = takeMalformed,
};

/// What the containers begun so far hold already, the inner ones' last. One for each thread: messages come in
/// great number and are small.
struct Scratch {
  std::vector<Value> values;
  std::vector<Dictionary::Entry> entries;

  static Scratch& mine() {
    thread_local Scratch scratch;
    return scratch;
  }
  void clear() {
    constexpr size_t kKept = 256;
    values.clear();
    entries.clear();
    if (values.capacity() > kKept) values = std::vector<Value>();
    if (entries.capacity() > kKept) entries = std::vector<Dictionary::Entry>();
  }
};

class Decoder {
 public:
  explicit Decoder(std::span<const uint8_t> bytes) : at_(bytes.data()), end_(at_ + bytes.size()) {}
  Decoder(const Decoder&) = delete;
  Decoder& operator=(const Decoder&) = delete;
  ~Decoder() { scratch_.clear(); }

  bool isAtEnd() const { return at_ == end_; }

  /// Decodes one item into `value`, which is none for a null. False: malformed.
  bool decode(Value& value, int nesting) {
    Item item;
    if (!take(item)) return false;
    switch (item.kind) {
      case Item::Kind::unsignedInteger:
        value = Value(item.argument);
        return true;
      case Item::Kind::negativeInteger:
        if (item.argument > static_cast<uint64_t>(INT64_MAX)) return false;
        value = Value(-1 - static_cast<int64_t>(item.argument));
        return true;
      case Item::Kind::data:
        value = Value(Data(item.bytes));
        return true;
      case Item::Kind::text:
        if (!isValidText(text(item))) return false;
        value = Value(String(text(item)));
        return true;
      case Item::Kind::array:
        return decodeArray(item.argument, value, nesting);
      case Item::Kind::map:
        return decodeMap(item.argument, value, nesting);
      case Item::Kind::tag:
        return decodeTagged(item.argument, value);
      case Item::Kind::real:
        value = Value(item.real);
        return true;
      case Item::Kind::boolean:
        value = Value(item.argument != 0);
        return true;
      case Item::Kind::null:
        value = Value();
        return true;
      case Item::Kind::malformed:
        break;
    }
    return false;
  }

 private:
  /// Takes an integer, string or container head that is one byte or has its argument in one more.
  bool takeShort(Item& item) {
    constexpr Item::Kind kKinds[] = {Item::Kind::unsignedInteger,
                                     Item::Kind::negativeInteger,
                                     Item::Kind::data,
                                     Item::Kind::text,
                                     Item::Kind::array,
                                     Item::Kind::map};
    constexpr uint8_t kInNextByte = 24;
    if (at_ == end_) return false;
    const uint8_t major = *at_ >> 5;
    const uint8_t low = *at_ & 31;
    const size_t head = low == kInNextByte ? 2 : 1;
    if (major >= std::size(kKinds) || low > kInNextByte || bytesLeft() < head) return false;
    item.kind = kKinds[major];
    item.argument = at_[head - 1] & (head == 1 ? 31 : 255);
    if (item.kind != Item::Kind::data && item.kind != Item::Kind::text) {
      at_ += head;
      return true;
    }
    if (bytesLeft() - head < item.argument) return false;
    item.bytes = {at_ + head, static_cast<size_t>(item.argument)};
    at_ += head + item.argument;
    return true;
  }

  bool take(Item& item) {
    if (takeShort(item)) return true;
    const cbor_decoder_result result = cbor_stream_decode(at_, bytesLeft(), &kCallbacks, &item);
    if (result.status != CBOR_DECODER_FINISHED) return false;
    at_ += result.read;
    return item.kind != Item::Kind::malformed;
  }

  size_t bytesLeft() const { return static_cast<size_t>(end_ - at_); }

  static std::string_view text(const Item& item) {
    return {reinterpret_cast<const char*>(item.bytes.data()), item.bytes.size()};
  }

  /// Enters a container of `count` elements of `itemsEach` items each.
  bool enter(uint64_t count, size_t itemsEach, int nesting) {
    if (nesting <= 0 || owed_ > bytesLeft()) return false;
    if (count > (bytesLeft() - owed_) / itemsEach) return false;
    owed_ += static_cast<size_t>(count) * itemsEach;
    return true;
  }

  bool decodeArray(uint64_t count, Value& value, int nesting) {
    if (!enter(count, 1, nesting)) return false;
    std::vector<Value>& values = scratch_.values;
    const size_t base = values.size();
    for (; count > 0; --count) {
      --owed_;
      Value element;
      if (!decode(element, nesting - 1) || element.isNone()) return false;
      values.push_back(std::move(element));
    }
    value = Array::taking(std::span(values).subspan(base));
    values.resize(base);
    return true;
  }

  bool decodeMap(uint64_t count, Value& value, int nesting) {
    if (!enter(count, 2, nesting)) return false;
    std::vector<Dictionary::Entry>& entries = scratch_.entries;
    const size_t base = entries.size();
    for (; count > 0; --count) {
      owed_ -= 2;
      Item key;
      if (!take(key) || key.kind != Item::Kind::text || !isValidText(text(key))) return false;
      Dictionary::Entry entry{String::interned(text(key)), {}};
      if (!decode(entry.value, nesting - 1)) return false;
      entries.push_back(std::move(entry));
    }
    std::optional<Dictionary> dictionary = Dictionary::taking(std::span(entries).subspan(base));
    if (!dictionary) return false;
    entries.resize(base);
    value = std::move(*dictionary);
    return true;
  }

  bool decodeTagged(uint64_t tag, Value& value) {
    Item item;
    if (!take(item)) return false;
    if (tag == kDateTag) {
      if (item.kind == Item::Kind::real) {
        value = Date{item.real};
      } else if (item.kind == Item::Kind::unsignedInteger) {
        value = Date{static_cast<double>(item.argument)};
      } else if (item.kind == Item::Kind::negativeInteger) {
        value = Date{-1.0 - static_cast<double>(item.argument)};
      } else {
        return false;
      }
      return true;
    }
    if (item.kind != Item::Kind::data) return false;
    if (tag == kUUIDTag) {
      value = UUID::fromBytes(item.bytes);
      return !value.isNone();
    }
    if (tag != kEncodedTag) return false;
    const Data contents(item.bytes);
    value = EncodedPropertyList({{contents, contents.bytes()}});
    return true;
  }

  const uint8_t* at_;
  const uint8_t* end_;
  size_t owed_ = 0;
  Scratch& scratch_ = Scratch::mine();
};

}  // namespace

std::optional<Value> decode(std::span<const uint8_t> bytes, int nesting) {
  Decoder decoder(bytes);
  Value value;
  if (!decoder.decode(value, nesting) || !decoder.isAtEnd() || value.isNone()) return std::nullopt;
  return value;
}

std::optional<Value> decodePropertyList(const EncodedPropertyList& list) {
  const auto pieces = list.pieces();
  if (pieces.size() == 1) return decode(pieces.front().bytes, kMaximumNesting);
  const std::string all = list.joined();
  return decode(std::span(reinterpret_cast<const uint8_t*>(all.data()), all.size()), kMaximumNesting);
}

}  // namespace platform::qmx
