#include "platform/value/Value.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <iterator>
#include <memory>
#include <new>
#include <stdexcept>

#include "platform/value/Blocks.h"

namespace platform {

const Value kNone;

// Copying and moving values rely on it that each kind is one word, and each counted one a pointer.
static_assert(sizeof(Value) == 16 && sizeof(Dictionary::Entry) == 24);
static_assert(sizeof(String) == sizeof(void*) && sizeof(Data) == sizeof(void*) &&
              sizeof(Array) == sizeof(void*) && sizeof(Dictionary) == sizeof(void*) &&
              sizeof(EncodedPropertyList) == sizeof(void*));

namespace detail {

struct EncodedNode : Counted {
  size_t size = 0;
  std::vector<EncodedPropertyList::Piece> pieces;
};

namespace {

template <typename Node>
void destroyBlock(Node* node) noexcept {
  std::destroy(node->begin(), node->end());
  node->~Node();
  ::operator delete(node);
}

/// Appends elements, copied or (from move iterators) moved. REQUIRES: there is room.
template <typename Node, typename Iterator>
void appendTo(Node* node, Iterator from, size_t count) {
  std::uninitialized_copy_n(from, count, node->end());
  node->count += static_cast<uint32_t>(count);
}

/// Makes `shared` storage of its own with room for `room` more elements.
template <typename T, typename Node>
Node& makeChangeable(Shared<Node>& shared, size_t room) {
  const size_t count = shared.isNull() ? 0 : shared->count;
  const bool isUnique = !shared.isNull() && shared.isUnique();
  if (isUnique && shared->capacity - count >= room) return *shared.get();
  size_t capacity = count + room;
  if (isUnique && room > 0) capacity = std::max(capacity, count + count / 2 + 1);
  Shared<Node> changed(newBlock<Node, T>(capacity));
  if (isUnique) {
    appendTo(changed.get(), std::move_iterator(shared->begin()), count);
  } else if (count > 0) {
    appendTo(changed.get(), std::as_const(*shared.get()).begin(), count);
  }
  shared = std::move(changed);
  return *shared.get();
}

BytesNode* newBytes(const void* bytes, size_t size) {
  if (size > UINT32_MAX) throw std::length_error("data of more than 4 GiB");
  auto* node = new (::operator new(sizeof(BytesNode) + size)) BytesNode;
  node->size = static_cast<uint32_t>(size);
  std::memcpy(node->bytes(), bytes, size);
  return node;
}

}  // namespace

void destroyNode(Counted* node, const BytesNode*) noexcept {
  ::operator delete(static_cast<BytesNode*>(node));
}
void destroyNode(Counted* node, const ArrayNode*) noexcept {
  destroyBlock(static_cast<ArrayNode*>(node));
}
void destroyNode(Counted* node, const DictionaryNode*) noexcept {
  destroyBlock(static_cast<DictionaryNode*>(node));
}
void destroyNode(Counted* node, const EncodedNode*) noexcept {
  delete static_cast<EncodedNode*>(node);
}
void destroyNode(Counted* node, const UUIDNode*) noexcept {
  delete static_cast<UUIDNode*>(node);
}

}  // namespace detail

using detail::Shared;

// --- Data ---

Data::Data(std::span<const uint8_t> bytes) {
  if (!bytes.empty()) node_ = Shared<detail::BytesNode>(detail::newBytes(bytes.data(), bytes.size()));
}

Data::Data(std::string_view bytes)
    : Data(std::span(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size())) {}

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

Array::Array(std::initializer_list<Value> values) {
  if (values.size() > 0) detail::appendTo(&changing(values.size()), values.begin(), values.size());
}

Array::Array(std::vector<Value> values) : Array(taking(values)) {}

Array Array::taking(std::span<Value> values) {
  Array array;
  if (!values.empty()) {
    detail::appendTo(&array.changing(values.size()), std::move_iterator(values.begin()), values.size());
  }
  return array;
}

detail::ArrayNode& Array::changing(size_t room) {
  return detail::makeChangeable<Value>(node_, room);
}

void Array::reserve(size_t count) {
  if (count > size()) changing(count - size());
}

void Array::append(Value value) {
  detail::ArrayNode& node = changing(1);
  new (node.end()) Value(std::move(value));
  ++node.count;
}

void Array::set(size_t index, Value value) {
  changing(0).begin()[index] = std::move(value);
}

bool operator==(const Array& a, const Array& b) {
  return a.isSameObject(b) || std::equal(a.begin(), a.end(), b.begin(), b.end());
}

// --- Dictionary ---

namespace {

/// The first of the sorted entries whose key is not less than `key`.
template <typename Entry>
Entry* position(Entry* begin, Entry* end, std::string_view key) {
  return std::lower_bound(begin, end, key, [](const Dictionary::Entry& entry, std::string_view k) {
    return entry.key.view() < k;
  });
}

}  // namespace

Dictionary::Dictionary(std::initializer_list<std::pair<std::string_view, Value>> entries) {
  reserve(entries.size());
  for (const auto& [key, value] : entries) set(String::interned(key), value);
}

const Value& Dictionary::operator[](std::string_view key) const {
  // Few keys are compared sooner than they are ordered: mostly their lengths differ.
  constexpr size_t kFew = 8;
  if (size() <= kFew) {
    for (const Entry& entry : *this)
      if (entry.key.size() == key.size() && entry.key.view() == key) return entry.value;
    return kNone;
  }
  const Entry* const found = position(begin(), end(), key);
  return found != end() && found->key.view() == key ? found->value : kNone;
}

bool Dictionary::contains(std::string_view key) const {
  return !(*this)[key].isNone();
}

detail::DictionaryNode& Dictionary::changing(size_t room) {
  return detail::makeChangeable<Entry>(node_, room);
}

void Dictionary::reserve(size_t count) {
  if (count > size()) changing(count - size());
}

void Dictionary::set(String key, Value value) {
  if (value.isNone()) return remove(key);
  const Entry* const found = position(begin(), end(), key.view());
  const auto index = found - begin();
  if (found != end() && found->key == key) {
    changing(0).begin()[index].value = std::move(value);
    return;
  }
  detail::DictionaryNode& node = changing(1);
  Entry* const place = node.begin() + index;
  Entry entry{std::move(key), std::move(value)};
  if (place == node.end()) {
    new (place) Entry(std::move(entry));
  } else {
    new (node.end()) Entry(std::move(node.end()[-1]));
    std::move_backward(place, node.end() - 1, node.end());
    *place = std::move(entry);
  }
  ++node.count;
}

void Dictionary::remove(std::string_view key) {
  const Entry* const found = position(begin(), end(), key);
  if (found == end() || found->key.view() != key) return;
  const auto index = found - begin();
  detail::DictionaryNode& node = changing(0);
  std::move(node.begin() + index + 1, node.end(), node.begin() + index);
  --node.count;
  std::destroy_at(node.end());
}

void Dictionary::removeKeysWithPrefix(std::string_view prefix) {
  // Sorted keys: those with the prefix stand together.
  const auto hasPrefix = [prefix](const Entry& entry) { return entry.key.view().starts_with(prefix); };
  const Entry* const first = position(begin(), end(), prefix);
  const Entry* const last = std::find_if_not(first, end(), hasPrefix);
  if (first == last) return;
  Dictionary kept;
  detail::DictionaryNode& node = kept.changing(size() - static_cast<size_t>(last - first));
  detail::appendTo(&node, begin(), static_cast<size_t>(first - begin()));
  detail::appendTo(&node, last, static_cast<size_t>(end() - last));
  *this = std::move(kept);
}

bool operator==(const Dictionary& a, const Dictionary& b) {
  return a.isSameObject(b) || std::equal(a.begin(), a.end(), b.begin(), b.end(),
                                         [](const Dictionary::Entry& x, const Dictionary::Entry& y) {
                                           return x.key == y.key && x.value == y.value;
                                         });
}

// --- Value ---

Value::Value(const UUID& value) : kind_(Kind::uuid), uuid_(new detail::UUIDNode(value)) {}

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

}  // namespace platform
