#pragma once

// A rule dictionary taken apart, so that many plug-ins can be matched with it: keys are told apart, patterns
// parsed and long lists of literals made sets once. What it decides is ABDPlugIn::match(). Its keys and texts
// are those of the dictionary, which it keeps. Used by one thread at a time.

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <unordered_set>
#include <vector>

#include "platform/types/TypeConformance.h"
#include "platform/value/Flaw.h"
#include "platform/value/Value.h"

namespace abd {

using namespace platform;

/// Keys by which a search is narrowed, beside the name of the extension point.
namespace rulekey {
inline constexpr const char* identifier = "ZQExtensionIdentifier";
inline constexpr const char* election = "ZQUserElection";
}  // namespace rulekey

/// A string pattern, or an array of them.
class StringPatterns {
 public:
  /// `patterns` lives longer. What is no string in it never holds.
  explicit StringPatterns(const Value& patterns);

  /// Whether one of them holds for the value, tried in order. An operator that is not known is logged each
  /// time it is tried, and does not hold.
  bool hold(std::string_view value, TypeConformances& types) const;

  /// Which of `patterns` never hold for any of the values that `isPossible` is true of (asked with what a
  /// pattern demands to be the same), with their indexes where there are several.
  static std::vector<Flaw> flaws(const Value& patterns,
                                 const std::function<bool(std::string_view)>& isPossible);

 private:
  enum class Operator : uint8_t { conforms, is, unknown, different, atMost, atLeast, same, less, greater };
  struct Pattern {
    explicit Pattern(std::string_view text);
    bool holds(std::string_view value, TypeConformances& types) const;

    Operator op;
    std::string_view text, operand;
  };

  std::vector<Pattern> patterns_;
  /// Instead of them when all ask for the same: what each asks for, as canonicalVersionString().
  std::unordered_set<std::string> literals_;
};

/// One entry of a rule dictionary.
class Rule {
 public:
  enum class Source : uint8_t { entitlement, identifier, uuid, election, containingApp, info };

  /// `key` and `pattern` live longer.
  Rule(std::string_view key, const Value& pattern);

  /// Where the plug-in's value comes from.
  Source source() const { return source_; }
  /// The key, or what follows the prefix of entitlements.
  std::string_view key() const { return key_; }
  /// Whether the pattern holds for the plug-in's value, which is a none value when the plug-in has none.
  bool holds(const Value& value, TypeConformances& types) const;

  /// What in the pattern never holds, whatever the plug-in; paths begin in the pattern.
  static std::vector<Flaw> flaws(std::string_view key, const Value& pattern);
  /// Whether these flaws leave nothing of the pattern that could hold: a list has other alternatives, and
  /// items without types are taken by plug-ins that take anything.
  static bool isRuledOut(const Value& pattern, const std::vector<Flaw>& flaws);

 private:
  enum class Kind : uint8_t { present, absent, items, strings };

  Source source_;
  std::string_view key_;
  Kind kind_;
  const Dictionary* items_;
  StringPatterns patterns_;
};

class Rules {
 public:
  /// `types` is kept by reference.
  Rules(Dictionary rules, TypeConformances& types);
  Rules(const Rules&) = delete;
  Rules& operator=(const Rules&) = delete;

  /// Entries, patterns, items and types of items, all together: what matching one plug-in may cost.
  static size_t sizeOf(const Dictionary& rules);

  const std::vector<Rule>& all() const { return rules_; }
  /// What they were made from, in the same order.
  const Dictionary& dictionary() const { return dictionary_; }
  TypeConformances& types() const { return types_; }

 private:
  const Dictionary dictionary_;
  TypeConformances& types_;
  std::vector<Rule> rules_;
};

}  // namespace abd
