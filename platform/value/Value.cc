#include "platform/value/Value.h"

#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <new>

namespace platform {

const Value kNone;

namespace detail {

struct BytesNode : Counted {
  explicit BytesNode(size_t byteCount) : size(byteCount) {}
  size_t size;

  uint8_t* bytes() { return reinterpret_cast<uint8_t*>(this + 1); }

  /// Header and contents are one allocation.
  static BytesNode* create(const void* bytes, size_t size) {
    void* memory = ::operator new(sizeof(BytesNode) + size);
    auto* node = new (memory) BytesNode(size);
    std::memcpy(node->bytes(), bytes, size);
    return node;
  }
};

struct ArrayNode : Counted {
  std::vector<Value> values;
};

struct DictionaryNode : Counted {
  std::vector<Dictionary::Entry> entries;
};

struct EncodedNode : Counted {
  size_t size = 0;
  std::vector<EncodedPropertyList::Piece> pieces;
};

struct UUIDNode : Counted {
  explicit UUIDNode(const UUID& value) : uuid(value) {}
  UUID uuid;
};

void destroyNode(Counted* node, const BytesNode*) {
  static_cast<BytesNode*>(node)->~BytesNode();
  ::operator delete(node);
}
void destroyNode(Counted* node, const ArrayNode*) {
  delete static_cast<ArrayNode*>(node);
}
void destroyNode(Counted* node, const DictionaryNode*) {
  delete static_cast<DictionaryNode*>(node);
}
void destroyNode(Counted* node, const EncodedNode*) {
  delete static_cast<EncodedNode*>(node);
}
void destroyNode(Counted* node, const UUIDNode*) {
  delete static_cast<UUIDNode*>(node);
}

}  // namespace detail

using detail::Shared;

// --- Data ---

Data::Data(std::span<const uint8_t> bytes) {
  if (!bytes.empty())
    node_ = Shared<detail::BytesNode>(detail::BytesNode::create(bytes.data(), bytes.size()));
}

Data::Data(std::string_view bytes)
    : Data(std::span(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size())) {}

std::span<const uint8_t> Data::bytes() const {
  if (node_.isNull()) return {};
  return {node_->bytes(), node_->size};
}

std::string_view Data::view() const {
  const auto all = bytes();
  return {reinterpret_cast<const char*>(all.data()), all.size()};
}

// --- EncodedPropertyList ---

EncodedPropertyList::EncodedPropertyList(std::vector<Piece> pieces) {
  auto* node = new detail::EncodedNode;
  node_ = Shared<detail::EncodedNode>(node);
  for (const Piece& piece : pieces) node->size += piece.bytes.size();
  node->pieces = std::move(pieces);
}

std::span<const EncodedPropertyList::Piece> EncodedPropertyList::pieces() const {
  if (node_.isNull()) return {};
  return node_->pieces;
}

size_t EncodedPropertyList::size() const {
  return node_.isNull() ? 0 : node_->size;
}

std::string EncodedPropertyList::joined() const {
  std::string all;
  all.reserve(size());
  for (const Piece& piece : pieces())
    all.append(reinterpret_cast<const char*>(piece.bytes.data()), piece.bytes.size());
  return all;
}

// --- Array ---

Array::Array(std::initializer_list<Value> values) : Array(std::vector<Value>(values)) {}

Array::Array(std::vector<Value> values) {
  if (!values.empty()) mutableValues() = std::move(values);
}

size_t Array::size() const {
  return node_.isNull() ? 0 : node_->values.size();
}

const Value& Array::operator[](size_t index) const {
  return node_->values[index];
}

const Value* Array::begin() const {
  return node_.isNull() ? nullptr : node_->values.data();
}

const Value* Array::end() const {
  return node_.isNull() ? nullptr : node_->values.data() + node_->values.size();
}

std::vector<Value>& Array::mutableValues() {
  if (node_.isNull()) {
    node_ = Shared<detail::ArrayNode>(new detail::ArrayNode);
  } else if (!node_.isUnique()) {
    auto* copy = new detail::ArrayNode;
    copy->values = node_->values;
    node_ = Shared<detail::ArrayNode>(copy);
  }
  return node_->values;
}

void Array::reserve(size_t count) {
  if (count > 0) mutableValues().reserve(count);
}

void Array::append(Value value) {
  mutableValues().push_back(std::move(value));
}

void Array::set(size_t index, Value value) {
  mutableValues()[index] = std::move(value);
}

bool operator==(const Array& a, const Array& b) {
  return a.isSameObject(b) || std::equal(a.begin(), a.end(), b.begin(), b.end());
}

// --- Dictionary ---

namespace {

/// Where `key` is, or where it would stand.
template <typename Entries>
auto position(Entries& entries, std::string_view key) {
  return std::lower_bound(
      entries.begin(), entries.end(), key,
      [](const Dictionary::Entry& entry, std::string_view k) { return entry.key.view() < k; });
}

}  // namespace

Dictionary::Dictionary(std::initializer_list<std::pair<std::string_view, Value>> entries) {
  reserve(entries.size());
  for (const auto& [key, value] : entries) set(key, value);
}

std::optional<Dictionary> Dictionary::fromEntries(std::vector<Entry> entries) {
  const auto less = [](const Entry& a, const Entry& b) { return a.key < b.key; };
  const auto notLess = [](const Entry& a, const Entry& b) { return !(a.key < b.key); };
  // What we write ourselves arrives sorted.
  if (std::adjacent_find(entries.begin(), entries.end(), notLess) != entries.end()) {
    std::sort(entries.begin(), entries.end(), less);
    if (std::adjacent_find(entries.begin(), entries.end(), notLess) != entries.end()) return std::nullopt;
  }
  std::erase_if(entries, [](const Entry& entry) { return entry.value.isNone(); });
  Dictionary dictionary;
  if (!entries.empty()) dictionary.mutableEntries() = std::move(entries);
  return dictionary;
}

Dictionary Dictionary::fromEntriesKeepingLast(std::vector<Entry> entries) {
  const auto less = [](const Entry& a, const Entry& b) { return a.key < b.key; };
  std::stable_sort(entries.begin(), entries.end(), less);
  const auto same = [](const Entry& a, const Entry& b) { return a.key == b.key; };
  // Backwards, the last of equal keys comes first and stays.
  const auto rest = std::unique(entries.rbegin(), entries.rend(), same);
  entries.erase(entries.begin(), rest.base());
  std::erase_if(entries, [](const Entry& entry) { return entry.value.isNone(); });
  Dictionary dictionary;
  if (!entries.empty()) dictionary.mutableEntries() = std::move(entries);
  return dictionary;
}

size_t Dictionary::size() const {
  return node_.isNull() ? 0 : node_->entries.size();
}

const Value& Dictionary::operator[](std::string_view key) const {
  if (node_.isNull()) return kNone;
  const auto& entries = node_->entries;
  const auto found = position(entries, key);
  return found != entries.end() && found->key.view() == key ? found->value : kNone;
}

bool Dictionary::contains(std::string_view key) const {
  return !(*this)[key].isNone();
}

const Dictionary::Entry* Dictionary::begin() const {
  return node_.isNull() ? nullptr : node_->entries.data();
}

const Dictionary::Entry* Dictionary::end() const {
  return node_.isNull() ? nullptr : node_->entries.data() + node_->entries.size();
}

std::vector<Dictionary::Entry>& Dictionary::mutableEntries() {
  if (node_.isNull()) {
    node_ = Shared<detail::DictionaryNode>(new detail::DictionaryNode);
  } else if (!node_.isUnique()) {
    auto* copy = new detail::DictionaryNode;
    copy->entries = node_->entries;
    node_ = Shared<detail::DictionaryNode>(copy);
  }
  return node_->entries;
}

void Dictionary::reserve(size_t count) {
  if (count > 0) mutableEntries().reserve(count);
}

void Dictionary::set(String key, Value value) {
  if (value.isNone()) return remove(key);
  auto& entries = mutableEntries();
  const auto found = position(entries, key);
  if (found != entries.end() && found->key == key) {
    found->value = std::move(value);
  } else {
    entries.insert(found, Entry{std::move(key), std::move(value)});
  }
}

void Dictionary::remove(std::string_view key) {
  if (!contains(key)) return;
  auto& entries = mutableEntries();
  entries.erase(position(entries, key));
}

bool operator==(const Dictionary& a, const Dictionary& b) {
  return a.isSameObject(b) || std::equal(a.begin(), a.end(), b.begin(), b.end(),
                                         [](const Dictionary::Entry& x, const Dictionary::Entry& y) {
                                           return x.key == y.key && x.value == y.value;
                                         });
}

// --- Value ---

Value::Value(String value) noexcept : kind_(Kind::string), string_(std::move(value)) {}
Value::Value(Data value) noexcept : kind_(Kind::data), data_(std::move(value)) {}
Value::Value(const UUID& value) : kind_(Kind::uuid), uuid_(new detail::UUIDNode(value)) {}
Value::Value(Array value) noexcept : kind_(Kind::array), array_(std::move(value)) {}
Value::Value(Dictionary value) noexcept : kind_(Kind::dictionary), dictionary_(std::move(value)) {}
Value::Value(EncodedPropertyList value) noexcept : kind_(Kind::encoded), encoded_(std::move(value)) {}

void Value::copyFrom(const Value& other) noexcept {
  kind_ = other.kind_;
  switch (kind_) {
    case Kind::string:
      new (&string_) String(other.string_);
      break;
    case Kind::data:
      new (&data_) Data(other.data_);
      break;
    case Kind::uuid:
      new (&uuid_) Shared<detail::UUIDNode>(other.uuid_);
      break;
    case Kind::array:
      new (&array_) Array(other.array_);
      break;
    case Kind::dictionary:
      new (&dictionary_) Dictionary(other.dictionary_);
      break;
    case Kind::encoded:
      new (&encoded_) EncodedPropertyList(other.encoded_);
      break;
    default:
      unsigned_ = other.unsigned_;
      break;
  }
}

void Value::moveFrom(Value& other) noexcept {
  kind_ = other.kind_;
  switch (kind_) {
    case Kind::string:
      new (&string_) String(std::move(other.string_));
      break;
    case Kind::data:
      new (&data_) Data(std::move(other.data_));
      break;
    case Kind::uuid:
      new (&uuid_) Shared<detail::UUIDNode>(std::move(other.uuid_));
      break;
    case Kind::array:
      new (&array_) Array(std::move(other.array_));
      break;
    case Kind::dictionary:
      new (&dictionary_) Dictionary(std::move(other.dictionary_));
      break;
    case Kind::encoded:
      new (&encoded_) EncodedPropertyList(std::move(other.encoded_));
      break;
    default:
      unsigned_ = other.unsigned_;
      return;
  }
  other.reset();
}

void Value::release() noexcept {
  switch (kind_) {
    case Kind::string:
      string_.~String();
      break;
    case Kind::data:
      data_.~Data();
      break;
    case Kind::uuid:
      uuid_.~Shared();
      break;
    case Kind::array:
      array_.~Array();
      break;
    case Kind::dictionary:
      dictionary_.~Dictionary();
      break;
    case Kind::encoded:
      encoded_.~EncodedPropertyList();
      break;
    default:
      break;
  }
}

std::optional<std::string_view> Value::string() const {
  if (kind_ != Kind::string) return std::nullopt;
  return string_.view();
}

std::optional<bool> Value::boolean() const {
  if (kind_ != Kind::boolean) return std::nullopt;
  return integer_ != 0;
}

std::optional<double> Value::real() const {
  if (kind_ != Kind::real) return std::nullopt;
  return real_;
}

std::optional<Date> Value::date() const {
  if (kind_ != Kind::date) return std::nullopt;
  return Date{real_};
}

std::optional<UUID> Value::uuid() const {
  if (kind_ != Kind::uuid) return std::nullopt;
  return uuid_->uuid;
}

int64_t Value::integerValue() const {
  switch (kind_) {
    case Kind::boolean:
    case Kind::integer:
      return integer_;
    case Kind::unsignedInteger:
      return static_cast<int64_t>(unsigned_);
    case Kind::real:
      if (std::isnan(real_)) return 0;
      if (real_ >= 0x1p63) return INT64_MAX;
      if (real_ < -0x1p63) return INT64_MIN;
      return static_cast<int64_t>(real_);
    default:
      return 0;
  }
}

uint64_t Value::unsignedValue() const {
  if (kind_ == Kind::unsignedInteger) return unsigned_;
  if (kind_ == Kind::real && real_ >= 0x1p63) {
    return real_ >= 0x1p64 ? UINT64_MAX : static_cast<uint64_t>(real_);
  }
  return static_cast<uint64_t>(integerValue());
}

double Value::realValue() const {
  switch (kind_) {
    case Kind::boolean:
    case Kind::integer:
      return static_cast<double>(integer_);
    case Kind::unsignedInteger:
      return static_cast<double>(unsigned_);
    case Kind::real:
      return real_;
    default:
      return 0;
  }
}

bool Value::booleanValue() const {
  if (isNumber()) return !isFalse();
  if (kind_ != Kind::string) return false;
  const std::string_view text = string_.view();
  size_t at = text.find_first_not_of(" \t\n\r");
  if (at == std::string_view::npos) return false;
  if (text[at] == '+' || text[at] == '-') ++at;
  at = text.find_first_not_of('0', at);
  if (at == std::string_view::npos) return false;
  const char c = text[at];
  return c == 'Y' || c == 'y' || c == 'T' || c == 't' || (c >= '1' && c <= '9');
}

const Value& Value::operator[](std::string_view key) const {
  return kind_ == Kind::dictionary ? dictionary_[key] : kNone;
}

bool Value::isSameObject(const Value& other) const {
  if (kind_ != other.kind_) return false;
  switch (kind_) {
    case Kind::none:
      return true;
    case Kind::string:
      return string_.data_.node_.isSame(other.string_.data_.node_);
    case Kind::data:
      return data_.node_.isSame(other.data_.node_);
    case Kind::uuid:
      return uuid_.isSame(other.uuid_);
    case Kind::array:
      return array_.isSameObject(other.array_);
    case Kind::dictionary:
      return dictionary_.isSameObject(other.dictionary_);
    case Kind::encoded:
      return encoded_.node_.isSame(other.encoded_.node_);
    default:
      return unsigned_ == other.unsigned_;
  }
}

namespace {

bool equalRealAndInteger(double real, const Value& integer) {
  if (real != std::trunc(real) || real < -0x1p63 || real >= 0x1p64) return false;
  if (real < 0x1p63) {
    return integer.kind() != Value::Kind::unsignedInteger &&
           static_cast<int64_t>(real) == integer.integerValue();
  }
  return integer.kind() == Value::Kind::unsignedInteger &&
         static_cast<uint64_t>(real) == integer.unsignedValue();
}

bool equalNumbers(const Value& a, const Value& b) {
  const bool aReal = a.kind() == Value::Kind::real;
  const bool bReal = b.kind() == Value::Kind::real;
  if (aReal && bReal) return a.realValue() == b.realValue();
  if (aReal) return equalRealAndInteger(a.realValue(), b);
  if (bReal) return equalRealAndInteger(b.realValue(), a);
  const bool aLarge = a.kind() == Value::Kind::unsignedInteger;
  const bool bLarge = b.kind() == Value::Kind::unsignedInteger;
  return aLarge == bLarge && a.unsignedValue() == b.unsignedValue();
}

}  // namespace

bool operator==(const Value& a, const Value& b) {
  if (a.isNumber() && b.isNumber()) return equalNumbers(a, b);
  if (a.kind_ != b.kind_) return false;
  switch (a.kind_) {
    case Value::Kind::string:
      return a.string_ == b.string_;
    case Value::Kind::data:
      return a.data_ == b.data_;
    case Value::Kind::date:
      return a.real_ == b.real_;
    case Value::Kind::uuid:
      return a.uuid_->uuid == b.uuid_->uuid;
    case Value::Kind::array:
      return a.array_ == b.array_;
    case Value::Kind::dictionary:
      return a.dictionary_ == b.dictionary_;
    default:
      return a.isSameObject(b);
  }
}

namespace {

void describe(const Value& value, std::string& out);

void describeQuoted(std::string_view text, std::string& out) {
  out += '"';
  for (const char c : text) {
    if (c == '"' || c == '\\') out += '\\';
    out += c;
  }
  out += '"';
}

void describeData(std::span<const uint8_t> bytes, std::string& out) {
  constexpr size_t kShown = 24;
  constexpr char kDigits[] = "0123456789abcdef";
  out += '<';
  for (size_t i = 0; i < std::min(bytes.size(), kShown); ++i) {
    out += kDigits[bytes[i] >> 4];
    out += kDigits[bytes[i] & 15];
  }
  if (bytes.size() > kShown) out += "... " + std::to_string(bytes.size()) + " bytes";
  out += '>';
}

void describeReal(double value, std::string& out) {
  char text[32];
  std::snprintf(text, sizeof text, "%.17g", value);
  // The shortest of the usual forms that reads back the same.
  char shorter[32];
  std::snprintf(shorter, sizeof shorter, "%.15g", value);
  out += std::strtod(shorter, nullptr) == value ? shorter : text;
}

void describe(const Value& value, std::string& out) {
  switch (value.kind()) {
    case Value::Kind::none:
      out += "(null)";
      break;
    case Value::Kind::boolean:
      out += *value.boolean() ? "true" : "false";
      break;
    case Value::Kind::integer:
      out += std::to_string(value.integerValue());
      break;
    case Value::Kind::unsignedInteger:
      out += std::to_string(value.unsignedValue());
      break;
    case Value::Kind::real:
      describeReal(*value.real(), out);
      break;
    case Value::Kind::string:
      describeQuoted(*value.string(), out);
      break;
    case Value::Kind::data:
      describeData(value.data()->bytes(), out);
      break;
    case Value::Kind::date:
      out += value.date()->description();
      break;
    case Value::Kind::uuid:
      out += value.uuid()->string();
      break;
    case Value::Kind::array: {
      out += '(';
      const char* separator = "";
      for (const Value& element : *value.array()) {
        out += std::exchange(separator, ", ");
        describe(element, out);
      }
      out += ')';
      break;
    }
    case Value::Kind::dictionary: {
      out += '{';
      const char* separator = "";
      for (const auto& [key, element] : *value.dictionary()) {
        out += std::exchange(separator, "; ");
        out += key.view();
        out += " = ";
        describe(element, out);
      }
      out += '}';
      break;
    }
    case Value::Kind::encoded:
      out += "<property list, " + std::to_string(value.encoded()->size()) + " bytes>";
      break;
  }
}

}  // namespace

std::string Value::description() const {
  // A string describes itself as it is; quotes only appear inside containers.
  if (kind_ == Kind::string) return std::string(string_.view());
  std::string out;
  describe(*this, out);
  return out;
}

}  // namespace platform
