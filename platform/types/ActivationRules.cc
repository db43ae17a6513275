#include "platform/types/ActivationRules.h"

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

/// The limits of a rule dictionary; none when one of them is no count.
std::optional<std::vector<Limit>> limitsOf(const Dictionary& rule) {
  std::vector<Limit> limits;
  limits.reserve(rule.size());
  for (const auto& [type, largest] : rule) {
    if (!largest.isNumber()) return std::nullopt;
    const bool isAny = largest.boolean() == true;
    limits.push_back({type.view(), isAny ? std::numeric_limits<int64_t>::max() : largest.integerValue()});
  }
  return limits;
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
  const Array* list = items["items"].array();
  if (list == nullptr || list->empty() || rule.isFalse()) return false;
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

}  // namespace platform
