#include "platform/qmx/Encoding.h"

// The decoder takes one item head after the other and builds values itself. Short heads, which most are, it
// reads itself; everything else comes from the library's streaming decoder. Model: `owed_` is the number of
// bytes that the containers begun so far need at least for what they still declare (one per item); a count
// that would raise it above the bytes left is malformed, however the counts are nested. Storage is made when
// a container is complete, of the exact size.

#include <cbor/callbacks.h>
#include <cbor/encoding.h>
#include <cbor/streaming.h>

#include <cstring>
#include <iterator>
#include <utility>

#include "platform/qmx/Limits.h"
#include "platform/value/UTF8.h"

namespace platform::qmx {

namespace {

constexpr uint64_t kDateTag = 1;
constexpr uint64_t kEncodedTag = 24;
constexpr uint64_t kUUIDTag = 37;

constexpr size_t kMaximumHead = 9;
/// Fresh bytes of a list that are collected before they are given to their pieces.
constexpr size_t kFreshChunk = 64u << 10;

// --- Decoding ---

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

// --- Encoding ---

/// Writes items. Small ones are collected here and handed on many at once; asking the string for room for
/// each would cost more than writing it.
class Encoder {
 public:
  explicit Encoder(std::string& out) : out_(out) {}
  Encoder(const Encoder&) = delete;
  Encoder& operator=(const Encoder&) = delete;
  ~Encoder() { flush(); }

  /// Hands on what is collected.
  void flush() {
    out_.append(reinterpret_cast<const char*>(buffer_), used_);
    used_ = 0;
  }

  /// A head or a scalar, by one of the library's functions.
  template <typename T>
  void head(size_t (*encode)(T, unsigned char*, size_t), T argument) {
    if (sizeof buffer_ - used_ < kMaximumHead) flush();
    used_ += encode(argument, buffer_ + used_, sizeof buffer_ - used_);
  }

  void bytes(std::span<const uint8_t> bytes) {
    if (bytes.size() > sizeof buffer_ - used_) flush();
    if (bytes.size() > sizeof buffer_) {
      out_.append(reinterpret_cast<const char*>(bytes.data()), bytes.size());
    } else if (!bytes.empty()) {
      std::memcpy(buffer_ + used_, bytes.data(), bytes.size());
      used_ += bytes.size();
    }
  }

  void text(std::string_view text) {
    head(cbor_encode_string_start, text.size());
    bytes({reinterpret_cast<const uint8_t*>(text.data()), text.size()});
  }

  void entries(const Dictionary& dictionary) {
    for (const auto& [key, element] : dictionary) {
      text(key);
      value(element);
    }
  }

  void value(const Value& value) {
    switch (value.kind()) {
      case Value::Kind::none:
        if (sizeof buffer_ - used_ < kMaximumHead) flush();
        used_ += cbor_encode_null(buffer_ + used_, sizeof buffer_ - used_);
        break;
      case Value::Kind::boolean:
        head(cbor_encode_bool, *value.boolean());
        break;
      case Value::Kind::integer:
        integer(value.integerValue());
        break;
      case Value::Kind::unsignedInteger:
        head(cbor_encode_uint, value.unsignedValue());
        break;
      case Value::Kind::real:
        head(cbor_encode_double, *value.real());
        break;
      case Value::Kind::string:
        text(value.sharedString()->view());
        break;
      case Value::Kind::data:
        head(cbor_encode_bytestring_start, value.data()->size());
        bytes(value.data()->bytes());
        break;
      case Value::Kind::date:
        head(cbor_encode_tag, kDateTag);
        head(cbor_encode_double, value.date()->secondsSince1970);
        break;
      case Value::Kind::uuid: {
        const UUID uuid = *value.uuid();
        head(cbor_encode_tag, kUUIDTag);
        head(cbor_encode_bytestring_start, uuid.bytes().size());
        bytes(uuid.bytes());
        break;
      }
      case Value::Kind::array:
        head(cbor_encode_array_start, value.array()->size());
        for (const Value& element : *value.array()) this->value(element);
        break;
      case Value::Kind::dictionary:
        dictionary(*value.dictionary());
        break;
      case Value::Kind::encoded:
        head(cbor_encode_tag, kEncodedTag);
        head(cbor_encode_bytestring_start, value.encoded()->size());
        for (const auto& piece : value.encoded()->pieces()) bytes(piece.bytes);
        break;
    }
  }

