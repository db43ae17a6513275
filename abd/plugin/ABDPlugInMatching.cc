// The matching engine: whether a plug-in satisfies a rule dictionary. Every mismatch, every value of an
// unexpected type and every unknown operator is a non-match; nothing fails.

#include <algorithm>

#include "Ambrel/ABProtocol.h"
#include "abd/ABDServer.h"
#include "abd/plugin/ABDPlugIn.h"
#include "abd/plugin/Rules.h"
#include "platform/types/ActivationRules.h"

namespace abd {

namespace {

/// Clients keep marks of their own in these bits of an election.
constexpr int64_t kElectionMarks = 0xFF00;

std::string electionText(const ABDPlugIn& plugIn) {
  const auto& server = ABDServer::server();
  const int64_t election =
      server != nullptr ? server->annotationForPlugIn(plugIn)[annotation::election].integerValue() : 0;
  return std::to_string(election & ~kElectionMarks);
}

}  // namespace

bool ABDPlugIn::matchRules(const Rules& rules, std::vector<TriedRule>* tried) const {
  if (tried == nullptr)
    return std::ranges::all_of(rules.all(), [&](const Rule& rule) { return matchRule(rule, rules.types()); });
  auto entry = rules.dictionary().begin();
  for (const Rule& rule : rules.all()) {
    TriedRule& each = tried->emplace_back(TriedRule{entry->key, entry->value, {}, false});
    each.holds = matchRule(rule, rules.types(), &each.value);
    ++entry;
  }
  return std::ranges::all_of(*tried, &TriedRule::holds);
}

bool ABDPlugIn::match(const Dictionary& rules) const {
  TypeConformances types;
  return matchRules(Rules(rules, types));
}

Value ABDPlugIn::valueForRule(const Rule& rule) const {
  switch (rule.source()) {
    case Rule::Source::entitlement:
      return valueForEntitlement(rule.key());
    case Rule::Source::identifier:
      return identifier();
    case Rule::Source::uuid:
      return uuid().string();
    case Rule::Source::election:
      return electionText(*this);
    case Rule::Source::containingApp:
      return containingUrl() ? Value(containingUrl()->path()) : Value();
    default: {
      const Value& attribute = attributes()[rule.key()];
      return attribute.isNone() ? bundleInfoDictionary()[rule.key()] : attribute;
    }
  }
}

bool ABDPlugIn::matchRule(const Rule& rule, TypeConformances& types, Value* found) const {
  // In no application it fails whatever the pattern is.
  if (rule.source() == Rule::Source::containingApp && !containingUrl()) return false;
  const Value value = valueForRule(rule);
  if (found != nullptr) *found = value;
  return rule.holds(value, types);
}

bool ABDPlugIn::matchKey(std::string_view key, const Value& pattern) const {
  TypeConformances types;
  return matchRule(Rule(key, pattern), types);
}

bool ABDPlugIn::matchValue(const Value& value, const Value& patterns) {
  TypeConformances types;
  const auto text = value.string();
  return text && StringPatterns(patterns).hold(*text, types);
}

bool ABDPlugIn::matchString(std::string_view value, std::string_view pattern) {
  TypeConformances types;
  return StringPatterns(Value(pattern)).hold(value, types);
}

bool ABDPlugIn::matchDictionary(const Value& value, const Dictionary& pattern) {
  TypeConformances types;
  return evaluateActivationRule(value, pattern, types);
}

}  // namespace abd
