// Values as text for people and for the log: one line, whole.

#include <cstdio>
#include <cstdlib>
#include <span>
#include <string>
#include <string_view>
#include <utility>

#include "platform/value/Value.h"

namespace platform {

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
  constexpr char kDigits[] = "0123456789abcdef";
  out += '<';
  for (const uint8_t byte : bytes) {
    out += kDigits[byte >> 4];
    out += kDigits[byte & 15];
  }
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
