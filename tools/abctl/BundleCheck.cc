// One plug-in bundle: what the scan, the making of its records and a launch make of it.

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <set>
#include <utility>
#include <variant>

#include "Ambrel/ABBundle.h"
#include "Ambrel/ABInfoKeys.h"
#include "Ambrel/ABPlugInCore.h"
#include "Ambrel/ABProtocol.h"
#include "platform/hollin/Locations.h"
#include "platform/launcher/ServiceLauncher.h"
#include "platform/propertylist/PropertyList.h"
#include "platform/qmx/BundleNames.h"
#include "platform/qmx/SDKRegistry.h"
#include "platform/security/CodeSigning.h"
#include "platform/security/Sandbox.h"
#include "tools/abctl/Checks.h"
#include "tools/abctl/Trial.h"
#include "tools/abctl/Vocabulary.h"

namespace abctl {
namespace {

using namespace ambrel;  // the keys
using abd::ABDPlugIn;
using platform::Dictionary;
using platform::Error;
using platform::Flaw;
using platform::KeyPath;
using platform::Value;
using Step = ABRecordTrace::Step;

namespace fs = std::filesystem;

constexpr const char* kExecutable = "BWBundleExecutable";
constexpr const char* kIdentifier = "ZQExtensionIdentifier";
constexpr const char* kNobody = "the daemon ignores the plug-in";
constexpr const char* kNotLaunched = "no host can launch the plug-in";

/// What to do about a key that the daemon finds wrong.
std::string mendFor(std::string_view key) {
  if (key == bundlekey::identifier)
    return "write one like org.example.thing, fit to be the name of a directory";
  if (key == plugInkey::protocol) return "say which interface the plug-in offers";
  if (key == plugInkey::pointIdentifier) return "write the extension point's identifier";
  if (key == bundlekey::service) return "write what an XML property list can hold";
  const bool isUnsupported =
      key == plugInkey::principalClass || key == plugInkey::passProxy || key == plugInkey::embeddedCode;
  return isUnsupported ? "remove the key" : "write a dictionary";
}

/// The names of the SDKs that are installed.
std::vector<std::string> installedSDKs() {
  std::vector<std::string> names;
  for (const std::string& file : platform::qmx::sdkFiles("any")) {
    std::error_code ignored;
    const fs::path example(file);
    for (const auto& entry : fs::directory_iterator(example.parent_path(), ignored))
      if (entry.path().extension() == example.extension()) names.push_back(entry.path().stem());
  }
  return names;
}

class BundleCheck {
 public:
  BundleCheck(const std::string& path, Findings& findings)
      : findings_(findings), trial_(path), file_(path + "/Info.plist", findings, kNobody) {}

  void run() {
    checkKeys(file_, {}, Place::info);
    checkKeys(file_, {bundlekey::service}, Place::service);
    checkEnvironment();
    checkBuildToolKeys();
    if (trial_.plugIns.empty()) {
      // What cannot be read, the file has told already.
      if (file_.dictionary() != nullptr)
        file_.find(Level::error, {}, trial_.facts->refusal, kNobody,
                   "give the Info dictionary a plug-in section, a dictionary under \"ZQExtension\"");
      return;
    }
    checkMultiple();
    for (const Trial::PlugIn& plugIn : trial_.plugIns) checkPlugIn(plugIn);
  }

 private:
  KeyPath sectionOf(const Trial::PlugIn& plugIn) const {
    if (!trial_.facts->isMultiplexed) return {bundlekey::plugIn};
    return {bundlekey::plugIn, topkey::multiple, plugIn.identifier};
  }

  void checkPlugIn(const Trial::PlugIn& plugIn) {
    const KeyPath section = sectionOf(plugIn);
    std::set<std::string> inSection, inAttributes;
    const Value point = file_.at(section / plugInkey::pointIdentifier);
    if (point.isString())
      if (const auto sdk = ABPlugInCore::readSDKDictionary(*point.string())) {
        for (const auto& entry : dictionaryOr((*sdk)[bundlekey::plugIn])) inSection.emplace(entry.key.view());
        for (const auto& entry : dictionaryOr((*sdk)[bundlekey::plugIn][plugInkey::attributes]))
          inAttributes.emplace(entry.key.view());
      }
    checkKeys(file_, section, Place::section, inSection);
    checkKeys(file_, section / plugInkey::attributes, Place::attributes, inAttributes);
    checkActivationRule(file_, section / plugInkey::attributes);
    for (const Flaw& flaw : plugIn.trace.flaws) tellFlaw(flaw, plugIn.record == nullptr);
    checkShared(section);
    const bool isData = plugIn.record != nullptr ? plugIn.record->isData()
                                                 : file_.at(section / plugInkey::protocol) == Value("#Data");
    if (!isData) checkLaunch();
    if (plugIn.record == nullptr) return;
    for (const ABRecordTrace::Change& change : plugIn.trace.changes)
      tellChange(change, valueAt(plugIn.record->bundleInfoDictionary(), change.path));
    checkPoint(*plugIn.record, section);
  }

