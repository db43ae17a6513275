#include "platform/log/Format.h"

#include <algorithm>
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
  const bool isSigned = argument.kind() == FormatArgument::Kind::integer &&
                        (conversion.letter == 'd' || conversion.letter == 'i');
  if (conversion.letter == 'c') {
    out += static_cast<char>(argument.unsignedInteger());
  } else if (conversion.flags.empty() &&
             (conversion.letter == 'd' || conversion.letter == 'u' || conversion.letter == 'i')) {
    out += isSigned ? std::to_string(argument.integer()) : std::to_string(argument.unsignedInteger());
  } else {
    // The argument's own type decides the length, never the format.
    const std::string text = "%" + std::string(conversion.flags) + "ll";
    if (isSigned) {
      appendPrintf(out, text + 'd', argument.integer());
    } else {
      const char letter = conversion.letter == 'd' || conversion.letter == 'i' ? 'u' : conversion.letter;
      appendPrintf(out, text + letter, argument.unsignedInteger());
    }
  }
}

/// Text with the width and the precision (its largest number of bytes) of "%-10.3s".
void appendText(std::string& out, std::string_view flags, std::string_view text) {
  if (flags.empty()) {
    out += text;
    return;
  }
  const auto number = [](std::string_view digits) {
    size_t value = 0;
    for (const char digit : digits)
      value = std::min<size_t>(value * 10 + static_cast<size_t>(digit - '0'), 4096);
    return value;
  };
  const size_t point = std::min(flags.find('.'), flags.size());
  const size_t begin = std::min(flags.find_first_not_of("-+ #0"), point);
  if (point < flags.size()) text = text.substr(0, number(flags.substr(point + 1)));
  const size_t width = number(flags.substr(begin, point - begin));
  const std::string padding(width > text.size() ? width - text.size() : 0, ' ');
  const bool isLeft = flags.substr(0, begin).find('-') != std::string_view::npos;
  if (!isLeft) out += padding;
  out += text;
  if (isLeft) out += padding;
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
      appendText(out, conversion.flags, argument.text());
      break;
    case Kind::pointer:
      appendPrintf(out, "%p", argument.pointer());
      break;
    case Kind::object:
      appendText(out, conversion.flags, argument.description());
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
