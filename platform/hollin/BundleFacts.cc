#include "platform/hollin/BundleFacts.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <functional>
#include <new>
#include <utility>

#include "platform/log/Log.h"
#include "platform/propertylist/PropertyList.h"
#include "platform/qmx/Encoding.h"
#include "platform/qmx/SDKRegistry.h"
#include "platform/security/CodeSigning.h"
#include "platform/value/UTF8.h"

namespace platform::hollin {

namespace {

constexpr std::string_view kExtension = "ZQExtension";
constexpr std::string_view kMultiple = "Multiple";
constexpr std::string_view kAttributes = "ZQExtensionAttributes";
constexpr std::string_view kPointName = "ZQExtensionPointName";
constexpr std::string_view kProtocol = "ZQExtensionProtocol";
constexpr std::string_view kDataProtocol = "#Data";

void addName(const Value& value, std::vector<String>& names) {
  const String* name = value.sharedString();
  if (name != nullptr && std::find(names.begin(), names.end(), *name) == names.end()) names.push_back(*name);
}

/// Adds a string, or every string of an array.
void addNames(const Value& value, std::vector<String>& names) {
  addName(value, names);
  if (const Array* array = value.array())
    for (const Value& element : *array) addName(element, names);
}

String stringOrEmpty(const Value& value) {
  const String* text = value.sharedString();
  return text != nullptr ? *text : String();
}

std::optional<String> stringOrNone(const Value& value) {
  const String* text = value.sharedString();
  return text != nullptr ? std::optional<String>(*text) : std::nullopt;
}

Protocol protocolOf(const Value& value) {
  if (value.isNone()) return Protocol::absent;
  return value == Value(kDataProtocol) ? Protocol::data : Protocol::other;
}

PlugInFacts plugInFacts(String identifier, const Value& dictionary, const Dictionary& info) {
  PlugInFacts plugIn;
  plugIn.identifier = std::move(identifier);
  plugIn.sdk = stringOrEmpty(dictionary["ZQExtensionPointIdentifier"]);
  addNames(dictionary[kAttributes][kPointName], plugIn.names);
  addNames(info[kPointName], plugIn.names);
  if (plugIn.sdk.size() != 0) addName(Value(plugIn.sdk), plugIn.names);
  plugIn.protocol = protocolOf(dictionary[kProtocol]);
  return plugIn;
}

/// A multiplexed bundle has one plug-in per key; the dictionary is sorted by key already.
void addMultiple(const Dictionary& multiple, const Dictionary& info, BundleFacts& facts) {
  facts.isMultiplexed = true;
  if (multiple.size() > kMaximumPlugInsOfBundle) {
    facts.refusal = "it holds too many plug-ins";
    return;
  }
  facts.plugIns.reserve(multiple.size());
  for (const auto& entry : multiple) facts.plugIns.push_back(plugInFacts(entry.key, entry.value, info));
  if (facts.plugIns.empty()) facts.refusal = "it holds no plug-in";
}

void addPlugIns(const Dictionary& info, BundleFacts& facts) {
  const Value& top = info[kExtension];
  if (top.isNone() && !info.contains("Ambrel")) {
    facts.refusal = "it is not a plug-in";
    return;
  }
  facts.bundleIdentifier = stringOrNone(info["BWBundleIdentifier"]);
  facts.bundleVersion = stringOrNone(info["BWBundleVersion"]);
  if (const Dictionary* multiple = top[kMultiple].dictionary()) {
    addMultiple(*multiple, info, facts);
    return;
  }
  String identifier = stringOrEmpty(top["ZQExtensionIdentifier"]);
  if (identifier.size() == 0) identifier = facts.bundleIdentifier.value_or(String());
  facts.plugIns.push_back(plugInFacts(std::move(identifier), top, info));
}

bool isTransient(const Error& error) {
  if (error.domain != kPOSIXErrorDomain) return false;
  return error.code == EMFILE || error.code == ENFILE || error.code == ENOMEM || error.code == EINTR;
}

/// What memory is lacking for is read again later.
Result<Value> readInfo(const std::string& path) {
  try {
    return readPropertyListFile(path + "/Info.plist");
  } catch (const std::bad_alloc&) {
    return Error::posix(ENOMEM, path);
  }
}

/// Only a file that is there is worth asking for.
void addEntitlements(const std::string& path, BundleFacts& facts) {
  if (facts.entitlementsFile == FileIdentity()) return;
  std::variant<Dictionary, Error> entitlements = bundleEntitlements(path);
  if (const Error* error = std::get_if<Error>(&entitlements)) {
    facts.isTransient = isTransient(*error);
    if (!facts.isTransient)
      systemLog("ignoring entitlements of bundle at %@: %@", path, error->localizedDescription());
    return;
  }
  facts.entitlements = std::get<Dictionary>(std::move(entitlements));
}

}  // namespace

FileIdentity identityOf(const struct stat& status) {
  FileIdentity identity = FileIdentity::of(status);
  identity.device = 0;
  return identity;
}

void identifyFiles(const std::string& path, FileIdentity& info, FileIdentity& entitlements) {
  struct stat status {};
  info = entitlements = FileIdentity();
  if (stat((path + "/Info.plist").c_str(), &status) == 0) info = identityOf(status);
  if (lstat((path + "/Entitlements.plist").c_str(), &status) == 0) entitlements = identityOf(status);
}

std::shared_ptr<const BundleFacts> readBundleFacts(const std::string& path, const FileIdentity& info,
                                                   const FileIdentity& entitlements) {
  auto facts = std::make_shared<BundleFacts>();
  facts->path = path;
  facts->info = info;
  facts->entitlementsFile = entitlements;
  if (!isValidText(path)) {
    facts->refusal = "its path is not UTF-8";
    return facts;
  }
  const Result<Value> read = readInfo(path);
  if (const Error* error = std::get_if<Error>(&read)) {
    facts->refusal = error->localizedDescription();
    facts->isTransient = isTransient(*error);
    return facts;
  }
  const Dictionary* dictionary = std::get<Value>(read).dictionary();
  if (dictionary == nullptr) {
    facts->refusal = "its Info file holds no dictionary";
    return facts;
  }
  addPlugIns(*dictionary, *facts);
  if (!facts->plugIns.empty()) addEntitlements(path, *facts);
  return facts;
}

SDKFacts readSDKFacts(std::string_view name) {
  SDKFacts facts;
  bool isFirst = true;
  // The test definition stands before the registered one, but may go at any time: both count.
  const auto test = qmx::testSDKEntry(name, &facts.file);
  const auto registered = qmx::copyExtensionSDKEntry(name, test ? nullptr : &facts.file);
  for (const auto& entry : {test, registered}) {
    if (!entry) continue;
    const Value& top = (*entry)[kExtension];
    addNames((*entry)[kPointName], facts.names);
    addNames(top[kAttributes][kPointName], facts.names);
    if (const Dictionary* multiple = top[kMultiple].dictionary())
      for (const auto& plugIn : *multiple) addNames(plugIn.value[kAttributes][kPointName], facts.names);
    if (!std::exchange(isFirst, false)) continue;
    facts.isData = protocolOf(top[kProtocol]) == Protocol::data;
    std::string bytes;
    qmx::encode(*entry, bytes);
    facts.contents = std::hash<std::string>()(bytes);
  }
  return facts;
}

}  // namespace platform::hollin
