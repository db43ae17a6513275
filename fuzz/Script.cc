#include "fuzz/Script.h"

#include <charconv>

#include "platform/qmx/Encoding.h"

namespace fuzzing {

namespace {

/// More than a message may have.
constexpr int kDeepest = 600;

template <typename T>
std::optional<T> number(std::string_view text) {
  T number{};
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  return error == std::errc() && end == text.data() + text.size() ? std::optional(number) : std::nullopt;
}

}  // namespace

void ValueReader::skipBlanks() {
  while (text_.starts_with(' ')) text_.remove_prefix(1);
}

bool ValueReader::take(char expected) {
  if (!text_.starts_with(expected)) return false;
  text_.remove_prefix(1);
  return true;
}

std::string_view ValueReader::word() {
  skipBlanks();
  const std::string_view word = text_.substr(0, text_.find_first_of(" {}[]"));
  text_.remove_prefix(word.size());
  return word;
}

Dictionary ValueReader::entries() {
  Dictionary all;
  for (skipBlanks(); !text_.empty() && !take('}'); skipBlanks()) {
    const std::string_view key = text_.substr(0, text_.find_first_of("= {}[]"));
    text_.remove_prefix(key.size());
    if (!take('=') && key.empty()) text_.remove_prefix(1);
    all.set(key, value());
  }
  return all;
}

Array ValueReader::elements() {
  Array all;
  for (skipBlanks(); !text_.empty() && !take(']'); skipBlanks()) {
    if (text_.starts_with('}')) text_.remove_prefix(1);
    all.append(value());
  }
  return all;
}

Value ValueReader::value() {
  Value result;
  if (++nesting_ > kDeepest) text_ = {};
  if (take('{')) {
    result = entries();
  } else if (take('[')) {
    result = elements();
  } else if (take('&')) {
    result = qmx::encodePropertyList(value());
  } else if (take('"')) {
    const std::string_view text = text_.substr(0, text_.find('"'));
    text_.remove_prefix(text.size());
    take('"');
    result = text;
  } else {
    result = plain(word());
  }
  --nesting_;
  return result;
}

Value ValueReader::plain(std::string_view word) const {
  if (word.empty()) return "";
  const std::string_view rest = word.substr(1);
  switch (word[0]) {
    case '@':
    case '#':
    case '$':
      return named_(word[0], number<size_t>(rest).value_or(0));
    case ':':
      return Data(rest);
    case '\'':
      return Date{number<double>(rest).value_or(0)};
    case '~':
      return {};
    default:
      break;
  }
  if (word == "true" || word == "false") return word == "true";
  if (const auto integer = number<int64_t>(word)) return *integer;
  if (const auto large = number<uint64_t>(word)) return *large;
  if (const auto real = number<double>(word)) return *real;
  return word;
}

}  // namespace fuzzing
