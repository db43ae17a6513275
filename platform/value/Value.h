#pragma once

// The one value type of property lists and messages. A Value is 16 bytes: a kind and either a scalar or a
// reference to shared storage. Copying counts a reference and never copies contents; changing a container
// that is shared copies that one level first, so a value that someone else holds never changes.
//
// Threads: distinct Value objects that share storage may be used from different threads freely (the counts
// are atomic); one Value object is changed by one thread at a time, like an int.

#include <compare>
#include <concepts>
#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/value/Date.h"
#include "platform/value/Storage.h"
#include "platform/value/UUID.h"

#pragma GCC visibility push(default)

namespace platform {

class Value;

/// Immutable shared bytes, less than 4 GiB. The default is empty.
class Data {
 public:
  Data() = default;
  /// Copies `bytes`.
  explicit Data(std::span<const uint8_t> bytes);
  explicit Data(std::string_view bytes);

  std::span<const uint8_t> bytes() const {
    if (node_.isNull()) return {};
    return {node_->bytes(), node_->size};
  }
  std::string_view view() const {
    if (node_.isNull()) return {};
    return {reinterpret_cast<const char*>(node_->bytes()), node_->size};
  }
  size_t size() const { return node_.isNull() ? 0 : node_->size; }
  bool empty() const { return size() == 0; }

  friend bool operator==(const Data& a, const Data& b) {
    return a.node_.isSame(b.node_) || a.view() == b.view();
  }

 private:
  friend class Value;
  friend class String;
  detail::Shared<detail::BytesNode> node_;
};

/// An immutable shared string, UTF-8 by convention (this class does not check). The default is empty.
class String {
 public:
  String() = default;
  String(std::string_view text) : data_(text) {}                      // NOLINT: a string converts freely
  String(const char* text) : data_(std::string_view(text)) {}         // NOLINT
  String(const std::string& text) : data_(std::string_view(text)) {}  // NOLINT

  /// `text`, sharing the storage of an equal string that was asked for lately where there is one. For
  /// dictionary keys and the like: few different ones stand in very many dictionaries.
  static String interned(std::string_view text);

  /// Valid while any holder of this string's storage lives.
  std::string_view view() const { return data_.view(); }
  operator std::string_view() const { return view(); }  // NOLINT
  size_t size() const { return data_.size(); }

  friend bool operator==(const String& a, const String& b) { return a.data_ == b.data_; }
  friend auto operator<=>(const String& a, const String& b) { return a.view() <=> b.view(); }

 private:
  friend class Value;
  void keepForever();
  Data data_;
};

/// A property list that is already encoded for the wire (platform/qmx/Encoding.h), as a list of pieces that
/// are shared, not copied, so that a large reply is joined from kept parts.
class EncodedPropertyList {
 public:
  struct Piece {
    Data owner;
    std::span<const uint8_t> bytes;  // inside `owner`
  };
  EncodedPropertyList() = default;
  explicit EncodedPropertyList(std::vector<Piece> pieces);

  std::span<const Piece> pieces() const;
  /// Sum of all pieces, in bytes.
  size_t size() const;
  /// All pieces joined.
  std::string joined() const;

 private:
  friend class Value;
  detail::Shared<detail::EncodedNode> node_;
};

class Array {
 public:
  Array() = default;
  Array(std::initializer_list<Value> values);
  explicit Array(std::vector<Value> values);
  /// Moves the values out of `values`; the storage has no room to spare.
  static Array taking(std::span<Value> values);

  size_t size() const;
  bool empty() const { return size() == 0; }
  /// REQUIRES: index < size().
  const Value& operator[](size_t index) const;
  const Value* begin() const;
  const Value* end() const;

  void reserve(size_t count);
  void append(Value value);
  /// REQUIRES: index < size().
  void set(size_t index, Value value);

  /// Whether both are the very same storage (two empty arrays are).
  bool isSameObject(const Array& other) const;
  friend bool operator==(const Array& a, const Array& b);

 private:
  friend class Value;
  /// Storage of our own with room for `room` more values.
  detail::ArrayNode& changing(size_t room);
  detail::Shared<detail::ArrayNode> node_;
};

/// String keys to values: a flat array sorted by the keys' bytes, so enumeration is deterministic. A key
/// never maps to a none value.
class Dictionary {
 public:
  struct Entry;

  Dictionary() = default;
  /// For literals; the last of two entries of one key wins.
  Dictionary(std::initializer_list<std::pair<std::string_view, Value>> entries);
  /// From entries in any order, in n log n; none when a key stands there twice. Entries with none values are
  /// left out.
  static std::optional<Dictionary> fromEntries(std::vector<Entry> entries);
  /// The same, moving the entries out of `entries`; the storage has no room to spare.
  static std::optional<Dictionary> taking(std::span<Entry> entries);
  /// The same, but of several entries of one key the last counts.
  static Dictionary takingLast(std::span<Entry> entries);

