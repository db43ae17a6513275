// abctl elections export and import: all elections and extensions in one file, and back.

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <iterator>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <variant>
#include <vector>

#include "Ambrel/ABInfoKeys.h"
#include "Ambrel/ABProtocol.h"
#include "abd/database/ABDAnnotationStore.h"
#include "abd/plugin/ABDPlugIn.h"
#include "platform/propertylist/PropertyList.h"
#include "platform/security/CodeSigning.h"
#include "tools/abctl/Commands.h"
#include "tools/abctl/Input.h"
#include "tools/abctl/Json.h"
#include "tools/abctl/PlugIns.h"

namespace abctl {
namespace {

using platform::Array;
using platform::Dictionary;
using platform::Error;
using platform::String;
using platform::UUID;
using platform::Value;
namespace annotation = ambrel::annotation;

// A file is a dictionary of two entries. It has as many containers around an extension as the file of
// annotations, so that what the daemon keeps fits in here.
constexpr const char* kVersionKey = "version";
constexpr const char* kElectionsKey = "elections";
constexpr int64_t kVersion = 1;

constexpr const char* kWhatIsExpected = "write what `abctl elections export` writes; nothing was changed";

/// Why no daemon would take this of a plug-in; empty when one would.
std::string flawOf(const Value& record) {
  const Dictionary* const entries = record.dictionary();
  if (entries == nullptr) return "is no dictionary";
  if (entries->empty()) return "says neither \"election\" nor \"extension\"";
  for (const Dictionary::Entry& entry : *entries) {
    const bool isElection = entry.key.view() == annotation::election;
    if (!isElection && entry.key.view() != annotation::extension)
      return "has an unknown key \"" + std::string(entry.key.view()) + "\"";
    if (isElection && !entry.value.isNumber()) return "has an election that is no number";
    if (!isElection && !entry.value.isDictionary()) return "has an extension that is no dictionary";
  }
  if (!platform::canBeWritten(record)) return "holds what no property list restores";
  const bool isTooLarge =
      entries->contains(annotation::extension) &&
      abd::ABDAnnotationStore::writtenSize(record) > abd::ABDAnnotationStore::kMaximumRecord;
  return isTooLarge ? "is larger than the daemon takes" : "";
}

/// What the daemon keeps under one annotation key, and a plug-in that has that key.
struct Kept {
  UUID plugIn;
  Dictionary record;
};

std::map<String, Kept> keptRecords(Daemon& daemon) {
  constexpr uint64_t kEveryOne =
      ambrel::ABDiscoverAll | ambrel::ABDiscoverAllVersions | ambrel::ABDiscoverDuplicates;
  std::map<String, Kept> kept;
  for (const Dictionary& form : daemon.match({}, kEveryOne)) {
    const String* const identifier = form[ambrel::formkey::identifier].sharedString();
    const auto uuid = UUID::fromString(text(form, ambrel::formkey::uuid));
    if (identifier == nullptr || !uuid) continue;
    const auto read = platform::bundleEntitlements(text(form, ambrel::formkey::path));
    const auto* const granted = std::get_if<Dictionary>(&read);
    const Value entitlements = granted != nullptr ? Value(*granted) : Value();
    Dictionary record;
    for (const char* const name : {annotation::election, annotation::extension}) {
      const Value& value = form[ambrel::formkey::annotations][name];
      // Only a file of annotations that was written by hand holds what the daemon would not take.
      if (flawOf(Dictionary{{name, value}}).empty()) record.set(name, value);
    }
    kept.emplace(abd::ABDPlugIn::annotationKey(*identifier, entitlements), Kept{*uuid, std::move(record)});
  }
  return kept;
}

// --- export ---

void writeDocument(const Dictionary& document, const std::string& file) {
  const auto written = platform::serializePropertyList(document);
  if (const Error* const error = std::get_if<Error>(&written))
    throw Failure(kRefused, "the elections cannot be written: " + error->localizedDescription());
  const std::string& bytes = std::get<std::string>(written);
  if (file == "-") {
    std::fwrite(bytes.data(), 1, bytes.size(), stdout);
    return;
  }
  std::error_code ignored;
  const auto status = std::filesystem::status(file, ignored);
  if (std::filesystem::exists(status) && !std::filesystem::is_regular_file(status))
    throw Failure(kUsage, file + " is no regular file", "without FILE, standard output is written");
  if (const auto error = platform::replaceFile(file, bytes))
    throw Failure(kRefused, "cannot write " + error->localizedDescription());
}

ExitCode exportElections(const Context& context, const std::string& file) {
  Daemon daemon(context);
  Dictionary elections;
  for (const auto& [key, kept] : keptRecords(daemon))
    if (!kept.record.empty()) elections.set(key, kept.record);
  const Dictionary document = {{kVersionKey, kVersion}, {kElectionsKey, elections}};
  const bool isToOutput = file == "-";
  if (!isToOutput || !context.json) writeDocument(document, file);
  if (context.json)
    std::printf(
        "%s\n",
        jsonText(isToOutput ? document : Dictionary{{"exported", elections.size()}, {"file", file}}).c_str());
  else if (!isToOutput)
    std::printf("exported %zu record%s to %s\n", elections.size(), elections.size() == 1 ? "" : "s",
                safeText(file).c_str());
  return kSuccess;
}

// --- import ---

/// The records of a file, all of them fit to be sent.
Dictionary recordsOfFile(const std::string& file) {
  const Value document = platform::withWholeSeconds(dictionaryOfFile(file, "elections"));
  const std::string name = file == "-" ? "standard input" : file;
  if (!document[kVersionKey].isNumber() || document[kVersionKey].integerValue() != kVersion)
    throw Failure(kUsage, name + " does not say that it is of version " + std::to_string(kVersion),
                  kWhatIsExpected);
  const Dictionary* const records = document[kElectionsKey].dictionary();
  if (records == nullptr)
    throw Failure(kUsage, name + " has no dictionary \"" + kElectionsKey + "\"", kWhatIsExpected);
  for (const Dictionary::Entry& entry : *records)
    if (const std::string flaw = flawOf(entry.value); !flaw.empty())
      throw Failure(kUsage, name + ": " + std::string(entry.key.view()) + " " + flaw, kWhatIsExpected);
  if (!platform::canBeWritten(document)) throw Failure(kUsage, name + " is nested too deep", kWhatIsExpected);
  return *records;
}

enum class Outcome { changed, same, notInstalled, refused };
constexpr const char* kOutcomeTexts[] = {"changed", "the same", "not installed", "refused"};
constexpr const char* kOutcomeKeys[] = {"changed", "same", "notInstalled", "refused"};
constexpr Style kOutcomeStyles[] = {Style::good, Style::plain, Style::heading, Style::bad};

class Import {
 public:
  explicit Import(const Context& context) : daemon_(context), kept_(keptRecords(daemon_)) {}