  static Dictionary dictionaryOr(const Value& value) {
    const Dictionary* const dictionary = value.dictionary();
    return dictionary != nullptr ? *dictionary : Dictionary();
  }

  void tellFlaw(const Flaw& flaw, bool isRefused) {
    const std::string_view key = flaw.path.empty() ? "" : flaw.path.back().view();
    if (key == plugInkey::pointIdentifier) {
      tellUnknownPoint(flaw, isRefused);
    } else {
      file_.find(Level::error, flaw.path, flaw.reason, isRefused ? kNobody : kNotLaunched,
                 // The name of one of several plug-ins.
                 flaw.path.size() > 1 && flaw.path.end()[-2].view() == topkey::multiple &&
                         file_.at(flaw.path).isDictionary()
                     ? mendFor(bundlekey::identifier)
                     : mendFor(key));
    }
  }

  void tellUnknownPoint(const Flaw& flaw, bool isRefused) {
    const Value value = file_.at(flaw.path);
    const auto name = value.string();
    const std::vector<std::string> files = name ? platform::qmx::sdkFiles(*name) : std::vector<std::string>();
    for (const std::string& file : files)
      if (fs::exists(file)) CheckedFile(file, findings_, "the SDK counts as not installed");
    const std::string meant = name ? likelyMeant(*name, installedSDKs()) : "";
    file_.find(isRefused ? Level::error : Level::warning, flaw.path,
               flaw.reason + (meant.empty() ? "" : ": did you mean \"" + meant + "\"?"),
               "the plug-in gets no defaults",
               !meant.empty()  ? "write \"" + meant + "\""
               : files.empty() ? mendFor(plugInkey::pointIdentifier)
                               : "install " + files.back() + ", or name a directory with ABTEST_SDK");
  }

  /// What of the file's own the daemon changes. `merged`: what the plug-in's record says in that place.
  void tellChange(const ABRecordTrace::Change& change, const Value& merged) {
    const std::string_view key = change.path.back().view();
    const Value own = file_.at(change.path);
    if (change.step == Step::sdkDecision && own != merged) {
      file_.find(Level::warning, change.path, "the extension point decides this",
                 "its value " + merged.description() + " counts", "remove the key");
    } else if (change.step == Step::hidesSDK && change.other.isDictionary()) {
      file_.find(Level::hint, change.path, "hides a dictionary of the extension point",
                 "the plug-in gets none of the defaults in it", "write a dictionary, if they are wanted");
    } else if (change.step == Step::canonical && key == plugInkey::shared && !own.isNone()) {
      file_.find(Level::hint, change.path, "hosts may read the whole bundle of an .appex",
                 "the list counts as [\".\"]", "remove the key");
    } else if (change.step == Step::canonical && !own.isNone()) {
      file_.find(Level::warning, change.path, "the daemon sets this itself", "the value is replaced",
                 "remove the key");
    } else if (change.step == Step::canonical && key == attributekey::version &&
               file_.at({bundlekey::shortVersion}).isNone()) {
      file_.find(Level::hint, {bundlekey::shortVersion}, "the plug-in has no version", "it counts as 1",
                 "write BWBundleShortVersionString");
    }
  }

  /// The section around several plug-ins has next to no keys of its own.
  void checkMultiple() {
    if (!trial_.facts->isMultiplexed) return;
    const Value top = file_.at({bundlekey::plugIn});
    for (const auto& [key, value] : *top.dictionary())
      if (key.view() != topkey::multiple && key.view() != topkey::hubProtocolVersion)
        file_.find(Level::warning, {bundlekey::plugIn, key}, "stands beside \"Multiple\"",
                   "no plug-in of the bundle has it", "write it into each plug-in under \"Multiple\"");
    for (const Trial::PlugIn& plugIn : trial_.plugIns)
      for (const char* const key : {kIdentifier, topkey::hubProtocolVersion})
        if (!file_.at(sectionOf(plugIn) / key).isNone())
          file_.find(Level::warning, sectionOf(plugIn) / key, "is not read under \"Multiple\"",
                     "the value is passed over", "remove the key");
  }

  void checkEnvironment() {
    const KeyPath key{bundlekey::service, "EnvironmentVariables"};
    for (const auto& [name, value] : dictionaryOr(file_.at(key)))
      if (!value.isString())
        file_.find(Level::warning, key / name, "the value is not a string",
                   "hosts pass it over when they start the plug-in", "write a string");
  }

