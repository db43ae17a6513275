// The templates of Format.h.

namespace platform {

namespace detail {

template <typename T>
concept DescribesItself = requires(const T& value) {
  { value.description() } -> std::convertible_to<std::string>;
};
template <typename T>
inline constexpr bool isOptional = false;
template <typename T>
inline constexpr bool isOptional<std::optional<T>> = true;
template <typename T>
inline constexpr bool isSharedPointer = false;
template <typename T>
inline constexpr bool isSharedPointer<std::shared_ptr<T>> = true;

template <typename T>
std::string describe(const void* value) {
  const T& object = *static_cast<const T*>(value);
  if constexpr (isOptional<T>) {
    return object ? FormatArgument(*object).description() : "(null)";
  } else if constexpr (isSharedPointer<T>) {
    return object ? object->description() : "(null)";
  } else {
    return object.description();
  }
}

constexpr bool isFlag(char c) {
  return c == '-' || c == '+' || c == ' ' || c == '#' || c == '0';
}
constexpr bool isDigit(char c) {
  return c >= '0' && c <= '9';
}

/// One conversion of a format: "%[flags][width][.precision][length]letter".
struct Conversion {
  size_t begin = 0, end = 0;  // of the whole conversion in the format
  std::string_view flags;     // flags, width and precision, as written
  char letter = 0;            // 0: the format ends inside the conversion
};

/// The conversion that begins at `at`, where a '%' stands.
constexpr Conversion parseConversion(std::string_view format, size_t at) {
  Conversion conversion;
  conversion.begin = at;
  size_t i = at + 1;
  while (i < format.size() && (isFlag(format[i]) || isDigit(format[i]) || format[i] == '.')) ++i;
  conversion.flags = format.substr(at + 1, i - at - 1);
  while (i < format.size() && (format[i] == 'l' || format[i] == 'h' || format[i] == 'z')) ++i;
  if (i < format.size()) conversion.letter = format[i++];
  conversion.end = i;
  return conversion;
}

constexpr bool conversionTakes(char letter, FormatArgument::Kind kind) {
  using Kind = FormatArgument::Kind;
  switch (letter) {
    case 'd':
    case 'i':
    case 'u':
    case 'x':
    case 'X':
    case 'o':
    case 'c':
      return kind == Kind::integer || kind == Kind::unsignedInteger;
    case 'f':
    case 'g':
    case 'e':
      return kind == Kind::real;
    case 's':
      return kind == Kind::text;
    case 'p':
      return kind == Kind::pointer;
    case '@':
      return kind == Kind::object || kind == Kind::text;
    default:
      return false;
  }
}

consteval void checkFormat(std::string_view format, std::span<const FormatArgument::Kind> kinds) {
  size_t used = 0;
  for (size_t at = format.find('%'); at != std::string_view::npos;) {
    const Conversion conversion = parseConversion(format, at);
    if (conversion.letter != '%') {
      if (used == kinds.size() || !conversionTakes(conversion.letter, kinds[used]))
        formatDoesNotFitItsArguments();
      ++used;
    }
    at = format.find('%', conversion.end);
  }
  if (used != kinds.size()) formatDoesNotFitItsArguments();
}

}  // namespace detail

template <typename T>
consteval FormatArgument::Kind FormatArgument::kindOf() {
  if constexpr (std::is_enum_v<T> || std::signed_integral<T> || std::same_as<T, bool>) {
    return Kind::integer;
  } else if constexpr (std::unsigned_integral<T>) {
    return Kind::unsignedInteger;
  } else if constexpr (std::floating_point<T>) {
    return Kind::real;
  } else if constexpr (std::convertible_to<T, std::string_view>) {
    return Kind::text;
  } else if constexpr (std::is_pointer_v<T>) {
    return Kind::pointer;
  } else {
    static_assert(detail::DescribesItself<T> || detail::isOptional<T> || detail::isSharedPointer<T>,
                  "an argument of a format is a number, a string, a pointer or describes itself");
    return Kind::object;
  }
}

template <typename T>
FormatArgument::FormatArgument(const T& value) : kind_(kindOf<T>()) {
  if constexpr (kindOf<T>() == Kind::integer) {
    integer_ = static_cast<int64_t>(value);
    size_ = sizeof(T);
  } else if constexpr (kindOf<T>() == Kind::unsignedInteger) {
    unsigned_ = value;
  } else if constexpr (kindOf<T>() == Kind::real) {
    real_ = static_cast<double>(value);
  } else if constexpr (kindOf<T>() == Kind::text) {
    pointer_ = nullptr;
    if constexpr (std::is_pointer_v<T>) {
      text_ = value == nullptr ? std::string_view("(null)") : std::string_view(value);
    } else {
      text_ = value;
    }
  } else if constexpr (kindOf<T>() == Kind::pointer) {
    pointer_ = value;
  } else {
    pointer_ = &value;
    describe_ = &detail::describe<T>;
  }
}

}  // namespace platform
