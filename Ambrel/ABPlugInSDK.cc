// Resolution of a record against its SDK, canonicalization and diagnosis. An SDK is a dictionary shaped like
// a bundle's Info dictionary; the plug-in's own values win but for the keys that the SDK decides.

#include <unordered_set>

#include "Ambrel/ABPlugInCore.h"
#include "Ambrel/ABRecordTrace.h"
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

/// Sets what canonicalization decides.
void setCanonical(Dictionary& dictionary, const char* key, Value value, ABRecordTrace* trace) {
  if (trace != nullptr && dictionary[key] != value)
    trace->change(key, ABRecordTrace::Step::canonical, dictionary[key]);
  dictionary.set(String::interned(key), std::move(value));
}

}  // namespace

void ABPlugInCore::resolveSDK(ABRecordTrace* trace) {
  const Value& sdk = sdkSpec();
  std::optional<Dictionary> definition;
  if (!sdk.isNone()) {
    const auto name = sdk.string();
    const auto tell = [&](const char* reason) {
      if (trace == nullptr) return;
      KeyPath path = plugInPath();
      path.push_back(plugInkey::pointIdentifier);
      trace->flaw(std::move(path), reason);
    };
    if (!name) {
      systemLog("invalid SDK key:%@", sdk);
      tell("the extension point's identifier is no text");
      return;
    }
    definition = readSDKDictionary(*name, &sdkFile_);
    if (!definition) tell("the extension point's SDK is not installed");
  }
  resolveWith(definition, trace);
}

void ABPlugInCore::resolveWith(const std::optional<Dictionary>& sdk, ABRecordTrace* trace) {
  if (sdk && bundleInfoDictionary_.isDictionary())
    setDictionaries(mergeDictionary(*sdk, bundleInfoDictionary_.takeDictionary(), trace));
  canonicalize(trace);
}

std::optional<Dictionary> ABPlugInCore::readSDKDictionary(std::string_view name, FileIdentity* source) {
  if (auto entry = qmx::testSDKEntry(name, source)) return entry;
  if (auto entry = qmx::copyExtensionSDKEntry(name, source)) return entry;
  systemLog("plug-in sdk \"%@\" not registered", name);
  return std::nullopt;
}

Dictionary ABPlugInCore::mergeDictionary(const Dictionary& sdk, Dictionary info, ABRecordTrace* trace) {
  using Step = ABRecordTrace::Step;
  const auto tell = [trace](const String& key, Step step, const Value& other) {
    if (trace != nullptr) trace->change(key, step, other);
  };
  Dictionary merged = std::move(info);
  for (const auto& [key, value] : sdk) {
    const Value& own = merged[key];
    if (own.isNone() || sdkOverridesKey(key)) {
      tell(key, own.isNone() ? Step::sdkDefault : Step::sdkDecision, own);
      merged.set(key, value);
    } else if (key.view() == plugInkey::shared) {
      tell(key, Step::united, own);
      merged.set(key, mergeSharedResources(value, own));
    } else if (const Dictionary* section = value.dictionary(); section != nullptr && own.isDictionary()) {
      const Dictionary* ownSection = own.dictionary();
      if (trace != nullptr) trace->place.push_back(key);
      Dictionary mergedSection = mergeDictionary(*section, *ownSection, trace);
      if (trace != nullptr) trace->place.pop_back();
      if (!mergedSection.isSameObject(*ownSection)) merged.set(key, std::move(mergedSection));
    } else if (trace != nullptr && own != value) {
      tell(key, Step::hidesSDK, value);
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
void ABPlugInCore::canonicalize(ABRecordTrace* trace) {
  const Dictionary* own = plugInDictionary_.dictionary();
  if (own == nullptr) return;
  constexpr size_t kMostAdded = 4;
  Dictionary plugIn = *own;
  plugIn.reserve(plugIn.size() + kMostAdded);
  if (trace != nullptr) trace->place = plugInPath();

  if (isAppExtension()) {
    for (const char* key : {plugInkey::protocol, plugInkey::principalClass})
      if (!plugIn.contains(key)) setCanonical(plugIn, key, objectClass(), trace);
    setCanonical(plugIn, plugInkey::shared, bundleItself(), trace);
  }
  const Dictionary* given = attributes().dictionary();
  if (given != nullptr || attributes().isNone()) {  // anything else is for the diagnosis to refuse
    Dictionary complete = given != nullptr ? *given : Dictionary();
    complete.reserve(complete.size() + kMostAdded);
    if (trace != nullptr) trace->place.push_back(plugInkey::attributes);
    const char* const style = plugIn.contains(plugInkey::embeddedCode) ? "hybrid" : "standard";
    setCanonical(complete, attributekey::format, String::interned(style), trace);
    if (!complete.contains(attributekey::version)) {
      const Value& shortVersion = bundleInfoDictionary_[bundlekey::shortVersion];
      setCanonical(complete, attributekey::version, shortVersion.isNone() ? Value("1") : shortVersion, trace);
    }
    plugIn.set(String::interned(plugInkey::attributes), std::move(complete));
  }
  setPlugInDictionary(std::move(plugIn));
}

std::optional<Error> ABPlugInCore::diagnose(ABRecordTrace* trace) const {
  const auto refuse = [&](const char* key, Error error) {
    if (trace != nullptr) {
      KeyPath path = identifier_ ? plugInPath() : KeyPath();
      path.push_back(key);
      trace->flaw(std::move(path), error.localizedDescription());
    }
    return error;
  };
  if (!identifier_)
    return refuse(bundlekey::identifier,
                  ABError(kABErrorMisconfigured,
                          "missing identifier (no ZQExtensionIdentifier, nor even BWBundleIdentifier)"));
  const auto missing = [&](const char* key) {
    return refuse(key,
                  ABErrorWithFormat(kABErrorMisconfigured, "missing \"%@\" key in Info.plist or SDK", key));
  };
  if (plugInDictionary_[plugInkey::protocol].isNone()) return missing(plugInkey::protocol);
  if (attributes().dictionary() == nullptr) return missing(plugInkey::attributes);
  if (isAppExtension() && plugInDictionary_[plugInkey::principalClass].string() != kObjectClass)
    return refuse(
        plugInkey::principalClass,
        ABErrorWithFormat(kABErrorMisconfigured, "Application Extensions may not use the \"%@\" key",
                          plugInkey::principalClass));
  if (!plugInDictionary_[plugInkey::passProxy].isNone())
    return refuse(plugInkey::passProxy,
                  ABErrorWithFormat(kABErrorMisconfigured, "the \"%@\" key is not supported on this platform",
                                    plugInkey::passProxy));
  if (isHybrid())
    return refuse(plugInkey::embeddedCode,
                  ABError(kABErrorMisconfigured, "hybrid plug-ins are not supported on this platform"));
  return std::nullopt;
}

}  // namespace ambrel
