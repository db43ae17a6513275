#pragma once

// The one value type of property lists and messages. A Value is 16 bytes: a kind and either a scalar or a
// reference to shared storage. Copying counts a reference and never copies contents; changing a container
// that is shared copies that one level first, so a value that someone else holds never changes.
//
// Threads: distinct Value objects that share storage may be used from different threads freely (the counts
// are atomic); one Value object is changed by one thread at a time, like an int.

#include <atomic>
#include <concepts>
#include <cstdint>
#include <initializer_list>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/value/Date.h"
#include "platform/value/UUID.h"

namespace platform {

class Value;

namespace detail {

struct BytesNode;
struct ArrayNode;
struct DictionaryNode;
struct EncodedNode;
struct UUIDNode;

/// The head of every piece of shared storage.
struct Counted {
  std::atomic<uint32_t> references{1};
};

// The second argument only selects the overload.
void destroyNode(Counted* node, const BytesNode*);
void destroyNode(Counted* node, const ArrayNode*);
void destroyNode(Counted* node, const DictionaryNode*);
void destroyNode(Counted* node, const EncodedNode*);
void destroyNode(Counted* node, const UUIDNode*);

/// Counts the holders of one piece of shared storage; the last one destroys it.
template <typename T>
class Shared {
 public:
  Shared() = default;
  /// Takes over the one reference that `node` was made with.
  explicit Shared(T* node) noexcept : node_(node) {}
  Shared(const Shared& other) noexcept : node_(other.node_) {
    if (node_ != nullptr) node_->references.fetch_add(1, std::memory_order_relaxed);
  }
  Shared(Shared&& other) noexcept : node_(std::exchange(other.node_, nullptr)) {}
  Shared& operator=(const Shared& other) noexcept { return *this = Shared(other); }
  Shared& operator=(Shared&& other) noexcept {
    std::swap(node_, other.node_);
    return *this;
  }
  ~Shared() {
    if (node_ != nullptr && node_->references.fetch_sub(1, std::memory_order_acq_rel) == 1)
      destroyNode(node_, static_cast<const T*>(nullptr));
  }
  /// REQUIRES: T is complete where this is used.
  T* get() const { return static_cast<T*>(node_); }
  T* operator->() const { return get(); }
  bool isNull() const { return node_ == nullptr; }
  bool isUnique() const { return node_->references.load(std::memory_order_acquire) == 1; }
  bool isSame(const Shared& other) const { return node_ == other.node_; }

 private:
  Counted* node_ = nullptr;
};

}  // namespace detail

/// Immutable shared bytes. The default is empty.
class Data {
 public:
  Data() = default;
  /// Copies `bytes`.
  explicit Data(std::span<const uint8_t> bytes);
  explicit Data(std::string_view bytes);

  std::span<const uint8_t> bytes() const;
  std::string_view view() const;
  size_t size() const { return bytes().size(); }
  bool empty() const { return size() == 0; }

  friend bool operator==(const Data& a, const Data& b) { return a.view() == b.view(); }

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

  /// Valid while any holder of this string's storage lives.
  std::string_view view() const { return data_.view(); }
  operator std::string_view() const { return view(); }  // NOLINT
  size_t size() const { return view().size(); }

  friend bool operator==(const String& a, const String& b) { return a.view() == b.view(); }
  friend auto operator<=>(const String& a, const String& b) { return a.view() <=> b.view(); }

 private:
  friend class Value;
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
  bool isSameObject(const Array& other) const { return node_.isSame(other.node_); }
  friend bool operator==(const Array& a, const Array& b);

 private:
  friend class Value;
  std::vector<Value>& mutableValues();
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
  /// The same, but of several entries of one key the last is kept.
  static Dictionary fromEntriesKeepingLast(std::vector<Entry> entries);

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

  /// Whether both are the very same storage (two empty dictionaries are).
  bool isSameObject(const Dictionary& other) const { return node_.isSame(other.node_); }
  friend bool operator==(const Dictionary& a, const Dictionary& b);

 private:
  friend class Value;
  std::vector<Entry>& mutableEntries();
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
  Value(double value) noexcept : kind_(Kind::real), real_(value) {}                 // NOLINT
  Value(String value) noexcept;                                                     // NOLINT
  Value(std::string_view value) : Value(String(value)) {}                           // NOLINT
  Value(const std::string& value) : Value(String(std::string_view(value))) {}       // NOLINT
  Value(const char* value) : Value(String(std::string_view(value))) {}              // NOLINT
  Value(Data value) noexcept;                                                       // NOLINT
  Value(Date value) noexcept : kind_(Kind::date), real_(value.secondsSince1970) {}  // NOLINT
  Value(const UUID& value);                                                         // NOLINT
  Value(Array value) noexcept;                                                      // NOLINT
  Value(Dictionary value) noexcept;                                                 // NOLINT
  Value(EncodedPropertyList value) noexcept;                                        // NOLINT
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
  Value& operator=(const Value& other) noexcept {
    if (this != &other) *this = Value(other);
    return *this;
  }
  Value& operator=(Value&& other) noexcept {
    if (this != &other) {
      reset();
      moveFrom(other);
    }
    return *this;
  }
  ~Value() { reset(); }

  Kind kind() const { return kind_; }
  bool isNone() const { return kind_ == Kind::none; }
  bool isString() const { return kind_ == Kind::string; }
  bool isArray() const { return kind_ == Kind::array; }
  bool isDictionary() const { return kind_ == Kind::dictionary; }
  /// A boolean counts as a number.
  bool isNumber() const { return kind_ >= Kind::boolean && kind_ <= Kind::real; }

  // Typed reading: none (or null) unless the value is of that very kind. Views and pointers are valid while
  // this Value is neither changed nor destroyed.
  std::optional<std::string_view> string() const;
  std::optional<bool> boolean() const;
  std::optional<double> real() const;
  std::optional<Date> date() const;
  std::optional<UUID> uuid() const;
  const String* sharedString() const { return kind_ == Kind::string ? &string_ : nullptr; }
  const Data* data() const { return kind_ == Kind::data ? &data_ : nullptr; }
  const Array* array() const { return kind_ == Kind::array ? &array_ : nullptr; }
  const Dictionary* dictionary() const { return kind_ == Kind::dictionary ? &dictionary_ : nullptr; }
  const EncodedPropertyList* encoded() const { return kind_ == Kind::encoded ? &encoded_ : nullptr; }

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

  /// A description for people on one line, for example `{a = 1; b = ("x", "y")}`; data is shortened, an
  /// encoded property list says its size. Never part of a file or a message.
  std::string description() const;

 private:
  void reset() noexcept {
    if (kind_ >= Kind::string && kind_ != Kind::date) release();
    kind_ = Kind::none;
  }
  void copyFrom(const Value& other) noexcept;
  void moveFrom(Value& other) noexcept;
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

}  // namespace platform
