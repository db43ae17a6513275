#include "platform/qmx/Encoding.h"

#include <cbor/encoding.h>

#include <cstring>
#include <iterator>
#include <utility>

#include "platform/qmx/EncodingTags.h"

namespace platform::qmx {

namespace {

constexpr size_t kMaximumHead = 9;
/// Fresh bytes of a list that are collected before they are given to their pieces.
constexpr size_t kFreshChunk = 64u << 10;

/// Writes items. Small ones are collected here and handed on many at once; asking the string for room for
/// each would cost more than writing it.
class Encoder {
 public:
  explicit Encoder(std::string& out) : out_(out) {}
  Encoder(const Encoder&) = delete;
  Encoder& operator=(const Encoder&) = delete;

  /// Hands on what is collected; the last call of all, which may lack memory.
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

void appendHead(size_t (*encode)(size_t, unsigned char*, size_t), size_t count, std::string& out) {
  Encoder encoder(out);
  encoder.head(encode, count);
  encoder.flush();
}

}  // namespace

void encode(const Value& value, std::string& out) {
  Encoder encoder(out);
  encoder.value(value);
  encoder.flush();
}

Data encoded(const Value& value) {
  std::string out;
  encode(value, out);
  return Data(out);
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
  Encoder encoder(out);
  encoder.entries(dictionary);
  encoder.flush();
  Data part{std::string_view(out)};
  if (out.capacity() > kMostSpare) out = std::string();
  return part;
}

// --- EncodedListBuilder ---

void EncodedListBuilder::beginArray(size_t count) {
  // Mostly an element is a kept part and what is fresh around it.
  pieces_.reserve(pieces_.size() + 2 * count + 1);
  const size_t from = fresh_.size();
  appendHead(cbor_encode_array_start, count, fresh_);
  extendFresh(from);
}

void EncodedListBuilder::beginMap(size_t count) {
  if (fresh_.size() >= kFreshChunk) seal();
  const size_t from = fresh_.size();
  appendHead(cbor_encode_map_start, count, fresh_);
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