 private:
  void integer(int64_t integer) {
    if (integer >= 0) {
      head(cbor_encode_uint, static_cast<uint64_t>(integer));
    } else {
      head(cbor_encode_negint, static_cast<uint64_t>(-1 - integer));
    }
  }

  void dictionary(const Dictionary& dictionary) {
    if (dictionary.size() >= kWorthRepeating && repeat(dictionary)) return;
    const size_t from = out_.size() + used_;
    head(cbor_encode_map_start, dictionary.size());
    entries(dictionary);
    if (dictionary.size() < kWorthRepeating) return;
    written_[next_] = {&dictionary, from, out_.size() + used_ - from};
    next_ = (next_ + 1) % std::size(written_);
  }

  /// Copies the encoding of the very same dictionary, when it was written a moment ago.
  bool repeat(const Dictionary& dictionary) {
    for (const Written& each : written_) {
      if (each.dictionary == nullptr || !each.dictionary->isSameObject(dictionary)) continue;
      flush();
      out_.append(out_, each.from, each.size);
      return true;
    }
    return false;
  }

  /// A dictionary that is a part of what is being encoded, and where its encoding stands in the output.
  struct Written {
    const Dictionary* dictionary = nullptr;
    size_t from = 0, size = 0;
  };
  static constexpr size_t kWorthRepeating = 4;  // entries

  std::string& out_;
  size_t used_ = 0;
  // A plug-in's form holds its dictionary twice. The last few that were completed.
  Written written_[4];
  size_t next_ = 0;
  unsigned char buffer_[1024];
};

}  // namespace

void encode(const Value& value, std::string& out) {
  Encoder(out).value(value);
}

Data encoded(const Value& value) {
  std::string out;
  encode(value, out);
  return Data(out);
}

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

EncodedPropertyList encodePropertyList(const Value& value) {
  const Data contents = encoded(value);
  return EncodedPropertyList({{contents, contents.bytes()}});
}

Data encodeEntries(const Dictionary& dictionary) {
  // Parts of replies are made in great number and are small: their bytes are collected in the same place.
  constexpr size_t kMostSpare = 64u << 10;
  thread_local std::string out;
  out.clear();
  Encoder(out).entries(dictionary);
  Data part{std::string_view(out)};
  if (out.capacity() > kMostSpare) out = std::string();
  return part;
}

// --- EncodedListBuilder ---

void EncodedListBuilder::beginArray(size_t count) {
  // Mostly an element is a kept part and what is fresh around it.
  pieces_.reserve(pieces_.size() + 2 * count + 1);
  const size_t from = fresh_.size();
  Encoder(fresh_).head(cbor_encode_array_start, count);
  extendFresh(from);
}

void EncodedListBuilder::beginMap(size_t count) {
  if (fresh_.size() >= kFreshChunk) seal();
  const size_t from = fresh_.size();
  Encoder(fresh_).head(cbor_encode_map_start, count);
  extendFresh(from);
}

void EncodedListBuilder::value(const Value& value) {
  const size_t from = fresh_.size();
  encode(value, fresh_);
  extendFresh(from);
}

void EncodedListBuilder::entry(std::string_view key, const Value& value) {
  const size_t from = fresh_.size();
  Encoder encoder(fresh_);
  encoder.text(key);
  encoder.value(value);
  encoder.flush();
  extendFresh(from);
}

void EncodedListBuilder::kept(const Data& part) {
  if (!part.empty()) pieces_.push_back({part, part.bytes()});
}

void EncodedListBuilder::extendFresh(size_t from) {
  const size_t size = fresh_.size() - from;
  // Fresh bytes that follow one another are one piece.
  if (!pending_.empty() && pending_.back().piece + 1 == pieces_.size()) {
    pending_.back().size += size;
  } else {
    pending_.push_back({pieces_.size(), from, size});
    pieces_.emplace_back();
  }
}

/// Gives the fresh bytes to their pieces. Done in between, a long list touches the same memory again and
/// again instead of ever more that is fresh from the system.
void EncodedListBuilder::seal() {
  const Data chunk{std::string_view(fresh_)};
  for (const Pending& each : pending_)
    pieces_[each.piece] = {chunk, chunk.bytes().subspan(each.offset, each.size)};
  fresh_.clear();
  pending_.clear();
}

EncodedPropertyList EncodedListBuilder::finish() {
  seal();
  return EncodedPropertyList(std::exchange(pieces_, {}));
}

}  // namespace platform::qmx
