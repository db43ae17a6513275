// Binary property lists ("bplist00"): a table of objects that refer to each other by number. Model: every
// object is built once, on first use, and shared by all that refer to it. What the list expands to when
// nothing is shared is kept beside each object (height, and size in bytes) and bounded, since a small file
// can name one object many times on each of many levels, and whoever walks or sends the list later walks all
// of it.

#include <algorithm>
#include <cstring>

#include "platform/propertylist/Readers.h"
#include "platform/value/UTF8.h"

namespace platform::detail {

namespace {

constexpr size_t kHeaderSize = 8;
constexpr size_t kTrailerSize = 32;
constexpr double k2001 = 978307200;  // 2001-01-01, from which dates count, in seconds since 1970
/// What a list may expand to: in small files anything moderate, in others what naming keys and strings again
/// and again saves at most, and never more than the largest file.
constexpr uint64_t kModerateExpansion = 256 << 10;
constexpr uint64_t kExpansionFactor = 64;

class Reader {
 public:
  explicit Reader(std::span<const uint8_t> bytes)
      : bytes_(bytes),
        largest_(std::clamp(kExpansionFactor * bytes.size(), kModerateExpansion, kMaximumAnnotationFile)) {}

  Result<Value> read() {
    if (!readTrailer()) return corrupt("a malformed table of objects");
    objects_.resize(static_cast<size_t>(count_));
    if (!build(top_, 0)) return corrupt(why_);
    return std::move(objects_[static_cast<size_t>(top_)].value);
  }

 private:
  struct Object {
    enum class State : uint8_t { unknown, building, built };
    Value value;
    uint64_t size = 0;
    uint16_t height = 0;
    State state = State::unknown;
  };

  bool fail(const char* why) {
    why_ = why;
    return false;
  }

  /// REQUIRES: at + size <= bytes_.size(), size <= 8.
  uint64_t number(size_t at, size_t size) const {
    uint64_t value = 0;
    for (size_t i = 0; i < size; ++i) value = value << 8 | bytes_[at + i];
    return value;
  }

  bool readTrailer() {
    if (bytes_.size() < kHeaderSize + 1 + kTrailerSize ||
        std::memcmp(bytes_.data(), "bplist00", kHeaderSize) != 0)
      return false;
    const size_t trailer = bytes_.size() - kTrailerSize;
    offsetSize_ = bytes_[trailer + 6];
    referenceSize_ = bytes_[trailer + 7];
    count_ = number(trailer + 8, 8);
    top_ = number(trailer + 16, 8);
    table_ = number(trailer + 24, 8);
    if (offsetSize_ < 1 || offsetSize_ > 8 || referenceSize_ < 1 || referenceSize_ > 8) return false;
    if (table_ <= kHeaderSize || table_ > trailer || top_ >= count_) return false;
    // Each object has at least one byte of its own.
    return count_ <= (trailer - table_) / offsetSize_ && count_ <= table_ - kHeaderSize;
  }

  /// Builds the object and all that it refers to. `depth` containers enclose it.
  bool build(uint64_t index, int depth) {
    Object& object = objects_[static_cast<size_t>(index)];
    if (object.state == Object::State::built) return true;
    if (object.state == Object::State::building) return fail("a container inside itself");
    object.state = Object::State::building;
    const uint64_t offset = number(static_cast<size_t>(table_ + index * offsetSize_), offsetSize_);
    if (offset < kHeaderSize || offset >= table_) return fail("an object outside the file");
    const auto at = static_cast<size_t>(offset);
    const uint8_t marker = bytes_[at];
    object.size = 1;
    const bool isContainer = marker >> 4 == 0xA || marker >> 4 == 0xD;
    if (!(isContainer ? buildContainer(object, at, depth) : buildScalar(object, at))) return false;
    if (object.size > largest_) return fail("it names its objects too often");
    object.state = Object::State::built;
    return true;
  }

  /// Where the contents of the object at `at` begin and how many elements of `elementSize` bytes they have.
  /// All of them lie before the table.
  bool contents(size_t& at, uint64_t& count, uint64_t elementSize) {
    count = bytes_[at] & 15;
    ++at;
    if (count == 15) {
      const size_t left = static_cast<size_t>(table_) - at;
      if (left < 1 || bytes_[at] >> 4 != 1 || (bytes_[at] & 15) > 3) return fail("a malformed count");
      const size_t size = size_t{1} << (bytes_[at] & 15);
      if (left - 1 < size) return fail("an object outside the file");
      count = number(at + 1, size);
      at += 1 + size;
    }
    return count <= (table_ - at) / elementSize || fail("an object outside the file");
  }

  bool buildScalar(Object& object, size_t at) {
    const uint8_t marker = bytes_[at];
    switch (marker >> 4) {
      case 0x0:
        if (marker != 0x08 && marker != 0x09) return fail("an unknown object");
        object.value = Value(marker == 0x09);
        return true;
      case 0x1:
        return buildInteger(object, at);
      case 0x2:
      case 0x3:
        return buildReal(object, at);
      case 0x4:
      case 0x5:
      case 0x6:
        return buildBytes(object, at);
      default:
        return fail("an unknown object");
    }
  }

