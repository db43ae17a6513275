// XML property lists are written straight into one string. Whatever reads back differently is refused.

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>

#include "platform/propertylist/PropertyList.h"
#include "platform/propertylist/Readers.h"
#include "platform/value/UTF8.h"

namespace platform {

namespace {

constexpr std::string_view kHeader = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\">\n";
constexpr std::string_view kFooter = "</plist>\n";

/// Deeper lines are not indented further, so that nesting does not multiply the size of a file.
constexpr size_t kDeepestIndentation = 16;

/// The seconds since 1970 at which the years 1 and 10000 begin.
const int64_t kYear1 = detail::daysFromCivil(1, 1, 1) * 86400;
const int64_t kYear10000 = detail::daysFromCivil(10000, 1, 1) * 86400;

bool canWriteDate(double seconds) {
  return seconds >= static_cast<double>(kYear1) && seconds < static_cast<double>(kYear10000) &&
         seconds == std::floor(seconds);
}

void appendNumber(std::string& out, auto number) {
  char text[32];
  out.append(text, std::to_chars(text, text + sizeof text, number).ptr);
}

void appendDate(std::string& out, double seconds) {
  const std::string description = Date{seconds}.description();
  // "2026-11-22 21:00:00 +0000", with leading zeros missing from early years.
  std::string text = description.substr(0, description.find(" +"));
  text[text.find(' ')] = 'T';
  out.append(20 - text.size() - 1, '0');
  out += text;
  out += 'Z';
}

void appendBase64(std::string& out, std::span<const uint8_t> bytes) {
  constexpr char kDigits[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  size_t at = 0;
  const auto append = [&](uint32_t bits, int digits) {
    for (int i = 0; i < 4; ++i) out += i < digits ? kDigits[bits >> (18 - 6 * i) & 63] : '=';
  };
  for (; at + 3 <= bytes.size(); at += 3)
    append(static_cast<uint32_t>(bytes[at] << 16 | bytes[at + 1] << 8 | bytes[at + 2]), 4);
  if (bytes.size() - at == 1) append(static_cast<uint32_t>(bytes[at] << 16), 2);
  if (bytes.size() - at == 2) append(static_cast<uint32_t>(bytes[at] << 16 | bytes[at + 1] << 8), 3);
}

/// What a character of text is written as; empty: as it is.
constexpr auto kReferences = [] {
  std::array<std::string_view, 256> references{};
  references['&'] = "&amp;";
  references['<'] = "&lt;";
  references['>'] = "&gt;";
  references['\r'] = "&#13;";
  return references;
}();

void appendText(std::string& out, std::string_view text) {
  size_t done = 0;
  for (size_t at = 0; at < text.size(); ++at) {
    const std::string_view reference = kReferences[static_cast<uint8_t>(text[at])];
    if (reference.empty()) continue;
    out.append(text, done, at - done);
    out += reference;
    done = at + 1;
  }
  out.append(text, done);
}

class Writer {
 public:
  explicit Writer(std::string& out) : out_(out) {}

  bool write(const Value& value, int nesting) {
    indent();
    switch (value.kind()) {
      case Value::Kind::boolean:
        out_ += *value.boolean() ? "<true/>\n" : "<false/>\n";
        return true;
      case Value::Kind::integer:
        out_ += "<integer>";
        appendNumber(out_, value.integerValue());
        out_ += "</integer>\n";
        return true;
      case Value::Kind::unsignedInteger:
        out_ += "<integer>";
        appendNumber(out_, value.unsignedValue());
        out_ += "</integer>\n";
        return true;
      case Value::Kind::real:
        out_ += "<real>";
        appendNumber(out_, *value.real());
        out_ += "</real>\n";
        return std::isfinite(*value.real());
      case Value::Kind::string:
        out_ += "<string>";
        appendText(out_, *value.string());
        out_ += "</string>\n";
        return isValidXMLText(*value.string());
      case Value::Kind::data:
        out_ += "<data>";
        appendBase64(out_, value.data()->bytes());
        out_ += "</data>\n";
        return true;
      case Value::Kind::date:
        if (!canWriteDate(value.date()->secondsSince1970)) return false;
        out_ += "<date>";
        appendDate(out_, value.date()->secondsSince1970);
        out_ += "</date>\n";
        return true;
      case Value::Kind::array:
        return nesting > 0 && writeArray(*value.array(), nesting - 1);
      case Value::Kind::dictionary:
        return nesting > 0 && writeDictionary(*value.dictionary(), nesting - 1);
      case Value::Kind::none:
      case Value::Kind::uuid:
      case Value::Kind::encoded:
        break;
    }
    return false;
  }

 private:
  void indent() { out_.append(std::min(depth_, kDeepestIndentation), '\t'); }

  bool writeArray(const Array& array, int nesting) {
    if (array.empty()) {
      out_ += "<array/>\n";
      return true;
    }
    out_ += "<array>\n";
    ++depth_;
    for (const Value& element : array) {
      if (!write(element, nesting)) return false;
    }
    --depth_;
    indent();
    out_ += "</array>\n";
    return true;
  }

  bool writeDictionary(const Dictionary& dictionary, int nesting) {
    if (dictionary.empty()) {
      out_ += "<dict/>\n";
      return true;
    }
    out_ += "<dict>\n";
    ++depth_;
    for (const auto& [key, value] : dictionary) {
      indent();
      out_ += "<key>";
      appendText(out_, key);
      out_ += "</key>\n";
      if (!isValidXMLText(key) || !write(value, nesting)) return false;
    }
    --depth_;
    indent();
    out_ += "</dict>\n";
    return true;
  }

  std::string& out_;
  size_t depth_ = 0;
};

}  // namespace

Result<std::string> serializePropertyList(const Value& value) {
  std::string out;
  out += kHeader;
  if (!Writer(out).write(value, kMaximumFileNesting)) {
    return Error{std::string(kFileErrorDomain), kPropertyListWriteInvalid,
                 "the value cannot be restored from a property list"};
  }
  out += kFooter;
  return out;
}

std::string unwritablePart(const Value& value, int nesting) {
  const auto joined = [nesting](const std::string& name, const Value& part) {
    const std::string rest = nesting > 0 ? unwritablePart(part, nesting - 1) : std::string();
    return rest.empty() ? name : name + "." + rest;
  };
  if (const Array* array = value.array()) {
    for (size_t i = 0; i < array->size(); ++i)
      if (!canBeWritten((*array)[i], nesting - 1)) return joined(std::to_string(i), (*array)[i]);
  }
  if (const Dictionary* dictionary = value.dictionary()) {
    for (const auto& [key, part] : *dictionary) {
      if (!isValidXMLText(key)) return std::string(key.view());
      if (!canBeWritten(part, nesting - 1)) return joined(std::string(key.view()), part);
    }
  }
  return {};
}

namespace {

bool hasFractionOfSecond(const Value& value) {
  if (const auto date = value.date()) return date->secondsSince1970 != std::floor(date->secondsSince1970);
  if (const Array* array = value.array())
    return std::any_of(array->begin(), array->end(), hasFractionOfSecond);
  if (const Dictionary* dictionary = value.dictionary())
    return std::any_of(dictionary->begin(), dictionary->end(),
                       [](const Dictionary::Entry& entry) { return hasFractionOfSecond(entry.value); });
  return false;
}

}  // namespace

Value withWholeSeconds(const Value& value) {
  if (!hasFractionOfSecond(value)) return value;
  if (const auto date = value.date()) return Date{std::round(date->secondsSince1970)};
  if (const Array* array = value.array()) {
    Array rounded;
    for (const Value& element : *array) rounded.append(withWholeSeconds(element));
    return rounded;
  }
  Dictionary rounded;
  for (const auto& [key, part] : *value.dictionary()) rounded.set(key, withWholeSeconds(part));
  return rounded;
}

bool canBeWritten(const Value& value, int nesting) {
  switch (value.kind()) {
    case Value::Kind::boolean:
    case Value::Kind::integer:
    case Value::Kind::unsignedInteger:
    case Value::Kind::data:
      return true;
    case Value::Kind::real:
      return std::isfinite(*value.real());
    case Value::Kind::string:
      return isValidXMLText(*value.string());
    case Value::Kind::date:
      return canWriteDate(value.date()->secondsSince1970);
    case Value::Kind::array:
      return nesting > 0 &&
             std::all_of(value.array()->begin(), value.array()->end(),
                         [&](const Value& element) { return canBeWritten(element, nesting - 1); });
    case Value::Kind::dictionary:
      return nesting > 0 && std::all_of(value.dictionary()->begin(), value.dictionary()->end(),
                                        [&](const Dictionary::Entry& entry) {
                                          return isValidXMLText(entry.key) &&
                                                 canBeWritten(entry.value, nesting - 1);
                                        });
    case Value::Kind::none:
    case Value::Kind::uuid:
    case Value::Kind::encoded:
      break;
  }
  return false;
}

}  // namespace platform
