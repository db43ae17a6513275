#include "platform/types/ActivationRules.h"

#include <algorithm>
#include <cstdint>
#include <limits>
#include <optional>
#include <string_view>
#include <vector>

namespace platform {

namespace {

struct Limit {
  std::string_view type;
  int64_t largest;
  int64_t count = 0;
};

/// The limits of a rule dictionary; none when one of them, `flawed`, is no count.
std::optional<std::vector<Limit>> limitsOf(const Dictionary& rule, String* flawed = nullptr) {
  std::vector<Limit> limits;
  limits.reserve(rule.size());
  for (const auto& [type, largest] : rule) {
    if (!largest.isNumber()) {
      if (flawed != nullptr) *flawed = type;
      return std::nullopt;
    }
    const bool isAny = largest.boolean() == true;
    limits.push_back({type.view(), isAny ? std::numeric_limits<int64_t>::max() : largest.integerValue()});
  }
  return limits;
}

/// The items to be accepted, or null when there are none.
const Array* itemsIn(const Dictionary& items) {
  const Array* list = items["items"].array();
  return list != nullptr && !list->empty() ? list : nullptr;
}

bool conformsToOne(const Array& names, std::string_view ancestor, TypeConformances& types) {
  for (const Value& type : names) {
    const auto name = type.string();
    if (name && types.conforms(*name, ancestor)) return true;
  }
  return false;
}

/// Counts one item for every limit that it falls under; false when there is none or one is exceeded.
bool countItem(const Array& names, std::vector<Limit>& limits, TypeConformances& types) {
  bool countsSomewhere = false;
  for (Limit& limit : limits) {
    if (!conformsToOne(names, limit.type, types)) continue;
    countsSomewhere = true;
    if (++limit.count > limit.largest) return false;
  }
  return countsSomewhere;
}

}  // namespace

bool evaluateActivationRule(const Value& rule, const Dictionary& items, TypeConformances& types) {
  const Array* list = itemsIn(items);
  if (list == nullptr || rule.isFalse()) return false;
  if (rule.isTrue()) return true;
  const Dictionary* dictionary = rule.dictionary();
  if (dictionary == nullptr) return false;
  auto limits = limitsOf(*dictionary);
  if (!limits) return false;
  for (const Value& item : *list) {
    const Array* names = item["types"].array();
    if (names == nullptr || !countItem(*names, *limits, types)) return false;
  }
  return true;
}

std::vector<Flaw> flawsOfActivationRule(const Value& rule) {
  if (rule.isTrue()) return {};
  if (rule.isFalse()) return {{{}, "the activation rule is false: it accepts nothing"}};
  const Dictionary* dictionary = rule.dictionary();
  if (dictionary == nullptr) return {{{}, "the activation rule is neither a boolean nor a dictionary"}};
  String flawed;
  const auto limits = limitsOf(*dictionary, &flawed);
  if (!limits) return {{{flawed}, "the largest count of a type in the activation rule is no number"}};
  const auto acceptsOne = [](const Limit& limit) { return limit.largest >= 1; };
  if (std::ranges::any_of(*limits, acceptsOne)) return {};
  return {{{}, "the activation rule allows not one item of any type"}};
}

std::vector<Flaw> flawsOfItems(const Dictionary& items) {
  const Array* list = itemsIn(items);
  if (list == nullptr) return {{{"items"}, "there are no items to be accepted"}};
  std::vector<Flaw> flaws;
  for (size_t i = 0; i < list->size(); i++) {
    const Array* types = (*list)[i]["types"].array();
    if (types == nullptr || std::ranges::none_of(*types, &Value::isString))
      flaws.push_back({{"items", std::to_string(i), "types"}, "the item has no list of types"});
  }
  return flaws;
}

}  // namespace platform
