// abctl match: the search, and the options of a search.

#include <CLI/CLI.hpp>
#include <cstdio>
#include <memory>
#include <string>
#include <utility>

#include "Ambrel/ABInfoKeys.h"
#include "Ambrel/ABProtocol.h"
#include "tools/abctl/Commands.h"
#include "tools/abctl/Json.h"
#include "tools/abctl/MatchOptions.h"
#include "tools/abctl/PlugIns.h"
#include "tools/abctl/Rules.h"

namespace abctl {
namespace {

using platform::Array;
using platform::Dictionary;

const char* const kExamples =
    "Examples:\n"
    "  abctl match\n"
    "  abctl match --rule ZQExtensionPointName=com.veltra.share-service --rule 'ZQExtensionVersion=>=1.10'\n"
    "  abctl match --rule ZQExtensionIdentifier=org.example.a --rule ZQExtensionIdentifier=org.example.b\n"
    "  abctl match --rule 'ZQExtensionActivationRule={\"items\":[{\"types\":[\"image/png\"]}]}'\n"
    "  abctl match --all --json | jq -r '.[].path'";

void printReplacements(const std::vector<Dictionary>& forms, const Screen& screen) {
  for (const Dictionary& form : forms) {
    const std::string replacing = text(form, ambrel::formkey::overrider);
    if (replacing.empty()) continue;
    std::string by = replacing;
    for (const Dictionary& other : forms)
      if (text(other, ambrel::formkey::uuid) == replacing) by = text(other, ambrel::formkey::identifier);
    const std::string line = text(form, ambrel::formkey::identifier) + " is replaced by " + by;
    std::printf("%s\n", screen.styled(Style::faint, safeText(line)).c_str());
  }
}

ExitCode match(const Context& context, const MatchOptions& options) {
  const Dictionary rules = options.ruleDictionary();
  Daemon daemon(context);
  const std::vector<Dictionary> forms = daemon.match(rules, options.flags());
  if (context.json) {
    Array list;
    for (const Dictionary& form : forms) list.append(form);
    std::printf("%s\n", jsonText(list).c_str());
  } else if (!forms.empty()) {
    std::printf("%s", plugInTable(forms, context.screen).c_str());
    printReplacements(forms, context.screen);
  }
  if (!forms.empty()) return kSuccess;
  if (!context.json) std::fprintf(stderr, "abctl: no plug-in matches\n");
  return kNothingFound;
}

}  // namespace

void MatchOptions::declare(CLI::App& command) {
  command.add_option("--rule", rules, "A rule that must hold; again for more")
      ->type_name("KEY=PATTERN")
      ->expected(1)
      ->take_all()
      ->allow_extra_args(false);
  command.add_option("--rules", rulesFile, "Rules in a file, property list or JSON (\"-\": standard input)")
      ->type_name("FILE");
  command.add_flag("--all-versions", allVersions, "Every version of an identifier, not only the newest");
  command.add_flag("--duplicates", duplicates, "With --all-versions: also copies of the same version");
  command.add_flag("--system-only", systemOnly, "Only plug-ins on the system volume");
  command.add_flag(
      "--all", all,
      "Also plug-ins that hosts are not offered: held, dedicated, denied (needs the entitlement\n"
      "com.veltra.private.ambrel.manager)");
}

Dictionary MatchOptions::ruleDictionary() const {
  return readRules(rulesFile, rules);
}

uint64_t MatchOptions::flags() const {
  uint64_t bits = 0;
  if (allVersions) bits |= ambrel::ABDiscoverAllVersions;
  if (duplicates) bits |= ambrel::ABDiscoverDuplicates;
  if (systemOnly) bits |= ambrel::ABDiscoverSystemOnly;
  if (all) bits |= ambrel::ABDiscoverAll;
  return bits;
}

void addMatchCommand(CLI::App& app, Context& context) {
  const auto options = std::make_shared<MatchOptions>();
  CLI::App* const command = app.add_subcommand("match", "List the plug-ins that match rules");
  options->declare(*command);
  command->footer(std::string(kRulesHelp) + "\n" + kExamples);
  command->callback(
      [&context, options] { context.command = [&context, options] { return match(context, *options); }; });
}

}  // namespace abctl
