#include "platform/qmx/Message.h"

#include "platform/qmx/Encoding.h"

namespace platform::qmx {

namespace {

/// `value` with the encoded property lists in it written out. Lists inside such a list stay as they are.
Value writtenOut(const Value& value) {
  if (const EncodedPropertyList* list = value.encoded()) {
    std::optional<Value> contents = decodePropertyList(*list);
    return contents ? std::move(*contents) : value;
  }
  if (const Array* array = value.array()) {
    Array copy = *array;
    for (size_t i = 0; i < copy.size(); ++i) {
      Value element = writtenOut(copy[i]);
      if (!element.isSameObject(copy[i])) copy.set(i, std::move(element));
    }
    return copy;
  }
  if (const Dictionary* dictionary = value.dictionary()) {
    Dictionary copy = *dictionary;
    for (const auto& [key, element] : *dictionary) {
      Value out = writtenOut(element);
      if (!out.isSameObject(element)) copy.set(key, std::move(out));
    }
    return copy;
  }
  return value;
}

}  // namespace

std::string Message::description() const {
  return writtenOut(body).description();
}

uint64_t Message::unsignedValue(std::string_view key) const {
  const Value& value = body[key];
  if (value.kind() != Value::Kind::integer && value.kind() != Value::Kind::unsignedInteger) return 0;
  if (value.kind() == Value::Kind::integer && value.integerValue() < 0) return 0;
  return value.unsignedValue();
}

}  // namespace platform::qmx
