// Applications on disk, by the scan that the daemon makes, and the definitions of extension points.

#include <filesystem>
#include <map>
#include <string>
#include <utility>

#include "Ambrel/ABInfoKeys.h"
#include "Ambrel/ABPlugInCore.h"
#include "Ambrel/ABRecordTrace.h"
#include "platform/hollin/BundleFacts.h"
#include "platform/hollin/Locations.h"
#include "platform/hollin/Scanner.h"
#include "platform/propertylist/PropertyList.h"
#include "platform/qmx/SDKRegistry.h"
#include "platform/system/Directories.h"
#include "tools/abctl/Checks.h"
#include "tools/abctl/Vocabulary.h"

namespace abctl {
namespace {

using namespace ambrel;  // the keys
using platform::Dictionary;
using platform::KeyPath;
using platform::Value;
using Step = ABRecordTrace::Step;

namespace fs = std::filesystem;
namespace hollin = platform::hollin;

/// What lies in an application and looks as if it were meant to be found, but is not.
void checkOverlooked(const fs::path& application, Findings& findings) {
  std::error_code ignored;
  for (const auto& entry : fs::directory_iterator(application, ignored)) {
    const std::string name = entry.path().filename();
    if (entry.is_directory(ignored) && !likelyMeant(name, {"PlugIns"}).empty())
      findings.add({Level::error, "did you mean \"PlugIns\"?", "plug-ins in here are not found",
                    "rename it to \"PlugIns\"", entry.path()});
    if (hollin::hasSuffix(name, hollin::kPlugInSuffix))
      findings.add({Level::error, "lies beside \"PlugIns\", not in it", "the plug-in is not found",
                    "move it into " + (application / "PlugIns").string(), entry.path()});
  }
  for (const auto& entry : fs::directory_iterator(application / "PlugIns", ignored)) {
    if (!hollin::hasSuffix(entry.path().filename().string(), hollin::kPlugInSuffix))
      findings.add(
          {Level::warning, "is no .appex", "it is not looked at", "give it the suffix .appex", entry.path()});
    else if (!entry.is_directory(ignored))
      findings.add({Level::warning, "is no directory", "it is not looked at", "a plug-in is a directory",
                    entry.path()});
  }
}

void checkApplication(const std::string& path, Findings& findings) {
  findings.checked(path, "application");
  const char* const effect = "the application has no name, and no consent counts";
  const CheckedFile info(path + "/Info.plist", findings, effect, CheckedFile::Kind::propertyListIfThere);
  checkKeys(info, {}, Place::info);
  std::error_code ignored;
  if (!fs::exists(info.path(), ignored))
    findings.add({Level::warning, "the file is missing", effect, "add it", info.path()});
  if (fs::exists(fs::symlink_status(path + "/Placeholder", ignored)))
    findings.add({Level::error, "the application is a placeholder", "its plug-ins are not offered",
                  "remove the file when all is in place", path + "/Placeholder"});
  checkOverlooked(path, findings);
  checkEntitlements(path, findings);
  checkLocalizations(path, findings);
}

/// Plug-ins of one application that stand in each other's way.
void checkIdentifiers(const hollin::Scan& scan, Findings& findings) {
  std::map<std::pair<std::string_view, std::string>, std::string> known;
  for (const hollin::FoundBundle& found : scan.bundles) {
    const auto facts = hollin::readBundleFacts(found.path, found.info, found.entitlementsFile);
    for (const hollin::PlugInFacts& plugIn : facts->plugIns) {
      const std::string identifier(plugIn.identifier.view());
      const auto [first, isNew] =
          known.emplace(std::pair(hollin::Locations::applicationOf(found.path), identifier), found.path);
      if (!isNew)
        findings.add({Level::warning,
                      "has the identifier of " + std::string(hollin::lastComponentOf(first->second)) + ": " +
                          identifier,
                      "hosts are offered one of them, the newest version",
                      "give each an identifier of its own", found.path});
    }
  }
}

bool isUnderTest(const fs::path& path) {
  const auto directory = platform::qmx::testSDKDirectory();
  return directory && path.parent_path() == fs::path(platform::canonicalPath(*directory));
}

/// Other definitions of the same extension point.
void checkOthers(const std::string& path, const std::string& name, Findings& findings) {
  bool isAfter = false;
  for (const std::string& file : platform::qmx::sdkFiles(name)) {
    const bool isThis = platform::canonicalPath(file) == path;
    isAfter = isAfter || isThis;
    if (isThis || !platform::readDictionaryFile(file)) continue;
    findings.add(
        {isAfter ? Level::hint : Level::warning, std::string(isAfter ? "hides " : "is hidden by ") + file,
         "the first counts of a directory named by ABTEST_SDK, the user's data root and the system's",
         "keep one of them, if that is not meant", path});
  }
}

/// The defaults as a plug-in gets them that says no more than its extension point.
void checkDefaults(const CheckedFile& file, const std::string& name) {
  const Dictionary section{{plugInkey::pointIdentifier, name}};
  ABRecordTrace trace;
  ABPlugInCore plugIn;
  plugIn.setupWithName(platform::String("plug-in"), platform::URL::file("/PlugIn.appex", true),
                       Dictionary{{bundlekey::plugIn, section}}, Value(), std::nullopt);
  plugIn.resolveWith(*file.dictionary(), &trace);
  if (!plugIn.topDictionary().isDictionary()) return;
  plugIn.diagnose(&trace);
  for (const platform::Flaw& flaw : trace.flaws)
    file.find(Level::error, flaw.path, flaw.reason, "plug-ins that leave this key to the SDK are ignored",
              "mend the key, or leave it out");
  for (const ABRecordTrace::Change& change : trace.changes)
    if (change.step == Step::canonical && !file.at(change.path).isNone())
      file.find(Level::hint, change.path, "the daemon sets this itself",
                "the default has no effect on an .appex", "remove the key");
}

}  // namespace

void checkApplications(const std::string& path, Findings& findings) {
  hollin::Scanner scanner([&findings](hollin::Scanner::Way way, const std::string& met, const std::string&) {
    const bool isApplication = hollin::hasSuffix(met, hollin::kApplicationSuffix);
    if (way == hollin::Scanner::Way::directory && isApplication) checkApplication(met, findings);
  });
  if (platform::hollin::lastComponentOf(path) == "Applications")
    scanner.scanApplications(path);
  else
    scanner.scanEntry(path);
  const hollin::Scan scan = scanner.take();
  for (const hollin::FoundBundle& found : scan.bundles) checkBundle(found.path, findings);
  checkIdentifiers(scan, findings);
  if (scan.bundles.empty())
    findings.add(
        {Level::warning, "there is no plug-in in here", "", "plug-ins are PlugIns/*.appex of an .app", path});
}

void checkSDK(const std::string& path, Findings& findings) {
  findings.checked(path, "SDK");
  const CheckedFile file(path, findings, "the SDK counts as not installed");
  const fs::path place(path);
  const std::string name = isUnderTest(place) ? place.filename() : place.stem();
  if (!isUnderTest(place) && place.extension() != ".plist")
    findings.add({Level::error, "has not the suffix .plist", "the SDK counts as not installed",
                  "name the file <extension point>.plist", path});
  checkOthers(path, name, findings);
  if (file.dictionary() == nullptr) return;
  const KeyPath section{bundlekey::plugIn};
  if (file.at(section).isNone())
    file.find(Level::warning, {}, "there is no plug-in section", "plug-ins get no defaults from it",
              "write defaults into a dictionary under \"ZQExtension\"");
  else if (!file.at(section).isDictionary())
    file.find(Level::error, section, "the plug-in section is no dictionary",
              "plug-ins get no defaults from it", "write a dictionary");
  checkKeys(file, {}, Place::info);
  checkKeys(file, section, Place::section);
  checkKeys(file, section / plugInkey::attributes, Place::attributes);
  checkActivationRule(file, section / plugInkey::attributes);
  checkDefaults(file, name);
}

}  // namespace abctl
