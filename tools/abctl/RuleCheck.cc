// Rules that never hold, in rule files, entitlements and activation rules.

#include "Ambrel/ABInfoKeys.h"
#include "Ambrel/ABProtocol.h"
#include "abd/plugin/Rules.h"
#include "platform/types/ActivationRules.h"
#include "tools/abctl/Checks.h"
#include "tools/abctl/Rules.h"
#include "tools/abctl/Vocabulary.h"

namespace abctl {
namespace {

using platform::Dictionary;
using platform::Flaw;
using platform::KeyPath;
using platform::Value;

constexpr std::string_view kEntitlementPrefix = "ENTITLEMENT:";

void checkRule(const CheckedFile& file, const KeyPath& path, const Value& pattern) {
  const std::vector<Flaw> flaws = abd::Rule::flaws(path.back().view(), pattern);
  const bool isRuledOut = abd::Rule::isRuledOut(pattern, flaws);
  for (const Flaw& flaw : flaws) {
    KeyPath place = path;
    place.insert(place.end(), flaw.path.begin(), flaw.path.end());
    file.find(isRuledOut ? Level::error : Level::warning, place, flaw.reason,
              isRuledOut               ? "the rule never holds, so no plug-in matches"
              : pattern.isDictionary() ? "only a plug-in that takes anything takes it"
                                       : "this alternative never holds",
              "see PATTERN in: abctl match --help");
  }
}

}  // namespace

void checkRules(const CheckedFile& file, const KeyPath& path) {
  const Value value = file.at(path);
  const Dictionary* const rules = value.dictionary();
  if (rules == nullptr) return;
  checkKeys(file, path, Place::rules);
  for (const auto& [key, pattern] : *rules) {
    checkRule(file, path / key, pattern);
    const std::string_view prefix = key.view().substr(0, key.view().find(':') + 1);
    if (prefix != kEntitlementPrefix && !likelyMeant(prefix, {std::string(kEntitlementPrefix)}).empty())
      file.find(Level::warning, path / key, "did you mean \"ENTITLEMENT:\"?",
                "the rule asks for an attribute of that name",
                "write ENTITLEMENT: and the entitlement's name");
  }
  if (const size_t size = abd::Rules::sizeOf(*rules); size > ambrel::kMaximumPatterns)
    file.find(Level::error, path,
              "there are " + std::to_string(size) + " entries, patterns and types of items",
              "the daemon refuses a search with more than " + std::to_string(ambrel::kMaximumPatterns),
              "ask for fewer at once");
}

void checkRuleFile(const std::string& path, Findings& findings) {
  findings.checked(path, "rule file");
  const CheckedFile file(path, findings, "it cannot be used as rules", CheckedFile::Kind::propertyListOrJson);
  checkRules(file, {});
}

void checkActivationRule(const CheckedFile& file, const KeyPath& attributes) {
  const KeyPath path = attributes / "ZQExtensionActivationRule";
  const Value rule = file.at(path);
  if (rule.isNone()) return;
  for (const Flaw& flaw : platform::flawsOfActivationRule(rule)) {
    KeyPath place = path;
    place.insert(place.end(), flaw.path.begin(), flaw.path.end());
    file.find(Level::error, place, flaw.reason, "the plug-in is offered for no items",
              "write true, or a dictionary from type to the largest count, 1 or more");
  }
}

}  // namespace abctl
