// abctl complete WORDS...: what the last word of a command line may become, for the shells. Commands and
// options are what is declared; names are asked of the daemon, briefly, and are left out when it does not
// answer.

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "Ambrel/ABDiagnostics.h"
#include "Ambrel/ABInfoKeys.h"
#include "Ambrel/ABProtocol.h"
#include "platform/log/Log.h"
#include "platform/system/Directories.h"
#include "tools/abctl/Commands.h"
#include "tools/abctl/Daemon.h"
#include "tools/abctl/PlugIns.h"
#include "tools/abctl/Vocabulary.h"

namespace abctl {
namespace {

using platform::Array;
using platform::Dictionary;
using platform::Value;
namespace formkey = ambrel::formkey;
namespace statuskey = ambrel::statuskey;

/// Where on the command line the last word stands.
struct Position {
  const CLI::App* command;
  const CLI::Option* option = nullptr;   // whose value it is
  const CLI::Option* several = nullptr;  // the last one that takes more than one
  size_t arguments = 0;                  // before it
  bool hasOptions = true;                // no "--" stands before it
};

bool takesValue(const CLI::Option* option) {
  return option != nullptr && option->get_items_expected_max() > 0;
}

/// The option that `word` names, of the command or of every command.
const CLI::Option* optionOf(const CLI::App* command, const std::string& word) {
  const std::string name = word.substr(0, word.find('='));
  for (; command != nullptr; command = command->get_parent())
    if (const CLI::Option* const option = command->get_option_no_throw(name)) return option;
  return nullptr;
}

const CLI::Option* argumentOf(const CLI::App* command) {
  const auto all = command->get_options([](const CLI::Option* each) { return each->get_positional(); });
  return all.empty() ? nullptr : all.front();
}

/// The commands below one, or that of them which has the name.
std::vector<const CLI::App*> commandsOf(const CLI::App* command, const std::string& name = {}) {
  return command->get_subcommands(
      [&name](const CLI::App* each) { return name.empty() || each->get_name() == name; });
}

/// What an option, or an argument, is said to take: "FILE", "KIND:{application,plug-in}".
std::string kindOf(const CLI::Option& option) {
  return option.get_type_name().empty() ? option.get_name() : option.get_type_name();
}

/// The text of a value, or of each of several.
std::vector<std::string> textsOf(const Value& value) {
  if (const auto boolean = value.boolean()) return {*boolean ? "true" : "false"};
  if (const auto string = value.string()) return {std::string(*string)};
  std::vector<std::string> texts;
  if (const Array* const array = value.array())
    for (const Value& each : *array)
      if (const auto string = each.string()) texts.emplace_back(*string);
  return texts;
}

/// What a rule with this key looks at.
std::vector<std::string> ruleValues(const Dictionary& form, const std::string& key) {
  if (key == "ZQExtensionIdentifier") return {text(form, formkey::identifier)};
  if (key == "ZQExtensionContainingApp") return {text(form, formkey::containingPath)};
  if (key == "com.veltra.uuid") return {text(form, formkey::uuid)};
  if (key == "ZQUserElection") return {std::to_string(electionOf(form))};
  const Value& attribute = form[formkey::info][ambrel::plugInkey::attributes][key];
  return textsOf(attribute.isNone() ? form[formkey::bundleInfo][key] : attribute);
}

class Completion {
 public:
  Completion(const CLI::App& app, Context& context) : context_(context), here_{&app} {}

  void complete(const std::vector<std::string>& words) {
    for (size_t i = 0; i + 1 < words.size(); ++i) pass(words[i]);
    last_ = words.empty() ? "" : words.back();
    if (here_.option != nullptr)
      addValues(*here_.option);
    else if (here_.hasOptions && last_.starts_with("-"))
      addOptions();
    else
      addArguments();
  }

  /// A line for each: the word, a tab, and what it is. "/" alone: a path.
  void print() const {
    for (const auto& [word, meaning] : found_)
      std::printf("%s\t%s\n", word.c_str(), safeText(meaning.substr(0, meaning.find('\n'))).c_str());
    if (found_.empty() && isPath_) std::printf("/\n");
  }

 private:
  /// Notes what a word before the last one says.
  void pass(const std::string& word) {
    if (here_.option != nullptr) {
      take(*here_.option, word);
      here_.several = here_.option->get_items_expected_max() > 1 ? here_.option : nullptr;
      here_.option = nullptr;
    } else if (here_.hasOptions && word.starts_with("-")) {
      here_.hasOptions = word != "--";
      const CLI::Option* const option = optionOf(here_.command, word);
      if (takesValue(option) && word.find('=') == std::string::npos)
        here_.option = option;
      else if (takesValue(option))
        take(*option, word.substr(word.find('=') + 1));
    } else if (const auto named = commandsOf(here_.command, word); !named.empty()) {
      here_.command = named.front();
    } else {
      ++here_.arguments;
    }
  }

