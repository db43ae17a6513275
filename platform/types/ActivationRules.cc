#include "platform/types/ActivationRules.h"

#include <cstdint>
#include <limits>
#include <optional>
#include <string_view>
#include <vector>

#include "platform/types/TypeConformance.h"

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

bool conformsToOne(const Array& types, std::string_view ancestor) {
  for (const Value& type : types) {
    const auto name = type.string();
    if (name && typeConformsTo(*name, ancestor)) return true;
  }
  return false;
}

/// Counts one item for every limit that it falls under; false when there is none or one is exceeded.
bool countItem(const Array& types, std::vector<Limit>& limits) {
  bool countsSomewhere = false;
  for (Limit& limit : limits) {
    if (!conformsToOne(types, limit.type)) continue;
    countsSomewhere = true;
    if (++limit.count > limit.largest) return false;
  }
  return countsSomewhere;
}

}  // namespace

bool evaluateActivationRule(const Value& rule, const Dictionary& items) {
  const Array* list = items["items"].array();
  if (list == nullptr || list->empty() || rule.isFalse()) return false;
  if (rule.isTrue()) return true;
  const Dictionary* dictionary = rule.dictionary();
  if (dictionary == nullptr) return false;
  auto limits = limitsOf(*dictionary);
  if (!limits) return false;
  for (const Value& item : *list) {
    const Array* types = item["types"].array();
    if (types == nullptr || !countItem(*types, *limits)) return false;
  }
  return true;
}

}  // namespace platform
