#include "tools/abctl/Rules.h"

#include <utility>

#include "tools/abctl/Failure.h"
#include "tools/abctl/Input.h"
#include "tools/abctl/Json.h"

namespace abctl {
namespace {

using platform::Array;
using platform::Dictionary;
using platform::Value;

Value patternOf(const std::string& key, const std::string& text) {
  if (text == "true") return Value(true);
  if (text == "false") return Value(false);
  if (text.starts_with("{")) return valueOfJson(text, "the pattern of rule \"" + key + "\"");
  return Value(text);
}

/// `pattern` as one more alternative to what `key` has already.
Value withAlternative(const std::string& key, const Value& present, const Value& pattern) {
  if (present.isNone()) return pattern;
  const bool texts = pattern.isString() && (present.isString() || present.isArray());
  if (!texts)
    throw Failure(kUsage, "rule \"" + key + "\" is given twice, once with true, false or a dictionary",
                  "only text patterns can be alternatives of one key");
  Array alternatives = present.isArray() ? *present.array() : Array{present};
  alternatives.append(pattern);
  return Value(std::move(alternatives));
}

}  // namespace

const char* const kRulesHelp =
    "Rules:\n"
    "  A plug-in matches when every rule holds. KEY is an attribute of the plug-in, a key of its Info\n"
    "  dictionary, ENTITLEMENT:NAME, or one of ZQExtensionIdentifier, ZQExtensionPointName,\n"
    "  ZQExtensionContainingApp (a path), ZQUserElection (0, 1...) and com.veltra.uuid.\n"
    "  PATTERN is one of\n"
    "    TEXT or =TEXT              the same (digits compare by value: 1.10 is after 1.9)\n"
    "    <>TEXT <TEXT <=TEXT >TEXT >=TEXT\n"
    "    ?TY-CONFORMS:TYPE          the value is a type that conforms to TYPE\n"
    "    ?TY-IS:TYPE                TYPE conforms to the value\n"
    "    true, false                present (and not false); absent (or false)\n"
    "    {\"items\":[{\"types\":[TYPE...]}...]}  the value is an activation rule that accepts these items\n"
    "  The same key given again is an alternative. A value that is itself \"true\" is written KEY==true.\n";

Dictionary readRules(const std::string& file, const std::vector<std::string>& words) {
  Dictionary rules = file.empty() ? Dictionary() : dictionaryOfFile(file, "rules");
  Dictionary given;
  for (const std::string& word : words) {
    const size_t separator = word.find('=');
    if (separator == std::string::npos || separator == 0)
      throw Failure(kUsage, "\"" + word + "\" is no rule",
                    "write KEY=PATTERN, for example ZQExtensionPointName=com.veltra.share-service");
    const std::string key = word.substr(0, separator);
    given.set(key, withAlternative(key, given[key], patternOf(key, word.substr(separator + 1))));
  }
  for (const Dictionary::Entry& entry : given) rules.set(entry.key, entry.value);
  return rules;
}

}  // namespace abctl
