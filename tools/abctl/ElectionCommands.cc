// abctl elect and annotate: what the user decided about plug-ins.

#include <CLI/CLI.hpp>
#include <charconv>
#include <cstdio>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "Ambrel/ABProtocol.h"
#include "platform/value/UUID.h"
#include "tools/abctl/Commands.h"
#include "tools/abctl/Input.h"
#include "tools/abctl/Json.h"
#include "tools/abctl/PlugIns.h"

namespace abctl {
namespace {

using platform::Array;
using platform::Dictionary;
using platform::UUID;
using platform::Value;

std::optional<int64_t> parseElection(const std::string& word) {
  if (word == "use") return ambrel::ABElectionUse;
  if (word == "ignore") return ambrel::ABElectionIgnore;
  if (word == "default") return ambrel::ABElectionDefault;
  return std::nullopt;
}

int64_t requireElection(const std::string& word) {
  if (const std::optional<int64_t> election = parseElection(word)) return *election;
  int64_t number = 0;
  const auto [end, error] = std::from_chars(word.data(), word.data() + word.size(), number);
  if (error == std::errc() && end == word.data() + word.size()) return number;
  throw Failure(kUsage, "\"" + word + "\" is no election", "say use, ignore, default or a number");
}

void apply(const Context& context, const std::vector<std::string>& names, const Dictionary& annotations,
           const std::string& what) {
  Daemon daemon(context);
  const std::vector<UUID> uuids = findUUIDs(daemon, names);
  daemon.annotate(uuids, annotations);
  if (!context.json) {
    std::printf("%zu plug-in%s: %s\n", uuids.size(), uuids.size() == 1 ? "" : "s", what.c_str());
    return;
  }
  Array list;
  for (const UUID& uuid : uuids) list.append(uuid.string());
  std::printf("%s\n", jsonText(Dictionary{{"annotated", list}, {"annotations", annotations}}).c_str());
}

ExitCode elect(const Context& context, std::vector<std::string> words) {
  const std::optional<int64_t> election = parseElection(words.back());
  if (!election || words.size() < 2)
    throw Failure(kUsage,
                  words.size() < 2 ? "name a plug-in and a choice" : "\"" + words.back() + "\" is no choice",
                  "the last word is the choice: abctl elect PLUG-IN... use|ignore|default");
  const std::string choice = words.back();
  words.pop_back();
  apply(context, words, Dictionary{{ambrel::annotation::election, *election}}, choice);
  return kSuccess;
}

Dictionary extensionOf(const std::string& json, const std::string& file) {
  if (!file.empty()) return dictionaryOfFile(file, "contents");
  const Value value = valueOfJson(json, "--extension");
  if (!value.isDictionary()) throw Failure(kUsage, "the extension is no dictionary");
  return *value.dictionary();
}

struct AnnotateOptions {
  std::vector<std::string> names;
  std::string election, extension, extensionFile;
};

ExitCode annotate(const Context& context, const AnnotateOptions& options) {
  Dictionary annotations;
  if (!options.election.empty())
    annotations.set(ambrel::annotation::election, requireElection(options.election));
  if (!options.extension.empty() || !options.extensionFile.empty())
    annotations.set(ambrel::annotation::extension, extensionOf(options.extension, options.extensionFile));
  if (annotations.empty())
    throw Failure(kUsage, "nothing to annotate with", "give --election, --extension or --extension-file");
  apply(context, options.names, annotations, "annotated");
  return kSuccess;
}

}  // namespace

void addElectionCommands(CLI::App& app, Context& context) {
  const auto words = std::make_shared<std::vector<std::string>>();
  CLI::App* const electCommand = app.add_subcommand("elect", "Say whether plug-ins are to be used");
  electCommand
      ->add_option("PLUG-IN... CHOICE", *words, "Identifiers, UUIDs or paths; then use, ignore or default")
      ->required()
      ->type_name("");
  electCommand->footer(
      "The choice is saved before the answer comes (abd's log says when that fails), announced to every "
      "observer, and shown by match.\n"
      "All versions of an identifier, and a plug-in and its replacement, share one choice. Hosts select by "
      "it\n"
      "with the rule ZQUserElection=1 (use), =2 (ignore) or =0 (no choice made).\n\n"
      "Examples:\n"
      "  abctl elect org.example.postcards.share use\n"
      "  abctl elect org.example.courier.share org.example.courier.sealed ignore");
  electCommand->callback(
      [&context, words] { context.command = [&context, words] { return elect(context, *words); }; });

  const auto options = std::make_shared<AnnotateOptions>();
  CLI::App* const annotateCommand =
      app.add_subcommand("annotate", "Attach an election or a dictionary to plug-ins");
  annotateCommand->add_option("PLUG-IN", options->names, "Identifiers, UUIDs or paths")
      ->required()
      ->type_name("");
  annotateCommand->add_option("--election", options->election, "use, ignore, default, or a number")
      ->type_name("CHOICE");
  CLI::Option* const inlined =
      annotateCommand->add_option("--extension", options->extension, "A dictionary of your own, as JSON")
          ->type_name("JSON");
  annotateCommand
      ->add_option("--extension-file", options->extensionFile,
                   "The same in a file, property list or JSON (\"-\": standard input)")
      ->type_name("FILE")
      ->excludes(inlined);
  annotateCommand->footer(
      "What is given replaces what was stored under that name; the rest stays.\n\n"
      "Example:\n  abctl annotate org.example.postcards.share --extension '{\"position\": 3}'");
  annotateCommand->callback(
      [&context, options] { context.command = [&context, options] { return annotate(context, *options); }; });
}

}  // namespace abctl
