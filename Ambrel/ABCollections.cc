#include "Ambrel/ABCollections.h"

#include <algorithm>

std::optional<platform::Array> qmx_dictionary_get_array(const platform::Dictionary& message,
                                                        const char* key) {
  const platform::Array* array = message[key].array();
  if (array == nullptr) return std::nullopt;
  return *array;
}

std::optional<platform::Dictionary> qmx_dictionary_get_dictionary(const platform::Dictionary& message,
                                                                  const char* key) {
  const platform::Dictionary* dictionary = message[key].dictionary();
  if (dictionary == nullptr) return std::nullopt;
  return *dictionary;
}

namespace ambrel {

Dictionary dictionaryChanging(Dictionary dictionary, String key, Value value) {
  dictionary.set(std::move(key), std::move(value));
  return dictionary;
}

Value dictionaryChanging(Value dictionary, String key, Value value) {
  if (!dictionary.isDictionary()) return Value();
  return dictionaryChanging(dictionary.takeDictionary(), std::move(key), std::move(value));
}

namespace {

bool isDigit(char c) {
  return c >= '0' && c <= '9';
}

/// Takes the run of digits at the front of `text`, without its leading zeros.
std::string_view takeNumber(std::string_view& text) {
  const size_t length =
      static_cast<size_t>(std::find_if_not(text.begin(), text.end(), isDigit) - text.begin());
  std::string_view digits = text.substr(0, length);
  digits.remove_prefix(std::min(digits.find_first_not_of('0'), digits.size()));
  text.remove_prefix(length);
  return digits;
}

}  // namespace

// The order of UTF-8's bytes is the order of the characters, so characters need no decoding; and a run of
// digits stands to any other character as its first digit does, so the order is a total one.
std::weak_ordering compareVersionString(std::string_view version, std::string_view other) {
  while (!version.empty() && !other.empty()) {
    if (isDigit(version.front()) && isDigit(other.front())) {
      const std::string_view a = takeNumber(version);
      const std::string_view b = takeNumber(other);
      if (a.size() != b.size()) return a.size() <=> b.size();
      if (const auto order = a <=> b; order != 0) return order;
    } else {
      const auto a = static_cast<unsigned char>(version.front());
      const auto b = static_cast<unsigned char>(other.front());
      if (a != b) return a <=> b;
      version.remove_prefix(1);
      other.remove_prefix(1);
    }
  }
  return version.size() <=> other.size();
}

std::string canonicalVersionString(std::string_view version) {
  std::string canonical;
  canonical.reserve(version.size());
  while (!version.empty()) {
    if (isDigit(version.front())) {
      const std::string_view number = takeNumber(version);
      canonical += number.empty() ? "0" : number;
    } else {
      canonical += version.front();
      version.remove_prefix(1);
    }
  }
  return canonical;
}

}  // namespace ambrel