  size_t size() const;
  bool empty() const { return size() == 0; }
  /// The value under `key`, or a none value.
  const Value& operator[](std::string_view key) const;
  bool contains(std::string_view key) const;
  const Entry* begin() const;
  const Entry* end() const;

  void reserve(size_t count);
  /// Stores `value` under `key`; a none value removes the key.
  void set(String key, Value value);
  void remove(std::string_view key);
  /// Removes every entry whose key begins with `prefix`.
  void removeKeysWithPrefix(std::string_view prefix);

  /// Whether both are the very same storage (two empty dictionaries are).
  bool isSameObject(const Dictionary& other) const;
  friend bool operator==(const Dictionary& a, const Dictionary& b);

 private:
  friend class Value;
  static std::optional<Dictionary> sorted(std::span<Entry> entries, bool lastCounts);
  /// Storage of our own with room for `room` more entries.
  detail::DictionaryNode& changing(size_t room);
  detail::Shared<detail::DictionaryNode> node_;
};

class Value {
 public:
  enum class Kind : uint8_t {
    none,
    boolean,
    integer,          // signed 64-bit
    unsignedInteger,  // only for values above the signed range
    real,
    string,
    data,
    date,
    uuid,
    array,
    dictionary,
    encoded,
  };

  Value() noexcept : kind_(Kind::none), integer_(0) {}
  // Every kind converts freely: literals of messages and property lists are written in place.
  Value(bool value) noexcept : kind_(Kind::boolean), integer_(value ? 1 : 0) {}  // NOLINT
  template <std::integral T>
  requires(!std::same_as<T, bool> && !std::same_as<T, char>) Value(T value)
  noexcept {  // NOLINT
    if (std::in_range<int64_t>(value)) {
      kind_ = Kind::integer;
      integer_ = static_cast<int64_t>(value);
    } else {
      kind_ = Kind::unsignedInteger;
      unsigned_ = static_cast<uint64_t>(value);
    }
  }
  Value(double value) noexcept : kind_(Kind::real), real_(value) {}                                // NOLINT
  Value(String value) noexcept : kind_(Kind::string), string_(std::move(value)) {}                 // NOLINT
  Value(std::string_view value) : Value(String(value)) {}                                          // NOLINT
  Value(const std::string& value) : Value(String(std::string_view(value))) {}                      // NOLINT
  Value(const char* value) : Value(String(std::string_view(value))) {}                             // NOLINT
  Value(Data value) noexcept : kind_(Kind::data), data_(std::move(value)) {}                       // NOLINT
  Value(Date value) noexcept : kind_(Kind::date), real_(value.secondsSince1970) {}                 // NOLINT
  Value(const UUID& value);                                                                        // NOLINT
  Value(Array value) noexcept : kind_(Kind::array), array_(std::move(value)) {}                    // NOLINT
  Value(Dictionary value) noexcept : kind_(Kind::dictionary), dictionary_(std::move(value)) {}     // NOLINT
  Value(EncodedPropertyList value) noexcept : kind_(Kind::encoded), encoded_(std::move(value)) {}  // NOLINT
  /// A pointer is never meant as a boolean.
  template <typename T>
  requires(!std::same_as<std::remove_cv_t<T>, char>) Value(T*)
  = delete;
  /// None converts to a none value.
  template <typename T>
  Value(const std::optional<T>& value) : Value() {  // NOLINT
    if (value) *this = Value(*value);
  }

  Value(const Value& other) noexcept { copyFrom(other); }
  Value(Value&& other) noexcept { moveFrom(other); }
  Value& operator=(const Value& other) noexcept { return *this = Value(other); }
  Value& operator=(Value&& other) noexcept {
    if (this == &other) return *this;
    // What this held goes last: `other` may be a part of it.
    const Value old(std::move(*this));
    moveFrom(other);
    return *this;
  }
  ~Value() {
    if (isShared()) release();
  }

  Kind kind() const { return kind_; }
  bool isNone() const { return kind_ == Kind::none; }
  bool isString() const { return kind_ == Kind::string; }
  bool isArray() const { return kind_ == Kind::array; }
  bool isDictionary() const { return kind_ == Kind::dictionary; }
  /// A boolean counts as a number.
  bool isNumber() const { return kind_ >= Kind::boolean && kind_ <= Kind::real; }

