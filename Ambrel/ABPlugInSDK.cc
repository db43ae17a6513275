// Resolution of a record against its SDK, canonicalization and diagnosis. An SDK is a dictionary shaped like
// a bundle's Info dictionary; the plug-in's own values win but for the keys that the SDK decides.

#include <unordered_set>

#include "Ambrel/ABPlugInCore.h"
#include "platform/log/Log.h"
#include "platform/qmx/Encoding.h"
#include "platform/qmx/SDKRegistry.h"

namespace ambrel {

namespace {

constexpr const char* kObjectClass = "ZQObject";

// What canonicalization stores in every record.
Value objectClass() {
  return String::interned(kObjectClass);
}
Value bundleItself() {
  static const Value list = Array{"."};
  return list;
}

/// A text that two elements of a list share exactly when they are equal. (Two numbers nested in containers
/// count as different when one is a real and the other is not.)
std::string identityOf(const Value& element) {
  if (const auto string = element.string()) return "s" + std::string(*string);
  std::string text = "e";
  const double real = element.realValue();
  const bool isWhole =
      element.isNumber() && real >= -0x1p53 && real <= 0x1p53 && Value(element.integerValue()) == element;
  qmx::encode(isWhole ? Value(element.integerValue()) : element, text);
  return text;
}

/// The elements of a list of resources; one string counts as a list of itself. False for anything else.
bool appendElements(const Value& list, Array& elements, std::unordered_set<std::string>& seen) {
  if (list.isString()) {
    if (seen.insert(identityOf(list)).second) elements.append(list);
    return true;
  }
  const Array* array = list.array();
  if (array == nullptr) return false;
  for (const Value& element : *array)
    if (seen.insert(identityOf(element)).second) elements.append(element);
  return true;
}

}  // namespace

void ABPlugInCore::resolveSDK() {
  const Value& sdk = sdkSpec();
  if (!sdk.isNone()) {
    const auto name = sdk.string();
    if (!name) {
      systemLog("invalid SDK key:%@", sdk);
      return;
    }
    const auto definition = readSDKDictionary(*name, &sdkFile_);
    if (definition && bundleInfoDictionary_.isDictionary())
      setDictionaries(mergeDictionary(*definition, bundleInfoDictionary_.takeDictionary()));
  }
  canonicalize();
}

std::optional<Dictionary> ABPlugInCore::readSDKDictionary(std::string_view name, FileIdentity* source) {
  if (auto entry = qmx::testSDKEntry(name, source)) return entry;
  if (auto entry = qmx::copyExtensionSDKEntry(name, source)) return entry;
  systemLog("plug-in sdk \"%@\" not registered", name);
  return std::nullopt;
}

Dictionary ABPlugInCore::mergeDictionary(const Dictionary& sdk, Dictionary info) {
  Dictionary merged = std::move(info);
  for (const auto& [key, value] : sdk) {
    const Value& own = merged[key];
    if (own.isNone() || sdkOverridesKey(key)) {
      merged.set(key, value);
    } else if (key.view() == plugInkey::shared) {
      merged.set(key, mergeSharedResources(value, own));
    } else if (const Dictionary* section = value.dictionary()) {
      const Dictionary* ownSection = own.dictionary();
      if (ownSection == nullptr) continue;
      Dictionary mergedSection = mergeDictionary(*section, *ownSection);
      if (!mergedSection.isSameObject(*ownSection)) merged.set(key, std::move(mergedSection));
    }
  }
  return merged;
}

Value ABPlugInCore::mergeSharedResources(const Value& sdk, const Value& info) {
  Array merged;
  std::unordered_set<std::string> seen;
  if (!appendElements(info, merged, seen) || !appendElements(sdk, merged, seen)) return info;
  return merged;
}

// The copies are finished before they are put in place; nobody looks at the views in between.
void ABPlugInCore::canonicalize() {
  const Dictionary* own = plugInDictionary_.dictionary();
  if (own == nullptr) return;
  constexpr size_t kMostAdded = 4;
  Dictionary plugIn = *own;
  plugIn.reserve(plugIn.size() + kMostAdded);

  if (isAppExtension()) {
    for (const char* key : {plugInkey::protocol, plugInkey::principalClass})
      if (!plugIn.contains(key)) plugIn.set(String::interned(key), objectClass());
    plugIn.set(String::interned(plugInkey::shared), bundleItself());
  }
  const Dictionary* given = attributes().dictionary();
  if (given != nullptr || attributes().isNone()) {  // anything else is for the diagnosis to refuse
    Dictionary complete = given != nullptr ? *given : Dictionary();
    complete.reserve(complete.size() + kMostAdded);
    complete.set(String::interned(attributekey::format),
                 String::interned(plugIn.contains(plugInkey::embeddedCode) ? "hybrid" : "standard"));
    if (!complete.contains(attributekey::version)) {
      const Value& shortVersion = bundleInfoDictionary_[bundlekey::shortVersion];
      complete.set(String::interned(attributekey::version),
                   shortVersion.isNone() ? Value("1") : shortVersion);
    }
    plugIn.set(String::interned(plugInkey::attributes), std::move(complete));
  }
  setPlugInDictionary(std::move(plugIn));
}

std::optional<Error> ABPlugInCore::diagnose() const {
  if (!identifier_)
    return ABError(kABErrorMisconfigured,
                   "missing identifier (no ZQExtensionIdentifier, nor even BWBundleIdentifier)");
  const auto missing = [](const char* key) {
    return ABErrorWithFormat(kABErrorMisconfigured, "missing \"%@\" key in Info.plist or SDK", key);
  };
  if (plugInDictionary_[plugInkey::protocol].isNone()) return missing(plugInkey::protocol);
  if (attributes().dictionary() == nullptr) return missing(plugInkey::attributes);
  if (isAppExtension() && plugInDictionary_[plugInkey::principalClass].string() != kObjectClass)
    return ABErrorWithFormat(kABErrorMisconfigured, "Application Extensions may not use the \"%@\" key",
                             plugInkey::principalClass);
  if (!plugInDictionary_[plugInkey::passProxy].isNone())
    return ABErrorWithFormat(kABErrorMisconfigured, "the \"%@\" key is not supported on this platform",
                             plugInkey::passProxy);
  if (isHybrid()) return ABError(kABErrorMisconfigured, "hybrid plug-ins are not supported on this platform");
  return std::nullopt;
}

}  // namespace ambrel