  bool buildInteger(Object& object, size_t at) {
    const unsigned exponent = bytes_[at] & 15;
    const size_t size = size_t{1} << exponent;
    if (exponent > 4 || table_ - at - 1 < size) return fail("a malformed integer");
    if (size < 8) {
      object.value = Value(number(at + 1, size));
    } else if (size == 8) {
      object.value = Value(static_cast<int64_t>(number(at + 1, 8)));
    } else {
      const uint64_t high = number(at + 1, 8), low = number(at + 9, 8);
      const bool isNegative = high == UINT64_MAX && low > static_cast<uint64_t>(INT64_MAX);
      if (high != 0 && !isNegative) return fail("an integer beyond 64 bits");
      object.value = isNegative ? Value(static_cast<int64_t>(low)) : Value(low);
    }
    return true;
  }

  bool buildReal(Object& object, size_t at) {
    const bool isDate = bytes_[at] >> 4 == 3;
    const unsigned exponent = bytes_[at] & 15;
    if (exponent != 3 && (isDate || exponent != 2)) return fail("a malformed real or date");
    const size_t size = size_t{1} << exponent;
    if (table_ - at - 1 < size) return fail("an object outside the file");
    const uint64_t bits = number(at + 1, size);
    double real;
    if (size == 8) {
      std::memcpy(&real, &bits, sizeof real);
    } else {
      const auto narrowBits = static_cast<uint32_t>(bits);
      float narrow;
      std::memcpy(&narrow, &narrowBits, sizeof narrow);
      real = static_cast<double>(narrow);
    }
    object.value = isDate ? Value(Date{real + k2001}) : Value(real);
    return true;
  }

  /// Data, ASCII and UTF-16.
  bool buildBytes(Object& object, size_t at) {
    const unsigned type = bytes_[at] >> 4;
    uint64_t count;
    if (!contents(at, count, type == 6 ? 2 : 1)) return false;
    const auto bytes = bytes_.subspan(at, static_cast<size_t>(type == 6 ? 2 * count : count));
    object.size += bytes.size();
    if (type == 4) {
      object.value = Value(Data(bytes));
      return true;
    }
    std::string converted;
    std::string_view text(reinterpret_cast<const char*>(bytes.data()), bytes.size());
    if (type == 6) {
      if (!appendUTF16(bytes, converted)) return fail("a malformed string");
      text = converted;
    } else if (std::any_of(bytes.begin(), bytes.end(), [](uint8_t byte) { return byte >= 0x80; })) {
      return fail("a malformed string");
    }
    if (text.find('\0') != std::string_view::npos) return fail("a malformed string");
    object.value = Value(String(text));
    return true;
  }

  /// The object that the reference at `at` names, built and counted as a part of `container`. Null: fails.
  const Value* part(Object& container, size_t at, int depth) {
    const uint64_t index = number(at, referenceSize_);
    if (index >= count_) {
      fail("a reference to no object");
      return nullptr;
    }
    if (!build(index, depth)) return nullptr;
    const Object& object = objects_[static_cast<size_t>(index)];
    container.size += object.size;
    container.height = std::max<uint16_t>(container.height, object.height);
    if (container.size > largest_) {
      fail("it names its objects too often");
      return nullptr;
    }
    return &object.value;
  }

  bool buildContainer(Object& object, size_t at, int depth) {
    if (depth >= kMaximumFileNesting) return fail("containers are nested too deeply");
    const bool isDictionary = bytes_[at] >> 4 == 0xD;
    uint64_t count;
    if (!contents(at, count, isDictionary ? 2 * referenceSize_ : referenceSize_)) return false;
    const bool isBuilt = isDictionary ? buildDictionary(object, at, static_cast<size_t>(count), depth + 1)
                                      : buildArray(object, at, static_cast<size_t>(count), depth + 1);
    if (!isBuilt) return false;
    return ++object.height <= kMaximumFileNesting || fail("containers are nested too deeply");
  }

  bool buildArray(Object& object, size_t at, size_t count, int depth) {
    std::vector<Value> values;
    values.reserve(count);
    for (size_t i = 0; i < count; ++i) {
      const Value* element = part(object, at + i * referenceSize_, depth);
      if (element == nullptr) return false;
      values.push_back(*element);
    }
    object.value = Array::taking(values);
    return true;
  }

  bool buildDictionary(Object& object, size_t at, size_t count, int depth) {
    std::vector<Dictionary::Entry> entries;
    entries.reserve(count);
    for (size_t i = 0; i < count; ++i) {
      const Value* key = part(object, at + i * referenceSize_, depth);
      if (key == nullptr) return false;
      if (!key->isString()) return fail("a key that is not a string");
      String name = String::interned(*key->string());
      const Value* value = part(object, at + (count + i) * referenceSize_, depth);
      if (value == nullptr) return false;
      entries.push_back({std::move(name), *value});
    }
    object.value = Dictionary::takingLast(entries);
    return true;
  }

  const std::span<const uint8_t> bytes_;
  const uint64_t largest_;
  size_t offsetSize_ = 0, referenceSize_ = 0;
  uint64_t count_ = 0, top_ = 0, table_ = 0;
  std::vector<Object> objects_;
  const char* why_ = "";
};

}  // namespace

Result<Value> parseBinaryPropertyList(std::span<const uint8_t> bytes) {
  return Reader(bytes).read();
}

}  // namespace platform::detail