  void apply(const String& key, const Dictionary& wanted) {
    const auto found = kept_.find(key);
    if (found == kept_.end()) return note(Outcome::notInstalled, key, "");
    const auto& [plugIn, stored] = found->second;
    Dictionary change;
    for (const Dictionary::Entry& entry : wanted)
      if (!isSame(entry.value, stored[entry.key])) change.set(entry.key, entry.value);
    if (change.empty()) return note(Outcome::same, key, "");
    try {
      // Once the daemon cannot be reached, no other record waits for it in vain.
      if (lost_) throw *lost_;
      daemon_.annotate({plugIn}, change);
      note(Outcome::changed, key, textOf(stored, change), change);
    } catch (const Failure& failure) {
      if (failure.code == kUnreachable) lost_ = failure;
      note(Outcome::refused, key, failure.what());
    }
  }

  ExitCode report(const Context& context) const {
    if (context.json) {
      Dictionary all;
      for (size_t i = 0; i < std::size(lists_); ++i) all.set(kOutcomeKeys[i], lists_[i]);
      std::printf("%s\n", jsonText(all).c_str());
    } else {
      if (!isEmpty()) std::printf("%s", table_.lines(context.screen).c_str());
      for (size_t i = 0; i < std::size(lists_); ++i)
        std::printf("%s%zu %s", i == 0 ? "" : ", ", lists_[i].size(), kOutcomeTexts[i]);
      std::printf("\n");
    }
    if (lost_) return kUnreachable;
    return lists_[static_cast<size_t>(Outcome::refused)].empty() ? kSuccess : kRefused;
  }

