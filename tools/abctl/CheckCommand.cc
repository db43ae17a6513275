// abctl check: everything for which the daemon would ignore or change a bundle, an SDK or rules.

#include <CLI/CLI.hpp>
#include <cstdio>
#include <filesystem>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "Ambrel/ABInfoKeys.h"
#include "platform/hollin/Locations.h"
#include "platform/log/Log.h"
#include "platform/propertylist/PropertyList.h"
#include "platform/system/Directories.h"
#include "tools/abctl/Checks.h"
#include "tools/abctl/Commands.h"
#include "tools/abctl/Findings.h"
#include "tools/abctl/Json.h"

namespace abctl {
namespace {

namespace fs = std::filesystem;
namespace hollin = platform::hollin;

using Check = void (*)(const std::string& path, Findings& findings);

const std::map<std::string, Check> kKinds = {{"application", checkApplications},
                                             {"plug-in", checkBundle},
                                             {"sdk", checkSDK},
                                             {"rules", checkRuleFile}};

bool hasApplications(const fs::path& directory) {
  std::error_code ignored;
  for (const auto& entry : fs::directory_iterator(directory, ignored))
    if (hollin::hasSuffix(entry.path().filename().string(), hollin::kApplicationSuffix)) return true;
  return directory.filename() == "Applications";
}

/// What is at `path`, as its name and its contents tell.
Check checkFor(const fs::path& path) {
  if (fs::is_directory(path)) {
    const bool isApplication = hollin::hasSuffix(path.filename().string(), hollin::kApplicationSuffix);
    return isApplication || hasApplications(path) ? checkApplications : checkBundle;
  }
  const auto dictionary = platform::readDictionaryFile(path);
  const bool isSDK = path.parent_path().filename() == "SDKs" ||
                     (dictionary && dictionary->contains(ambrel::bundlekey::plugIn));
  return isSDK ? checkSDK : checkRuleFile;
}

ExitCode check(const Context& context, const std::vector<std::string>& names, const std::string& kind) {
  platform::silenceLog();
  Findings findings;
  for (const std::string& name : names) {
    const std::string given = platform::canonicalPath(name);
    if (given.empty()) throw Failure(kUsage, "there is nothing at " + name);
    // A bundle's own files stand for it.
    const fs::path file(given);
    const bool isOfBundle =
        kind.empty() && (file.filename() == "Info.plist" || file.filename() == "Entitlements.plist");
    const std::string path = isOfBundle ? file.parent_path().string() : given;
    findings.show(given, name);
    (kind.empty() ? checkFor(path) : kKinds.at(kind))(path, findings);
  }
  findings.sort();
  if (context.json)
    std::printf("%s\n", jsonText(findings.dictionary()).c_str());
  else
    findings.print(context.screen);
  return findings.hasErrors() ? kFoundErrors : kSuccess;
}

}  // namespace

void addCheckCommand(CLI::App& app, Context& context) {
  const auto names = std::make_shared<std::vector<std::string>>();
  const auto kind = std::make_shared<std::string>();
  CLI::App* const command =
      app.add_subcommand("check", "Say what the daemon would ignore or change, before it is installed");
  command->add_option("PATH", *names, "A plug-in bundle, an application, an SDK, or a file with rules")
      ->required()
      ->type_name("");
  std::vector<std::string> kinds;
  for (const auto& each : kKinds) kinds.push_back(each.first);
  command->add_option("--as", *kind, "What PATH is, where its name and contents do not tell")
      ->type_name("KIND")
      ->check(CLI::IsMember(kinds));
  command->footer(
      "No daemon is needed: its own code judges the files. Errors keep a bundle, a file or a rule from "
      "being\n"
      "of any use; warnings tell what is passed over or changed; hints what is likely not meant.\n"
      "SDKs count as they are installed, and those in the directory named by ABTEST_SDK before them.\n"
      "Exit status: 0 without errors, 1 with some.\n\n"
      "Examples:\n"
      "  abctl check build/Postcards.app\n"
      "  abctl check --json Ruler.appex SDKs/com.veltra.preview.plist\n"
      "  abctl check --as rules wanted.plist");
  command->callback([&context, names, kind] {
    context.command = [&context, names, kind] { return check(context, *names, *kind); };
  });
}

}  // namespace abctl
