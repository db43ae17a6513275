#include "platform/log/Format.h"

#include <cstdio>

namespace platform {

namespace {

template <typename T>
void appendPrintf(std::string& out, const std::string& conversion, T value) {
  char text[128];
  const int length = std::snprintf(text, sizeof text, conversion.c_str(), value);
  if (length < 0) return;
  if (static_cast<size_t>(length) < sizeof text) {
    out.append(text, static_cast<size_t>(length));
    return;
  }
  std::string longer(static_cast<size_t>(length) + 1, '\0');
  std::snprintf(longer.data(), longer.size(), conversion.c_str(), value);
  out.append(longer, 0, static_cast<size_t>(length));
}

void appendInteger(std::string& out, const detail::Conversion& conversion, const FormatArgument& argument) {
  const bool isUnsigned = argument.kind() == FormatArgument::Kind::unsignedInteger;
  if (conversion.letter == 'c') {
    out += static_cast<char>(argument.unsignedInteger());
  } else if (conversion.flags.empty() &&
             (conversion.letter == 'd' || conversion.letter == 'u' || conversion.letter == 'i')) {
    out += isUnsigned ? std::to_string(argument.unsignedInteger()) : std::to_string(argument.integer());
  } else {
    // The argument's own type decides the length, never the format.
    std::string text = "%" + std::string(conversion.flags) + "ll";
    text += (conversion.letter == 'd' || conversion.letter == 'i') && isUnsigned ? 'u' : conversion.letter;
    appendPrintf(out, text, argument.unsignedInteger());
  }
}

void appendArgument(std::string& out, const detail::Conversion& conversion, const FormatArgument& argument) {
  using Kind = FormatArgument::Kind;
  if (!detail::conversionTakes(conversion.letter, argument.kind())) {
    out += "(?)";
    return;
  }
  switch (argument.kind()) {
    case Kind::integer:
    case Kind::unsignedInteger:
      appendInteger(out, conversion, argument);
      break;
    case Kind::real:
      appendPrintf(out, "%" + std::string(conversion.flags) + conversion.letter, argument.real());
      break;
    case Kind::text:
      out += argument.text();
      break;
    case Kind::pointer:
      appendPrintf(out, "%p", argument.pointer());
      break;
    case Kind::object:
      out += argument.description();
      break;
  }
}

}  // namespace

namespace detail {
void formatDoesNotFitItsArguments() {}
}  // namespace detail

std::string FormatArgument::description() const {
  switch (kind_) {
    case Kind::integer:
      return std::to_string(integer_);
    case Kind::unsignedInteger:
      return std::to_string(unsigned_);
    case Kind::real:
      return Value(real_).description();
    case Kind::text:
      return std::string(text_);
    case Kind::pointer: {
      std::string out;
      appendPrintf(out, "%p", pointer_);
      return out;
    }
    case Kind::object:
      return describe_(pointer_);
  }
  return {};
}

std::string formatArguments(std::string_view format, std::span<const FormatArgument> arguments) {
  std::string out;
  out.reserve(format.size() + 32 * arguments.size());
  size_t used = 0;
  size_t done = 0;
  for (size_t at = format.find('%'); at != std::string_view::npos; at = format.find('%', done)) {
    out.append(format, done, at - done);
    const detail::Conversion conversion = detail::parseConversion(format, at);
    if (conversion.letter == '%') {
      out += '%';
    } else if (used < arguments.size()) {
      appendArgument(out, conversion, arguments[used++]);
    } else {
      out += "(?)";
    }
    done = conversion.end;
  }
  out.append(format, done);
  return out;
}

}  // namespace platform