  // Typed reading: none (or null) unless the value is of that very kind. Views and pointers are valid while
  // this Value is neither changed nor destroyed.
  std::optional<std::string_view> string() const {
    return kind_ == Kind::string ? std::optional(string_.view()) : std::nullopt;
  }
  std::optional<bool> boolean() const {
    return kind_ == Kind::boolean ? std::optional(integer_ != 0) : std::nullopt;
  }
  std::optional<double> real() const { return kind_ == Kind::real ? std::optional(real_) : std::nullopt; }
  std::optional<Date> date() const { return kind_ == Kind::date ? std::optional(Date{real_}) : std::nullopt; }
  std::optional<UUID> uuid() const;
  const String* sharedString() const { return kind_ == Kind::string ? &string_ : nullptr; }
  const Data* data() const { return kind_ == Kind::data ? &data_ : nullptr; }
  const Array* array() const { return kind_ == Kind::array ? &array_ : nullptr; }
  const Dictionary* dictionary() const { return kind_ == Kind::dictionary ? &dictionary_ : nullptr; }
  const EncodedPropertyList* encoded() const { return kind_ == Kind::encoded ? &encoded_ : nullptr; }
  /// Moves the dictionary out, so that it can be changed without copying it; this becomes none. An empty one
  /// for anything else.
  Dictionary takeDictionary() {
    Value taken(std::move(*this));
    return taken.isDictionary() ? std::move(taken.dictionary_) : Dictionary();
  }

  /// A number's value as a signed integer: reals are truncated toward zero and clamped to the range (NaN is
  /// 0), unsigned values above the range keep their low 64 bits. 0 for anything that is not a number.
  int64_t integerValue() const;
  /// A number's value as an unsigned integer: negative integers keep their low 64 bits. 0 for anything else.
  uint64_t unsignedValue() const;
  /// A number's value as a double; 0 for anything else.
  double realValue() const;
  /// The generic boolean reading: numbers are true unless 0; strings when they begin (after white space, a
  /// sign and zeros) with Y, y, T, t or a digit 1 to 9; everything else is false.
  bool booleanValue() const;
  /// For dictionaries the value under `key`, else a none value: `info["a"]["b"]` walks safely.
  const Value& operator[](std::string_view key) const;

  /// Whether both are the same scalar or the very same storage.
  bool isSameObject(const Value& other) const;

  /// Property-list equality: numbers and booleans compare by value, everything else only within its kind.
  /// Dictionaries and arrays compare by contents. An encoded property list equals only the very same object.
  friend bool operator==(const Value& a, const Value& b);
  // The two comparisons that rules are made of, without the ambiguity of mixed types.
  bool isTrue() const { return isNumber() && *this == Value(true); }
  bool isFalse() const { return isNumber() && *this == Value(false); }

  /// A description for people on one line, for example `{a = 1; b = ("x", "y")}`; an encoded
  /// property list says its size. Never part of a file or a message.
  std::string description() const;

 private:
  bool isShared() const { return kind_ >= Kind::string && kind_ != Kind::date; }
  // Every kind is a scalar or one counted reference, so copying is copying the word and counting, and moving
  // is moving the word. (Kind and word are copied apart: both were mostly written apart a moment ago, and
  // reading them back as one would wait for the writes.)
  void copyFrom(const Value& other) noexcept {
    copyWord(other);
    if (!isShared()) return;
    detail::Counted* node;
    std::memcpy(&node, static_cast<const void*>(&integer_), sizeof node);
    if (node != nullptr) node->retain();
  }
  void moveFrom(Value& other) noexcept {
    copyWord(other);
    other.kind_ = Kind::none;
  }
  void copyWord(const Value& other) noexcept {
    kind_ = other.kind_;
    std::memcpy(static_cast<void*>(&integer_), static_cast<const void*>(&other.integer_), sizeof integer_);
  }
  void release() noexcept;

  Kind kind_;
  union {
    int64_t integer_;
    uint64_t unsigned_;
    double real_;
    String string_;
    Data data_;
    detail::Shared<detail::UUIDNode> uuid_;
    Array array_;
    Dictionary dictionary_;
    EncodedPropertyList encoded_;
  };
};

struct Dictionary::Entry {
  String key;
  Value value;
};

/// The none value that look-ups answer by reference.
extern const Value kNone;

namespace detail {

struct ArrayNode : Block<Value> {};
struct DictionaryNode : Block<Dictionary::Entry> {};

}  // namespace detail

inline size_t Array::size() const {
  return node_.isNull() ? 0 : node_->count;
}
inline const Value* Array::begin() const {
  return node_.isNull() ? nullptr : std::as_const(*node_.get()).begin();
}
inline const Value* Array::end() const {
  return node_.isNull() ? nullptr : std::as_const(*node_.get()).end();
}
inline const Value& Array::operator[](size_t index) const {
  return begin()[index];
}
inline bool Array::isSameObject(const Array& other) const {
  return node_.isSame(other.node_) || (empty() && other.empty());
}

inline size_t Dictionary::size() const {
  return node_.isNull() ? 0 : node_->count;
}
inline const Dictionary::Entry* Dictionary::begin() const {
  return node_.isNull() ? nullptr : std::as_const(*node_.get()).begin();
}
inline const Dictionary::Entry* Dictionary::end() const {
  return node_.isNull() ? nullptr : std::as_const(*node_.get()).end();
}
inline bool Dictionary::isSameObject(const Dictionary& other) const {
  return node_.isSame(other.node_) || (empty() && other.empty());
}

}  // namespace platform

#pragma GCC visibility pop
