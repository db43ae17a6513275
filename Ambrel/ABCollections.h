#pragma once

// Small helpers over messages, collections and version strings. Pure functions; any thread.

#include <compare>
#include <concepts>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

#include "platform/value/Value.h"

#if defined(__clang__)
#pragma clang diagnostic push
#pragma clang diagnostic ignored "-Wreturn-type-c-linkage"
#endif
/// The value under `key` when it is an array (a dictionary), else none. Never converts. The answer is the
/// caller's own reference.
extern "C" std::optional<platform::Array> qmx_dictionary_get_array(const platform::Dictionary& message,
                                                                   const char* key);
extern "C" std::optional<platform::Dictionary> qmx_dictionary_get_dictionary(
    const platform::Dictionary& message, const char* key);
#if defined(__clang__)
#pragma clang diagnostic pop
#endif

namespace ambrel {

using namespace platform;

/// Maps every element of `collection`, in its order, and drops null results: a map and a filter in one. An
/// array when `block` answers values, else a vector of what it answers (pointers; optionals are opened).
template <typename Collection, typename Block>
auto arrayWithValues(const Collection& collection, Block&& block) {
  using Answer = std::remove_cvref_t<std::invoke_result_t<Block&, decltype(*std::begin(collection))>>;
  if constexpr (std::same_as<Answer, Value>) {
    Array values;
    for (const auto& element : collection)
      if (Value value = block(element); !value.isNone()) values.append(std::move(value));
    return values;
  } else if constexpr (requires(Answer answer) { answer.has_value(); }) {
    std::vector<typename Answer::value_type> values;
    for (const auto& element : collection)
      if (Answer value = block(element)) values.push_back(*std::move(value));
    return values;
  } else {
    std::vector<Answer> values;
    for (const auto& element : collection)
      if (Answer value = block(element)) values.push_back(std::move(value));
    return values;
  }
}

/// A copy of `dictionary` with `value` under `key` (a none value: without the key). The copy shares the other
/// values; one that is handed over and that nobody else holds is changed in place.
Dictionary dictionaryChanging(Dictionary dictionary, String key, Value value);
/// The same for a value: of anything that is not a dictionary it is none.
Value dictionaryChanging(Value dictionary, String key, Value value);

/// Runs of decimal digits (of any length) compare by numeric value, everything else by Unicode scalar; a
/// string that is a prefix of the other orders first. 01 and 1 are the same.
std::weak_ordering compareVersionString(std::string_view version, std::string_view other);
/// A string that two strings share exactly when they compare as the same.
std::string canonicalVersionString(std::string_view version);

}  // namespace ambrel
