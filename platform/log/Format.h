#pragma once

// printf-style formatting (printf(3)) with one more conversion, "%@", which prints an object's description,
// and "(null)" for none. Formats are literals and are checked against their arguments at compile time;
// arguments are typed, so no length modifier is ever trusted. Pure functions, usable from any thread.

#include <concepts>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <type_traits>

#include "platform/value/Value.h"

#pragma GCC visibility push(default)

namespace platform {

/// One argument of a format. Holds references: it lives no longer than the call that it is made for.
class FormatArgument {
 public:
  enum class Kind : uint8_t { integer, unsignedInteger, real, text, pointer, object };

  template <typename T>
  FormatArgument(const T& value);  // NOLINT: every argument converts

  Kind kind() const { return kind_; }
  int64_t integer() const { return integer_; }
  /// The integer as an unsigned one of its own size: what "%x" of a negative int prints has 8 digits.
  uint64_t unsignedInteger() const { return unsigned_ & (~uint64_t{0} >> (64 - 8 * size_)); }
  double real() const { return real_; }
  const void* pointer() const { return pointer_; }
  std::string_view text() const { return text_; }
  /// What "%@" prints.
  std::string description() const;

  /// The kind of an argument of type T, as formats see it.
  template <typename T>
  static consteval Kind kindOf();

 private:
  Kind kind_;
  uint8_t size_ = sizeof(uint64_t);  // of an integer, in bytes
  union {
    int64_t integer_;
    uint64_t unsigned_;
    double real_;
    const void* pointer_;
  };
  std::string_view text_;
  std::string (*describe_)(const void*) = nullptr;
};

namespace detail {

/// Not constexpr, so that reaching it in a constant evaluation fails to compile.
void formatDoesNotFitItsArguments();

/// Calls formatDoesNotFitItsArguments() unless every conversion of `format` takes the argument at its place.
consteval void checkFormat(std::string_view format, std::span<const FormatArgument::Kind> kinds);

}  // namespace detail

/// A literal that was checked against Args.
template <typename... Args>
class BasicFormat {
 public:
  template <std::convertible_to<std::string_view> S>
  consteval BasicFormat(const S& text) : text_(text) {  // NOLINT
    constexpr FormatArgument::Kind kinds[] = {FormatArgument::kindOf<std::remove_cvref_t<Args>>()...,
                                              FormatArgument::Kind::integer};
    detail::checkFormat(text_, std::span(kinds, sizeof...(Args)));
  }
  std::string_view text() const { return text_; }

 private:
  std::string_view text_;
};
template <typename... Args>
using Format = BasicFormat<std::type_identity_t<Args>...>;

/// The formatter behind format(). A conversion that does not fit its argument prints "(?)".
std::string formatArguments(std::string_view format, std::span<const FormatArgument> arguments);

/// `format("client %d %s", pid, path)`.
template <typename... Args>
std::string format(Format<Args...> text, const Args&... args) {
  const FormatArgument arguments[] = {FormatArgument(args)..., FormatArgument(0)};
  return formatArguments(text.text(), std::span(arguments, sizeof...(Args)));
}

}  // namespace platform

#pragma GCC visibility pop

#include "platform/log/Format.inl"
