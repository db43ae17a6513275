// abctl explain: why plug-ins are offered to a host, or not.

#include <CLI/CLI.hpp>
#include <algorithm>
#include <charconv>
#include <cstdio>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "Ambrel/ABDiagnostics.h"
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
using platform::Value;
namespace explainkey = ambrel::explainkey;
namespace explanationkey = ambrel::explanationkey;
namespace findingkey = ambrel::findingkey;

struct Options {
  std::vector<std::string> plugIns;
  std::string as;
  MatchOptions search;
};

const char* const kHelp =
    "Every test that stands between the plug-in and the host is shown, in order, with what it looked at;\n"
    "then one sentence, and where a single change would do, that change. The host is abctl itself, as in\n"
    "`abctl match`, or whoever --as names.\n"
    "Exit status: 0 offered, 1 not offered or not known.\n"
    "With --json: an array of explanations.\n";

const char* const kExamples =
    "Examples:\n"
    "  abctl explain org.example.postcards.share\n"
    "  abctl explain org.example.postcards.share --rule ZQExtensionPointName=com.veltra.share-service\n"
    "  abctl explain ./Courier.app/PlugIns/CourierShare.appex --as ~/apps/ShareDesk.app\n"
    "  abctl explain org.example.postcards.share --as $(pidof share-desk)";

std::optional<uint64_t> processOf(const std::string& text) {
  uint64_t number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  const bool isWhole = error == std::errc() && end == text.data() + text.size();
  return isWhole ? std::optional(number) : std::nullopt;
}

Dictionary requestOf(const Options& options) {
  Array names;
  for (const std::string& name : options.plugIns) names.append(isPath(name) ? absolutePath(name) : name);
  Dictionary request = {{explainkey::plugIns, std::move(names)},
                        {ambrel::key::rules, options.search.ruleDictionary()},
                        {ambrel::key::flags, options.search.flags()}};
  if (const auto pid = processOf(options.as))
    request.set(explainkey::pid, *pid);
  else if (!options.as.empty())
    request.set(explainkey::bundle, absolutePath(options.as));
  return request;
}

void printFinding(const Screen& screen, const Value& finding) {
  const bool passed = finding[findingkey::passed].booleanValue();
  std::string text = safeText(finding[findingkey::text].string().value_or(""));
  if (const auto since = finding[findingkey::since].date())
    text += ", since " + timeText(static_cast<int64_t>(since->secondsSince1970));
  const std::string mark = screen.styled(passed ? Style::good : Style::bad, passed ? "yes" : "NO ");
  const std::string stage = safeText(finding[findingkey::stage].string().value_or(""));
  std::printf("  %s  %-12s  %s\n", mark.c_str(), stage.c_str(), text.c_str());
  const auto change = finding[findingkey::change].string();
  if (change) std::printf("  %-17s  -> %s\n", "", safeText(*change).c_str());
}

void printExplanation(const Screen& screen, const Dictionary& explanation) {
  const std::string identifier = text(explanation, ambrel::formkey::identifier);
  const std::string heading = identifier.empty()
                                  ? text(explanation, explanationkey::name)
                                  : identifier + "  " + text(explanation, ambrel::formkey::path);
  std::printf("%s\n", screen.styled(Style::heading, safeText(heading)).c_str());
  if (const Array* const findings = explanation[explanationkey::findings].array())
    for (const Value& finding : *findings) printFinding(screen, finding);
  const Style style = explanation[explanationkey::offered].booleanValue() ? Style::good : Style::bad;
  std::printf("%s\n", screen.styled(style, safeText(text(explanation, explanationkey::summary))).c_str());
  const std::string change = text(explanation, explanationkey::change);
  if (!change.empty()) std::printf("It would be with this one change: %s.\n", safeText(change).c_str());
}

ExitCode explain(const Context& context, const Options& options) {
  const Dictionary request = requestOf(options);
  Daemon daemon(context, ambrel::kDiagnosticsSuffix);
  const std::vector<Dictionary> explanations = daemon.explain(request);
  if (context.json) {
    std::printf("%s\n", jsonText(Array({explanations.begin(), explanations.end()})).c_str());
  } else {
    bool isFirst = true;
    for (const Dictionary& each : explanations) {
      if (!std::exchange(isFirst, false)) std::printf("\n");
      printExplanation(context.screen, each);
    }
  }
  const bool isOffered = std::any_of(explanations.begin(), explanations.end(), [](const Dictionary& each) {
    return each[explanationkey::offered].booleanValue();
  });
  return isOffered ? kSuccess : kNothingFound;
}

}  // namespace

void addExplainCommand(CLI::App& app, Context& context) {
  const auto options = std::make_shared<Options>();
  CLI::App* const command = app.add_subcommand("explain", "Tell why plug-ins are offered to a host, or not");
  command->add_option("PLUG-IN", options->plugIns, "Identifiers, UUIDs or paths")->required()->type_name("");
  command->add_option("--as", options->as, "The host: a connected process, or the path of its bundle")
      ->type_name("PID|BUNDLE");
  options->search.declare(*command);
  command->footer(std::string(kHelp) + "\n" + kRulesHelp + "\n" + kExamples);
  command->callback(
      [&context, options] { context.command = [&context, options] { return explain(context, *options); }; });
}

}  // namespace abctl
