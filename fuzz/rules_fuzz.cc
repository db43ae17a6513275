// Any rule dictionary against a record of a real bundle: nothing fails, and where a rule holds whose patterns
// are literals, one of them is the plug-in's value; no rule that is said never to hold does. An input is an
// encoded dictionary, or lines of text with a key, a tab and a pattern (several patterns: more tabs).

#include <stdlib.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <string_view>

#include "Ambrel/ABCollections.h"
#include "abd/database/ABDatabase.h"
#include "abd/database/SearchLiterals.h"
#include "abd/plugin/Rules.h"
#include "platform/propertylist/PropertyList.h"
#include "platform/qmx/Encoding.h"
#include "platform/qmx/Limits.h"

namespace {

using namespace abd;
namespace fs = std::filesystem;

constexpr const char* kIdentifier = "fuzz.plugin2";
constexpr const char* kPoint = "fuzz.point1";

void require(bool condition) {
  if (!condition) std::abort();
}

void write(const fs::path& path, const Value& value) {
  fs::create_directories(path.parent_path());
  std::ofstream(path) << std::get<std::string>(serializePropertyList(value));
}

std::shared_ptr<ABDPlugIn> makeRecord() {
  static std::string root = (fs::temp_directory_path() / "rules-fuzz-XXXXXX").string();
  require(mkdtemp(root.data()) != nullptr);
  std::atexit([] { fs::remove_all(root); });
  for (const char* variable : {"XDG_DATA_HOME", "XDG_DATA_DIRS", "XDG_CONFIG_HOME", "XDG_CONFIG_DIRS",
                               "XDG_STATE_HOME", "XDG_RUNTIME_DIR"})
    setenv(variable, (root + "/" + variable).c_str(), 1);
  const std::string bundle = root + "/fuzz.appex";
  write(bundle + "/Info.plist",
        Dictionary{{"BWBundleIdentifier", kIdentifier},
                   {"ZQExtension",
                    Dictionary{{"ZQExtensionAttributes",
                                Dictionary{{"ZQExtensionPointName", kPoint},
                                           {"list", Array{"1.10", 2, "image/png", Array{"x"}}},
                                           {"rule", Dictionary{{"image/png", 2}, {"text/plain", true}}},
                                           {"number", 1.5}}}}}});
  write(bundle + "/Entitlements.plist", Dictionary{{"given", "yes"}});
  static ABDatabase database;
  require(database.initWithDatabase(root + "/Annotations"));
  require(!database.addPlugIn(URL::file(bundle)));
  return database.findPlugInAtPath(URL::file(bundle));
}

Value patternOf(std::string_view text) {
  if (text == "true") return true;
  if (text == "false") return false;
  if (text.starts_with("items:"))
    return Dictionary{{"items", Array{Dictionary{{"types", Array{text.substr(6)}}}}}};
  return text;
}

Dictionary rulesOfText(std::string_view text) {
  Dictionary rules;
  while (!text.empty()) {
    std::string_view line = text.substr(0, text.find('\n'));
    text.remove_prefix(std::min(text.size(), line.size() + 1));
    const std::string_view key = line.substr(0, line.find('\t'));
    Array patterns;
    while (line.size() > 0 && line.find('\t') != std::string_view::npos) {
      line.remove_prefix(line.find('\t') + 1);
      patterns.append(patternOf(line.substr(0, line.find('\t'))));
    }
    rules.set(key, patterns.size() == 1 ? patterns[0] : Value(patterns));
  }
  return rules;
}

void checkLiterals(const Dictionary& rules, const char* key, std::string_view value) {
  if (!rules.contains(key)) return;
  const auto literals = literalList(rules[key]);
  require(!literals || std::any_of(literals->begin(), literals->end(), [value](const std::string& literal) {
    return std::is_eq(compareVersionString(value, literal));
  }));
}

/// An array of patterns holds when one of its elements does by itself.
bool matchesPatternByPattern(const ABDPlugIn& record, std::string_view key, const Value& pattern) {
  const Array* list = pattern.array();
  if (list == nullptr) return record.matchKey(key, pattern);
  return std::any_of(list->begin(), list->end(),
                     [&](const Value& each) { return each.isString() && record.matchKey(key, each); });
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const std::shared_ptr<ABDPlugIn> record = makeRecord();
  const std::optional<Value> decoded = qmx::decode({data, size}, qmx::kMaximumNesting);
  const Dictionary rules = decoded && decoded->dictionary() != nullptr
                               ? *decoded->dictionary()
                               : rulesOfText({reinterpret_cast<const char*>(data), size});
  const bool matches = record->match(rules);
  require(matches == std::all_of(rules.begin(), rules.end(), [](const Dictionary::Entry& rule) {
            return matchesPatternByPattern(*record, rule.key.view(), rule.value);
          }));
  for (const auto& [key, pattern] : rules)
    require(!record->matchKey(key.view(), pattern) ||
            !Rule::isRuledOut(pattern, Rule::flaws(key.view(), pattern)));
  if (matches) {
    checkLiterals(rules, "ZQExtensionIdentifier", kIdentifier);
    checkLiterals(rules, "ZQExtensionPointName", kPoint);
  }
  return 0;
}
