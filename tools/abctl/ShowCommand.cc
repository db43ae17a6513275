// abctl show: everything about one plug-in, readable.

#include <CLI/CLI.hpp>
#include <cstdio>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "Ambrel/ABInfoKeys.h"
#include "Ambrel/ABPlugInCore.h"
#include "Ambrel/ABProtocol.h"
#include "tools/abctl/Commands.h"
#include "tools/abctl/Json.h"
#include "tools/abctl/Origins.h"
#include "tools/abctl/PlugIns.h"
#include "tools/abctl/Trial.h"

namespace abctl {
namespace {

using ambrel::ABPlugInCore;
using platform::Array;
using platform::Dictionary;
using platform::Value;
namespace formkey = ambrel::formkey;

/// Deeper levels are left to --json.
constexpr int kDeepestTree = 16;

void printField(const Screen& screen, const char* name, const std::string& value,
                Style style = Style::plain) {
  if (value.empty()) return;
  std::printf("  %-16s %s\n", name, screen.styled(style, safeText(value)).c_str());
}

std::string scalarText(const Value& value) {
  if (const auto string = value.string()) return safeText(*string);
  if (const auto boolean = value.boolean()) return *boolean ? "true" : "false";
  return safeText(value.description());
}

bool isTree(const Value& value) {
  return (value.isDictionary() && !value.dictionary()->empty()) ||
         (value.isArray() && !value.array()->empty());
}

void printTree(const Value& value, int level) {
  const auto line = [level](const std::string& head, const Value& element) {
    const std::string indent(static_cast<size_t>(level) * 2, ' ');
    if (isTree(element) && level < kDeepestTree) {
      std::printf("%s%s\n", indent.c_str(), head.c_str());
      printTree(element, level + 1);
    } else {
      std::printf("%s%s %s\n", indent.c_str(), head.c_str(),
                  isTree(element) ? "..." : scalarText(element).c_str());
    }
  };
  if (const Dictionary* const dictionary = value.dictionary())
    for (const Dictionary::Entry& entry : *dictionary) line(safeText(entry.key.view()) + ":", entry.value);
  else if (const Array* const array = value.array())
    for (const Value& element : *array) line("-", element);
}

void printSection(const Screen& screen, const char* title, const Value& value) {
  if (!isTree(value)) return;
  std::printf("  %s\n", screen.styled(Style::heading, title).c_str());
  printTree(value, 2);
}

std::string styleOf(const ABPlugInCore& plugIn) {
  std::string style = plugIn.isAppExtension() ? "application extension" : "extension";
  if (plugIn.isMultiplexed()) style += ", one of several in its bundle";
  if (plugIn.isData()) style += ", data only";
  if (plugIn.isDedicated()) style += ", dedicated to its application";
  return style;
}

/// The record's dictionary without the attributes, which have a section of their own.
Value withoutAttributes(const Value& plugIn) {
  if (!plugIn.isDictionary()) return plugIn;
  Dictionary rest = *plugIn.dictionary();
  rest.remove(ambrel::plugInkey::attributes);
  return Value(std::move(rest));
}

Value withoutPlugIn(const Value& info) {
  if (!info.isDictionary()) return info;
  Dictionary rest = *info.dictionary();
  rest.remove(ambrel::bundlekey::plugIn);
  return Value(std::move(rest));
}

std::string protocolText(const Value& protocol) {
  return protocol.isNone()     ? std::string()
         : protocol.isString() ? std::string(*protocol.string())
                               : protocol.description();
}

/// `form` with the replacements that show only beside the other plug-ins of its extension point, by
/// identifier instead of UUID.
Dictionary withReplacements(Daemon& daemon, Dictionary form) {
  const std::string point = extensionPointOf(form);
  if (point.empty()) return form;
  const std::vector<Dictionary> others = daemon.match(Dictionary{{"ZQExtensionPointName", "=" + point}}, 0);
  for (const Dictionary& other : others) {
    if (text(other, formkey::uuid) != text(form, formkey::uuid)) continue;
    form.set(formkey::overrider, other[formkey::overrider]);
    form.set(formkey::overriding, other[formkey::overriding]);
  }
  for (const Dictionary& other : others)
    if (text(other, formkey::uuid) == text(form, formkey::overrider))
      form.set(formkey::overrider, other[formkey::identifier]);
  return form;
}

void printPlugIn(const Screen& screen, const Dictionary& form) {
  const std::shared_ptr<ABPlugInCore> plugIn = ABPlugInCore::initWithForm(form);
  if (plugIn == nullptr) throw Failure(kRefused, "the daemon's answer describes no plug-in");
  const std::string shortName = text(form, formkey::localizedShortName);
  const int64_t election = electionOf(form);
  std::printf("%s\n", screen.styled(Style::heading, safeText(text(form, formkey::identifier))).c_str());
  printField(screen, "name", nameOf(form) + (shortName.empty() ? "" : " (short: " + shortName + ")"));
  printField(screen, "version", text(form, formkey::version));
  printField(screen, "uuid", text(form, formkey::uuid));
  const std::string original = text(form, formkey::originalIdentifier);
  if (original != text(form, formkey::identifier)) printField(screen, "first known as", original);
  printField(screen, "extension point", extensionPointOf(form));
  printField(screen, "protocol", protocolText(plugIn->protocolSpec()));
  printField(screen, "style", styleOf(*plugIn));
  printField(screen, "election", election == 0 ? "none made" : electionText(election),
             electionStyle(election));
  printField(screen, "replaced by", text(form, formkey::overrider));
  printField(screen, "replaces", text(form, formkey::overriding));
  printField(screen, "path", text(form, formkey::path));
  printField(screen, "application", applicationOf(form));
  printField(screen, "", text(form, formkey::containingPath));
  printField(screen, "volume", plugIn->onSystemVolume() ? "system" : "user");
  printField(screen, "registered", timeText(plugIn->lastModified()));
  printField(screen, "hub protocol", std::to_string(plugIn->hubProtocolVersion()));
  if (const Dictionary* const tokens = form[formkey::extensions].dictionary())
    for (const Dictionary::Entry& entry : *tokens)
      printField(screen, "hosts may read", std::string(entry.key.view()));
  printSection(screen, "attributes", plugIn->attributes());
  printSection(screen, "annotation extension", form[formkey::annotations][ambrel::annotation::extension]);
  printSection(screen, "plug-in dictionary", withoutAttributes(plugIn->plugInDictionary()));
  printSection(screen, "bundle", withoutPlugIn(plugIn->bundleInfoDictionary()));
}

ExitCode show(const Context& context, const std::string& name) {
  Daemon daemon(context);
  const std::vector<Dictionary> forms = findPlugIns(daemon, name);
  if (context.json) {
    Array list;
    for (const Dictionary& form : forms) list.append(form);
    std::printf("%s\n", jsonText(list).c_str());
    return kSuccess;
  }
  bool first = true;
  for (const Dictionary& form : forms) {
    if (!std::exchange(first, false)) std::printf("\n");
    printPlugIn(context.screen, withReplacements(daemon, form));
  }
  return kSuccess;
}

/// Tells when the daemon's merged dictionary is another one than what the files give here.
void compareWithDaemon(const Dictionary& form, const Trial::PlugIn& plugIn) {
  if (form[formkey::bundleInfo] == plugIn.record->bundleInfoDictionary()) return;
  std::fprintf(
      stderr,
      "abctl: the daemon has another dictionary of %s: its data roots, or its ABTEST_SDK, are others, "
      "or the files have changed this moment\n",
      safeText(plugIn.identifier).c_str());
}

/// A path is looked at without a daemon.
ExitCode showOrigins(const Context& context, const std::string& name) {
  std::vector<Dictionary> forms;
  if (isPath(name))
    forms.push_back({{formkey::path, absolutePath(name)}});
  else
    forms = findPlugIns(*std::make_unique<Daemon>(context), name);
  Array list;
  bool isFirst = true;
  for (const Dictionary& form : forms) {
    const Trial trial(text(form, formkey::path));
    for (const Trial::PlugIn& plugIn : trial.plugIns) {
      if (plugIn.record == nullptr) continue;
      if (!isPath(name) && text(form, formkey::identifier) != plugIn.identifier.view()) continue;
      if (!isPath(name)) compareWithDaemon(form, plugIn);
      if (context.json) {
        list.append(dictionaryOfOrigins(plugIn));
        continue;
      }
      if (!std::exchange(isFirst, false)) std::printf("\n");
      printOrigins(context.screen, plugIn);
    }
  }
  if (isFirst && list.empty())
    throw Failure(kNothingFound, "no plug-in is made of " + text(forms.front(), formkey::path),
                  "`abctl check PATH` says why");
  if (context.json) std::printf("%s\n", jsonText(list).c_str());
  return kSuccess;
}

}  // namespace

void addShowCommand(CLI::App& app, Context& context) {
  const auto name = std::make_shared<std::string>();
  const auto origin = std::make_shared<bool>(false);
  CLI::App* const command = app.add_subcommand("show", "Show one plug-in in full");
  command->add_option("PLUG-IN", *name, "Identifier, UUID or path")->required()->type_name("");
  command->add_flag("--origin", *origin,
                    "Each key of the merged Info dictionary with where it comes from (of a path: without a\n"
                    "daemon)");
  command->footer(
      "What is shown is what hosts get: the Info dictionary merged with the extension point's defaults. Of\n"
      "several versions the one that hosts are offered is shown; the path of a bundle shows all its "
      "plug-ins.\n"
      "With --json: an array of whole forms; with --origin, of keys with their origins.\n\n"
      "Examples:\n"
      "  abctl show org.example.postcards.share\n"
      "  abctl show ~/.local/share/veltra/Applications/Courier.app/PlugIns/CourierShare.appex");
  command->callback([&context, name, origin] {
    context.command = [&context, name, origin] {
      return *origin ? showOrigins(context, *name) : show(context, *name);
    };
  });
}

}  // namespace abctl
