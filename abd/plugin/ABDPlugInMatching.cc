// The matching engine: whether a plug-in satisfies a rule dictionary. Every mismatch, every value of an
// unexpected type and every unknown operator is a non-match; nothing fails.

#include <algorithm>
#include <compare>

#include "Ambrel/ABCollections.h"
#include "Ambrel/ABProtocol.h"
#include "abd/ABDServer.h"
#include "abd/plugin/ABDPlugIn.h"
#include "platform/log/Log.h"
#include "platform/types/ActivationRules.h"
#include "platform/types/TypeConformance.h"

namespace abd {

namespace {

constexpr std::string_view kEntitlementPrefix = "ENTITLEMENT:";
constexpr std::string_view kIdentifierKey = "ZQExtensionIdentifier";
constexpr std::string_view kUUIDKey = "com.veltra.uuid";
constexpr std::string_view kUserElectionKey = "ZQUserElection";
constexpr std::string_view kContainingAppKey = "ZQExtensionContainingApp";

constexpr std::string_view kConformsOperator = "?TY-CONFORMS:";
constexpr std::string_view kIsOperator = "?TY-IS:";

/// Clients keep marks of their own in these bits of an election.
constexpr int64_t kElectionMarks = 0xFF00;

std::string electionText(const ABDPlugIn& plugIn) {
  const auto& server = ABDServer::server();
  const int64_t election =
      server != nullptr ? server->annotationForPlugIn(plugIn)[annotation::election].integerValue() : 0;
  return std::to_string(election & ~kElectionMarks);
}

bool isPresentAndNotFalse(const Value& value) {
  return !value.isNone() && !value.isFalse();
}

}  // namespace

bool ABDPlugIn::match(const Dictionary& rules) const {
  return std::all_of(rules.begin(), rules.end(),
                     [this](const Dictionary::Entry& rule) { return matchKey(rule.key, rule.value); });
}

/// Of a key that is not "ZQExtensionContainingApp".
Value ABDPlugIn::valueForRuleKey(std::string_view key) const {
  if (key.starts_with(kEntitlementPrefix)) return valueForEntitlement(key.substr(kEntitlementPrefix.size()));
  if (key == kIdentifierKey) return identifier();
  if (key == kUUIDKey) return uuid().string();
  if (key == kUserElectionKey) return electionText(*this);
  const Value& attribute = attributes()[key];
  return attribute.isNone() ? bundleInfoDictionary()[key] : attribute;
}

bool ABDPlugIn::matchKey(std::string_view key, const Value& pattern) const {
  Value value;
  if (key == kContainingAppKey) {
    const auto& application = containingUrl();
    if (!application) return false;
    value = application->path();
  } else {
    value = valueForRuleKey(key);
  }

  if (pattern.isTrue()) return isPresentAndNotFalse(value);
  if (pattern.isFalse()) return !isPresentAndNotFalse(value);
  if (value.isNone()) return false;
  if (const Dictionary* items = pattern.dictionary()) return matchDictionary(value, *items);
  if (value.isString()) return matchValue(value, pattern);
  const Array* values = value.array();
  return values != nullptr && std::any_of(values->begin(), values->end(), [&pattern](const Value& element) {
           return matchValue(element, pattern);
         });
}

bool ABDPlugIn::matchValue(const Value& value, const Value& patterns) {
  const auto text = value.string();
  if (!text) return false;
  if (const auto pattern = patterns.string()) return matchString(*text, *pattern);
  const Array* list = patterns.array();
  return list != nullptr && std::any_of(list->begin(), list->end(), [&text](const Value& element) {
           const auto pattern = element.string();
           return pattern && matchString(*text, *pattern);
         });
}

bool ABDPlugIn::matchString(std::string_view value, std::string_view pattern) {
  const auto order = [value, pattern](size_t prefix) {
    return compareVersionString(value, pattern.substr(prefix));
  };
  if (pattern.starts_with(kConformsOperator))
    return typeConformsTo(value, pattern.substr(kConformsOperator.size()));
  if (pattern.starts_with(kIsOperator)) return typeConformsTo(pattern.substr(kIsOperator.size()), value);
  if (pattern.starts_with('?')) {
    systemLog("unrecognized match operator:%@", pattern);
    return false;
  }
  if (pattern.starts_with("<>")) return std::is_neq(order(2));
  if (pattern.starts_with("<=")) return std::is_lteq(order(2));
  if (pattern.starts_with(">=")) return std::is_gteq(order(2));
  if (pattern.starts_with('=')) return std::is_eq(order(1));
  if (pattern.starts_with('<')) return std::is_lt(order(1));
  if (pattern.starts_with('>')) return std::is_gt(order(1));
  return std::is_eq(order(0));
}

bool ABDPlugIn::matchDictionary(const Value& value, const Dictionary& pattern) {
  return evaluateActivationRule(value, pattern);
}

}  // namespace abd