  void checkBuildToolKeys() {
    if (file_.dictionary() == nullptr) return;
    for (const auto& [key, value] : *file_.dictionary())
      if (key.view().starts_with(bundlekey::buildToolPrefix))
        file_.find(Level::hint, {key}, "keys that begin with DT are for build tools",
                   "the daemon drops it, and no host sees it", "use another name, if hosts are to see it");
  }

  void checkPoint(const ABDPlugIn& record, const KeyPath& section) {
    const Value& name = record.attributes()[attributekey::pointName];
    if (record.sdkSpec().isNone() && name.isNone() && file_.at({attributekey::pointName}).isNone())
      file_.find(Level::warning, section, "the plug-in names no extension point",
                 "hosts that search for one do not find it", "write ZQExtensionPointIdentifier");
  }

  void checkShared(const KeyPath& section) {
    const std::string path(trial_.facts->path.view());
    const bool isAppExtension = platform::hollin::hasSuffix(path, platform::hollin::kPlugInSuffix);
    const auto judge = [&](const Value& value, const KeyPath& key) {
      const auto name = value.string();
      if (!name || name == ".") return;
      if (platform::findReadableInside(path, platform::URL::file(path, true).appending(*name).path())) return;
      const bool isOutside = errno == EACCES;
      file_.find(isAppExtension ? Level::hint : Level::error, key,
                 "\"" + std::string(*name) + "\": " +
                     (isOutside ? "leads out of the bundle, or cannot be read" : std::strerror(errno)),
                 "no host gets to read it", "name something that lies in the bundle");
    };
    const KeyPath key = section / plugInkey::shared;
    const Value own = file_.at(key);
    judge(own, key);
    if (const platform::Array* const list = own.array())
      for (size_t i = 0; i < list->size(); ++i) judge((*list)[i], key / std::to_string(i));
  }

  /// What goes into a launch registration besides the service.
  void checkLaunch() {
    for (const char* const key : {bundlekey::identifier, bundlekey::version, kExecutable})
      if (const Value own = file_.at({key}); own.isString() && !platform::canBeWritten(own))
        file_.find(Level::error, {key}, "no launch registration can hold the value", kNotLaunched,
                   "write text without control characters");
    const char* refusal = nullptr;
    const auto executable =
        ABBundle::initWithPath(std::string(trial_.facts->path.view()))->executablePath(&refusal);
    const int number = executable ? platform::checkExecutable(*executable) : ENOENT;
    if (refusal != nullptr) {
      file_.find(Level::error, {kExecutable}, refusal, kNotLaunched,
                 "write the path of the executable, relative to the bundle");
    } else if (number != 0) {
      const bool isMissing = number == ENOENT;
      file_.find(Level::error, {kExecutable}, isMissing ? "the executable is missing" : "cannot be executed",
                 kNotLaunched, isMissing ? "put it there" : "make it an executable file (chmod +x)");
    }
  }

  Findings& findings_;
  const Trial trial_;
  const CheckedFile file_;
};

}  // namespace

void checkBundle(const std::string& path, Findings& findings) {
  findings.checked(path, "plug-in");
  if (platform::hollin::Locations::applicationOf(path).empty())
    findings.add({Level::hint, "lies in no application",
                  "no scan finds it; registered by path, few hosts are offered it",
                  "put it into the PlugIns of an .app", path});
  BundleCheck(path, findings).run();
  checkEntitlements(path, findings);
  checkLocalizations(path, findings);
}

void checkEntitlements(const std::string& path, Findings& findings) {
  const std::string name = path + "/Entitlements.plist";
  const auto verdict = platform::bundleEntitlements(path);
  const Error* const error = std::get_if<Error>(&verdict);
  const char* const effect = "the bundle has no entitlements";
  if (error == nullptr) {
    const CheckedFile file(name, findings, effect, CheckedFile::Kind::propertyListIfThere);
    checkKeys(file, {}, Place::entitlements);
    checkRules(file, {entitlement::allowedPlugIns});
  } else if (error->domain == platform::kPOSIXErrorDomain) {
    findings.add({Level::error, error->localizedDescription(), effect,
                  "make it a regular file that is yours and that nobody else may write (chmod go-w)", name});
  } else {
    const CheckedFile file(name, findings, effect);  // tells where, too
  }
}

void checkLocalizations(const std::string& path, Findings& findings) {
  std::error_code ignored;
  for (const auto& entry : fs::directory_iterator(path + "/Localizations", ignored)) {
    const std::string name = entry.path();
    if (entry.path().extension() != ".plist") {
      findings.add({Level::hint, "is not looked at", "only Localizations/<language>.plist is",
                    "give it the suffix .plist", name});
    } else if (const auto words = platform::qmx::readLocalization(name);
               std::holds_alternative<Error>(words)) {
      const CheckedFile file(name, findings, "the bundle has no names in that language");
    } else {
      checkKeys(CheckedFile(name, findings, ""), {}, Place::words);
    }
  }
}

}  // namespace abctl
