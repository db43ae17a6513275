#include "abd/plugin/ABDPlugIn.h"

#include <utility>

#include "Ambrel/ABProtocol.h"
#include "Ambrel/ABRecordTrace.h"
#include "platform/log/Log.h"
#include "platform/qmx/Bundle.h"

namespace abd {

namespace {

int64_t wholeSeconds(Date date) {
  return Value(date.secondsSince1970).integerValue();
}

}  // namespace

std::shared_ptr<ABDPlugIn> ABDPlugIn::initWithHLData(std::shared_ptr<const HLAmbrelProxy> proxy,
                                                     ABRecordTrace* trace) {
  const auto url = proxy->bundleURL();
  if (!url) return nullptr;
  // The registry's paths are canonical, so the bundle need not be looked up first.
  const std::optional<Dictionary> info = qmx::Bundle::infoDictionaryAt(url->path());

  auto record = std::make_shared<ABDPlugIn>();
  const String& identifier = proxy->pluginIdentifier();
  if (!record->setupWithName(identifier.size() != 0 ? std::optional(identifier) : std::nullopt, url,
                             prunedInfoDictionaryFor(info), info ? proxy->ambrelDictionary(*info) : Value(),
                             proxy->pluginUUID(), trace))
    return nullptr;
  record->hlproxy_ = std::move(proxy);
  if (info) record->ownNames_ = qmx::BundleNames::of(*info);
  const HLAmbrelProxy& data = *record->hlproxy_;
  record->setOriginalIdentifier(data.originalIdentifier());
  record->setLastModified(wholeSeconds(data.registrationDate()));
  record->setOnSystemVolume(data.isOnSystemPartition());
  record->resolveSDK(trace);

  const Value& hubVersion = record->topDictionary()[topkey::hubProtocolVersion];
  const bool isOldStyle = !record->bundleInfoDictionary()[bundlekey::oldStyle].isNone();
  record->setHubProtocolVersion(!hubVersion.isNone() ? hubVersion.unsignedValue() : isOldStyle ? 1 : 2);
  if (const auto container = data.containingBundle()) record->setContainingUrl(container->bundleURL());

  if (const auto error = record->diagnose(trace)) {
    systemLog("ignoring mis-configured plug-in at %@: %@", record->path(), error->localizedDescription());
    return nullptr;
  }
  record->reportUnlaunchableService(trace);
  return record;
}

Dictionary ABDPlugIn::prunedInfoDictionaryFor(const std::optional<Dictionary>& info) {
  if (!info) return {};
  Dictionary pruned = *info;
  pruned.removeKeysWithPrefix(bundlekey::buildToolPrefix);
  return pruned;
}

// --- Names ---

std::optional<String> ABDPlugIn::givenName(Name which) const {
  const std::lock_guard lock(mutex_);
  return names_[which];
}

void ABDPlugIn::setName(Name which, std::optional<String> name) {
  const std::lock_guard lock(mutex_);
  names_[which] = std::move(name);
}

std::optional<String> ABDPlugIn::localizedName() const {
  if (auto name = givenName(displayName)) return name;
  return hlproxy_->localizedNames(ownNames_).display;
}

std::optional<String> ABDPlugIn::localizedShortName() const {
  if (auto name = givenName(shortName)) return name;
  return hlproxy_->localizedNames(ownNames_).brief;
}

std::optional<String> ABDPlugIn::localizedContainingName() const {
  if (auto name = givenName(containingName)) return name;
  const auto application = containingApplication();
  return application != nullptr ? application->localizedNames().display : std::nullopt;
}

/// Whether the names stay what they are as long as the record is kept.
bool ABDPlugIn::areNamesCertain() const {
  const auto application = containingApplication();
  return hlproxy_->localizedNames(ownNames_).isCertain &&
         (application == nullptr || application->localizedNames().isCertain);
}

void ABDPlugIn::setLocalizedName(std::optional<String> name) {
  setName(displayName, std::move(name));
}

void ABDPlugIn::setLocalizedShortName(std::optional<String> name) {
  setName(shortName, std::move(name));
}

void ABDPlugIn::setLocalizedContainingName(std::optional<String> name) {
  setName(containingName, std::move(name));
}

// --- Entitlements ---

bool ABDPlugIn::hasEntitlement(std::string_view name) const {
  const Value& value = valueForEntitlement(name);
  return !value.isNone() && !value.isFalse();
}

const String& ABDPlugIn::annotationKey() const {
  return annotationKey(identifier(), entitlements());
}

const String& ABDPlugIn::annotationKey(const String& identifier, const Value& entitlements) {
  const String* replaced = entitlements[entitlement::replacePlugIn].sharedString();
  return replaced != nullptr ? *replaced : identifier;
}

std::optional<Error> ABDPlugIn::diagnose(ABRecordTrace* trace) const {
  if (auto error = ABPlugInCore::diagnose(trace)) return error;
  if (isData() || hlproxy_->dataContainerURL()) return std::nullopt;
  auto error = ABError(kABErrorMisconfigured, "this plug-in has no sandbox data container");
  if (trace != nullptr)
    trace->flaw(isMultiplexed() ? plugInPath() : KeyPath{bundlekey::identifier}, *error.text);
  return error;
}

std::shared_ptr<const HLApplicationProxy> ABDPlugIn::containingApplication() const {
  return std::dynamic_pointer_cast<const HLApplicationProxy>(hlproxy_->containingBundle());
}

// --- Form ---

std::shared_ptr<const PlugInForm::KeptPart> ABDPlugIn::keptPart(std::optional<Error>* error) const {
  {
    const std::lock_guard lock(mutex_);
    if (kept_ != nullptr) return kept_;
  }
  const bool isToBeKept = areNamesCertain();  // before they go into the form
  Dictionary form = exportForm(error);
  form.remove(formkey::annotations);
  auto part = std::make_shared<PlugInForm::KeptPart>();
  part->shared = plugInDictionary()[plugInkey::shared];
  part->count = form.size();
  part->entries = qmx::encodeEntries(form);
  if (!isToBeKept) return part;
  const std::lock_guard lock(mutex_);
  if (kept_ == nullptr) kept_ = std::move(part);
  return kept_;
}

PlugInForm ABDPlugIn::requestForm(std::optional<Error>* error) const {
  return PlugInForm(shared_from_this(), keptPart(error));
}

}  // namespace abd