  void take(const CLI::Option& option, const std::string& value) {
    if (option.check_lname("service") && platform::isSafeFileName(value)) context_.service = value;
  }

  /// Those that go on where the last word ends. What no terminal can show is left out.
  void add(const std::string& word, const std::string& meaning = {}) {
    const std::string whole = before_ + word;
    if (!word.empty() && whole.starts_with(last_) && safeText(whole) == whole) found_.emplace(whole, meaning);
  }

  void addOptions() {
    const CLI::Option* const option = optionOf(here_.command, last_);
    if (const size_t end = last_.find('='); end != std::string::npos) {
      before_ = last_.substr(0, end + 1);
      if (takesValue(option)) addValues(*option);
      return;
    }
    for (const CLI::App* app = here_.command; app != nullptr; app = app->get_parent())
      for (const CLI::Option* const each : app->get_options())
        for (const std::string& name : each->get_lnames()) add("--" + name, each->get_description());
  }

  void addArguments() {
    for (const CLI::App* const each : commandsOf(here_.command))
      add(each->get_name(), each->get_description());
    const CLI::Option* const argument = argumentOf(here_.command);
    if (argument == nullptr && here_.several != nullptr) addValues(*here_.several);
    if (argument != nullptr && here_.arguments < static_cast<size_t>(argument->get_items_expected_max()))
      addValues(*argument);
  }

  void addValues(const CLI::Option& option) {
    const std::string kind = kindOf(option), value = last_.substr(before_.size());
    const bool isPlugIn = kind.starts_with("PLUG-IN");
    isPath_ = isPlugIn || kind.starts_with("PATH") || kind == "FILE" || kind == "PID|BUNDLE";
    if (isPlugIn && (value.empty() || std::string_view("/.~").find(value[0]) == std::string_view::npos))
      for (const Dictionary& form : plugIns()) add(text(form, formkey::identifier), nameOf(form));
    if (kind == "CHOICE" || (kind.ends_with(" CHOICE") && here_.arguments > 0))
      for (const char* const choice : {"use", "ignore", "default"}) add(choice, "election");
    if (kind == "KEY=PATTERN") addRules(value);
    if (kind == "TOKEN") addRows(statuskey::holds, statuskey::token);
    if (kind == "PID|BUNDLE") addRows(statuskey::clients, statuskey::pid);
    if (const size_t set = kind.find(":{"); set != std::string::npos)  // what it has to be one of
      for (const std::string& word : CLI::detail::split(kind.substr(set + 2, kind.size() - set - 3), ','))
        add(word);
  }

  /// Keys, then what the plug-ins have under the key.
  void addRules(const std::string& rule) {
    const size_t end = rule.find('=');
    if (end != std::string::npos) {
      before_ += rule.substr(0, end + 1);
      for (const Dictionary& form : plugIns())
        for (const std::string& value : ruleValues(form, rule.substr(0, end))) add(value);
      return;
    }
    for (const std::string_view key : knownKeys(Place::rules)) add(std::string(key) + "=", "known key");
    add("ENTITLEMENT:", "an entitlement of the plug-in");
    for (const Dictionary& form : plugIns())
      for (const Value& keys :
           {form[formkey::info][ambrel::plugInkey::attributes], form[formkey::bundleInfo]})
        if (keys.isDictionary())
          for (const Dictionary::Entry& entry : *keys.dictionary())
            add(std::string(entry.key.view()) + "=", "key of plug-ins");
  }

  /// The rows of a table of `abctl status`, each by one of its entries.
  void addRows(const char* table, const char* key) {
    const Dictionary status = Daemon(context_, ambrel::kDiagnosticsSuffix).status();
    if (const Array* const rows = status[table].array())
      for (const Value& row : *rows)
        add(row[key].isString() ? std::string(*row[key].string()) : std::to_string(row[key].unsignedValue()),
            std::string(row[statuskey::bundle].string().value_or("")));
  }

  /// All that there are, or all that this abctl may see.
  std::vector<Dictionary> plugIns() const {
    Daemon daemon(context_);
    const uint64_t flags = ambrel::ABDiscoverAllVersions | ambrel::ABDiscoverDuplicates;
    try {
      return daemon.match({}, flags | ambrel::ABDiscoverAll);
    } catch (const Failure& failure) {
      if (failure.daemonCode != ambrel::kABErrorAccess) throw;
      return daemon.match({}, flags);
    }
  }

  Context& context_;
  Position here_;
  std::string last_, before_;  // the word; of it, what comes before a value
  std::map<std::string, std::string> found_;
  bool isPath_ = false;
};

}  // namespace

ExitCode complete(const CLI::App& app, Context& context, const std::vector<std::string>& words) {
  constexpr double kPatience = 1;
  context.timeoutSeconds = kPatience;
  platform::silenceLog();
  Completion completion(app, context);
  try {
    completion.complete(words);
  } catch (const Failure&) {  // without a daemon there are no names
  }
  completion.print();
  return kSuccess;
}

}  // namespace abctl
