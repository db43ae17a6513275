#include "abd/plugin/Rules.h"

#include <algorithm>
#include <compare>
#include <cstdlib>

#include "Ambrel/ABCollections.h"
#include "platform/log/Log.h"
#include "platform/types/ActivationRules.h"
#include "platform/value/UUID.h"

namespace abd {

using namespace ambrel;

namespace {

constexpr std::string_view kEntitlementPrefix = "ENTITLEMENT:";
constexpr std::string_view kUUIDKey = "com.veltra.uuid";
constexpr std::string_view kContainingAppKey = "ZQExtensionContainingApp";

/// From here on a set is quicker than looking through the list.
constexpr size_t kSmallestSet = 8;

bool isPresentAndNotFalse(const Value& value) {
  return !value.isNone() && !value.isFalse();
}

size_t sizeOfItems(const Dictionary& pattern) {
  const Array* items = pattern["items"].array();
  if (items == nullptr) return 0;
  size_t size = items->size();
  for (const Value& item : *items)
    if (const Array* types = item["types"].array()) size += types->size();
  return size;
}

}  // namespace

// --- String patterns ---

StringPatterns::Pattern::Pattern(std::string_view pattern) : op(Operator::same), text(pattern) {
  struct Prefix {
    std::string_view text;
    Operator op;
  };
  // In the order in which they are tried.
  static constexpr Prefix kPrefixes[] = {{"?TY-CONFORMS:", Operator::conforms},
                                         {"?TY-IS:", Operator::is},
                                         {"?", Operator::unknown},
                                         {"<>", Operator::different},
                                         {"<=", Operator::atMost},
                                         {">=", Operator::atLeast},
                                         {"=", Operator::same},
                                         {"<", Operator::less},
                                         {">", Operator::greater},
                                         {"", Operator::same}};
  const Prefix& prefix = *std::ranges::find_if(
      kPrefixes, [pattern](const Prefix& each) { return pattern.starts_with(each.text); });
  op = prefix.op;
  operand = pattern.substr(prefix.text.size());
}

bool StringPatterns::Pattern::holds(std::string_view value, TypeConformances& types) const {
  switch (op) {
    case Operator::conforms:
      return types.conforms(value, operand);
    case Operator::is:
      return types.conforms(operand, value);
    case Operator::unknown:
      systemLog("unrecognized match operator:%@", text);
      return false;
    case Operator::different:
      return std::is_neq(compareVersionString(value, operand));
    case Operator::atMost:
      return std::is_lteq(compareVersionString(value, operand));
    case Operator::atLeast:
      return std::is_gteq(compareVersionString(value, operand));
    case Operator::same:
      return std::is_eq(compareVersionString(value, operand));
    case Operator::less:
      return std::is_lt(compareVersionString(value, operand));
    case Operator::greater:
      return std::is_gt(compareVersionString(value, operand));
  }
  return false;
}

StringPatterns::StringPatterns(const Value& patterns) {
  if (const auto text = patterns.string()) patterns_.emplace_back(*text);
  if (const Array* list = patterns.array()) {
    for (const Value& each : *list)
      if (const auto text = each.string()) patterns_.emplace_back(*text);
  }
  const bool areLiterals =
      std::ranges::all_of(patterns_, [](const Pattern& each) { return each.op == Operator::same; });
  if (!areLiterals || patterns_.size() < kSmallestSet) return;
  for (const Pattern& each : patterns_) literals_.insert(canonicalVersionString(each.operand));
}

std::vector<Flaw> StringPatterns::flaws(const Value& patterns,
                                        const std::function<bool(std::string_view)>& isPossible) {
  std::vector<Flaw> flaws;
  const auto judge = [&](const Value& each, KeyPath path) {
    const auto text = each.string();
    if (!text) {
      flaws.push_back({std::move(path), "the pattern is no text"});
      return;
    }
    const Pattern pattern(*text);
    if (pattern.op == Operator::unknown)
      flaws.push_back({std::move(path), "there is no such operator: \"" + std::string(*text) + "\""});
    else if (pattern.op == Operator::same && !isPossible(pattern.operand))
      flaws.push_back({std::move(path), "the value is never \"" + std::string(pattern.operand) + "\""});
  };
  const Array* list = patterns.array();
  if (list == nullptr) judge(patterns, {});
  for (size_t i = 0; list != nullptr && i < list->size(); i++) judge((*list)[i], {std::to_string(i)});
  return flaws;
}

bool StringPatterns::hold(std::string_view value, TypeConformances& types) const {
  if (!literals_.empty()) return literals_.contains(canonicalVersionString(value));
  return std::ranges::any_of(patterns_, [&](const Pattern& each) { return each.holds(value, types); });
}

// --- Rules ---

Rule::Rule(std::string_view key, const Value& pattern)
    : source_(key.starts_with(kEntitlementPrefix) ? Source::entitlement
              : key == rulekey::identifier        ? Source::identifier
              : key == kUUIDKey                   ? Source::uuid
              : key == rulekey::election          ? Source::election
              : key == kContainingAppKey          ? Source::containingApp
                                                  : Source::info),
      key_(source_ == Source::entitlement ? key.substr(kEntitlementPrefix.size()) : key),
      kind_(pattern.isTrue()         ? Kind::present
            : pattern.isFalse()      ? Kind::absent
            : pattern.isDictionary() ? Kind::items
                                     : Kind::strings),
      items_(pattern.dictionary()),
      patterns_(pattern) {}

bool Rule::holds(const Value& value, TypeConformances& types) const {
  if (kind_ == Kind::present) return isPresentAndNotFalse(value);
  if (kind_ == Kind::absent) return !isPresentAndNotFalse(value);
  if (value.isNone()) return false;
  if (kind_ == Kind::items) return evaluateActivationRule(value, *items_, types);
  if (const auto text = value.string()) return patterns_.hold(*text, types);
  const Array* values = value.array();
  return values != nullptr && std::any_of(values->begin(), values->end(), [&](const Value& each) {
           const auto text = each.string();
           return text && patterns_.hold(*text, types);
         });
}

std::vector<Flaw> Rule::flaws(std::string_view key, const Value& pattern) {
  const Rule rule(key, pattern);
  const bool isAlwaysText = rule.source_ != Source::entitlement && rule.source_ != Source::info;
  if (rule.kind_ == Kind::present) return {};
  if (rule.kind_ == Kind::absent && isAlwaysText)
    return {{{}, "every plug-in that is offered has this value"}};
  if (rule.kind_ == Kind::absent) return {};
  if (rule.kind_ == Kind::items && isAlwaysText) return {{{}, "this value is never an activation rule"}};
  if (rule.kind_ == Kind::items) return flawsOfItems(*rule.items_);
  if (const Array* list = pattern.array(); list != nullptr && list->empty())
    return {{{}, "the list of patterns is empty"}};
  return StringPatterns::flaws(pattern, [&rule](std::string_view wanted) {
    const auto isSame = [wanted](const std::string& value) {
      return std::is_eq(compareVersionString(value, wanted));
    };
    const auto uuid = UUID::fromString(wanted);
    switch (rule.source_) {
      case Source::uuid:
        return uuid && isSame(uuid->string());
      case Source::election:
        return isSame(std::to_string(std::atoll(std::string(wanted).c_str())));
      case Source::containingApp:
        return wanted.starts_with('/');
      default:
        return true;
    }
  });
}

bool Rule::isRuledOut(const Value& pattern, const std::vector<Flaw>& flaws) {
  if (flaws.empty()) return false;
  const Array* alternatives = pattern.array();
  if (alternatives != nullptr) return flaws.size() >= alternatives->size();
  return !pattern.isDictionary() || flaws.front().path.size() <= 1;
}

Rules::Rules(Dictionary rules, TypeConformances& types) : dictionary_(std::move(rules)), types_(types) {
  rules_.reserve(dictionary_.size());
  for (const auto& [key, pattern] : dictionary_) rules_.emplace_back(key.view(), pattern);
}

size_t Rules::sizeOf(const Dictionary& rules) {
  size_t size = rules.size();
  for (const auto& [key, pattern] : rules) {
    if (const Array* list = pattern.array()) size += list->size();
    if (const Dictionary* items = pattern.dictionary()) size += sizeOfItems(*items);
  }
  return size;
}

}  // namespace abd