 private:
  /// In a file: there, 1 is not the same as true.
  static bool isSame(const Value& a, const Value& b) {
    return a == b && platform::serializePropertyList(a) == platform::serializePropertyList(b);
  }

  static std::string electionName(const Value& election) {
    const bool isDefault = !election.isNone() && election.integerValue() == ambrel::ABElectionDefault;
    return isDefault ? "default" : electionText(election.integerValue());
  }

  static std::string textOf(const Dictionary& stored, const Dictionary& change) {
    std::string text;
    if (const Value& election = change[annotation::election]; !election.isNone())
      text = "election " + electionName(stored[annotation::election]) + " -> " + electionName(election);
    if (change.contains(annotation::extension))
      text += std::string(text.empty() ? "" : ", ") + "extension " +
              (stored.contains(annotation::extension) ? "changed" : "added");
    return text;
  }

  bool isEmpty() const {
    return std::all_of(std::begin(lists_), std::end(lists_), [](const Array& each) { return each.empty(); });
  }

  void note(Outcome outcome, const String& key, const std::string& what, const Dictionary& change = {}) {
    const auto index = static_cast<size_t>(outcome);
    table_.add({Table::Cell(kOutcomeTexts[index], kOutcomeStyles[index]), std::string(key.view()),
                Table::Cell(what)});
    Dictionary entry = change;
    entry.set("plugin", key);
    if (outcome == Outcome::refused) entry.set("error", what);
    lists_[index].append(std::move(entry));
  }

  Daemon daemon_;
  const std::map<String, Kept> kept_;
  std::optional<Failure> lost_;
  Array lists_[std::size(kOutcomeTexts)];
  Table table_{{"RESULT", "PLUG-IN", "CHANGE"}};
};

ExitCode importElections(const Context& context, const std::string& file) {
  const Dictionary records = recordsOfFile(file);
  Import import(context);
  for (const Dictionary::Entry& entry : records) import.apply(entry.key, *entry.value.dictionary());
  return import.report(context);
}

using Action = ExitCode (*)(const Context& context, const std::string& file);

void addAction(CLI::App& command, Context& context, const char* name, const char* description,
               const char* file, const char* footer, Action action) {
  const auto path = std::make_shared<std::string>("-");
  CLI::App* const added = command.add_subcommand(name, description);
  added->add_option("FILE", *path, file)->type_name("");
  added->footer(footer);
  added->callback([&context, path, action] {
    context.command = [&context, path, action] { return action(context, *path); };
  });
}

}  // namespace

void addElectionsCommand(CLI::App& app, Context& context) {
  CLI::App* const command =
      app.add_subcommand("elections", "Save all elections in a file, and bring them back");
  command->require_subcommand(1);
  addAction(
      *command, context, "export", "Write all elections and extensions as a property list",
      "Where to; standard output without it",
      "Of every plug-in that is installed, offered to hosts or not, and not excluded by the user. (Needs "
      "the\n"
      "entitlement com.veltra.private.ambrel.manager.) With --json and no FILE the same is written as JSON,\n"
      "which has no data and dates.",
      exportElections);
  addAction(
      *command, context, "import", "Elect and annotate as an exported file says",
      "An exported file, property list or JSON; standard input without it",
      "The daemon records each as `abctl annotate` does: limits count and observers are told. What is the "
      "same\n"
      "already is not touched, nor is what the file does not name. A file with anything wrong in it changes\n"
      "nothing. Exit status: 0 also when some plug-ins are not installed, 5 when the daemon refused some.",
      importElections);
}

}  // namespace abctl
