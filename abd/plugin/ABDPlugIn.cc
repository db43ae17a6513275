#include "abd/plugin/ABDPlugIn.h"

#include <algorithm>
#include <utility>

#include "Ambrel/ABBundle.h"
#include "Ambrel/ABProtocol.h"
#include "platform/log/Log.h"

namespace abd {

namespace {

int64_t wholeSeconds(Date date) {
  return Value(date.secondsSince1970).integerValue();
}

}  // namespace

std::shared_ptr<ABDPlugIn> ABDPlugIn::initWithHLData(std::shared_ptr<const HLAmbrelProxy> proxy) {
  const auto url = proxy->bundleURL();
  if (!url) return nullptr;
  const std::optional<Dictionary> info = ABBundle::initWithURL(*url)->infoDictionary();

  auto record = std::make_shared<ABDPlugIn>();
  const String& identifier = proxy->pluginIdentifier();
  if (!record->setupWithName(identifier.size() != 0 ? std::optional(identifier) : std::nullopt, url,
                             prunedInfoDictionaryFor(info), proxy->ambrelDictionary(), proxy->pluginUUID()))
    return nullptr;
  record->hlproxy_ = std::move(proxy);
  const HLAmbrelProxy& data = *record->hlproxy_;
  record->setOriginalIdentifier(data.originalIdentifier());
  record->setLastModified(wholeSeconds(data.registrationDate()));
  record->setOnSystemVolume(data.isOnSystemPartition());
  record->resolveSDK();

  const Value& hubVersion = record->topDictionary()[topkey::hubProtocolVersion];
  const bool isOldStyle = !record->bundleInfoDictionary()[bundlekey::oldStyle].isNone();
  record->setHubProtocolVersion(!hubVersion.isNone() ? hubVersion.unsignedValue() : isOldStyle ? 1 : 2);
  if (const auto container = data.containingBundle()) record->setContainingUrl(container->bundleURL());

  if (const auto error = record->diagnose()) {
    systemLog("ignoring mis-configured plug-in at %@: %@", record->path(), error->localizedDescription());
    return nullptr;
  }
  record->reportUnlaunchableService();
  record->readNames(info);
  return record;
}

Dictionary ABDPlugIn::prunedInfoDictionaryFor(const std::optional<Dictionary>& info) {
  if (!info) return {};
  // Sorted keys: those with the prefix stand together.
  const auto isBuildTool = [](const Dictionary::Entry& entry) {
    return entry.key.view().starts_with(bundlekey::buildToolPrefix);
  };
  const auto* first = std::find_if(info->begin(), info->end(), isBuildTool);
  if (first == info->end()) return *info;
  const auto* last = std::find_if_not(first, info->end(), isBuildTool);
  std::vector<Dictionary::Entry> kept(info->begin(), first);
  kept.insert(kept.end(), last, info->end());
  return *Dictionary::fromEntries(std::move(kept));
}

// --- Names ---

std::optional<String> ABDPlugIn::name(Name which, RegistryAnswer ask) const {
  {
    const std::lock_guard lock(mutex_);
    if (names_[which]) return names_[which];
  }
  auto answer = ask(*hlproxy_);
  const std::lock_guard lock(mutex_);
  if (!names_[which] && answer) names_[which] = String(*answer);
  return names_[which];
}

void ABDPlugIn::setName(Name which, std::optional<String> name) {
  const std::lock_guard lock(mutex_);
  names_[which] = std::move(name);
}

void ABDPlugIn::readNames(const std::optional<Dictionary>& info) {
  if (info) {
    const qmx::BundleNames names = qmx::localizedBundleNames(path(), *info);
    setName(displayName, names.display);
    setName(shortName, names.brief);
  }
  localizedContainingName();
}

std::optional<String> ABDPlugIn::localizedName() const {
  return name(displayName, [](const HLAmbrelProxy& proxy) { return proxy.localizedName(); });
}

std::optional<String> ABDPlugIn::localizedShortName() const {
  return name(shortName, [](const HLAmbrelProxy& proxy) { return proxy.localizedShortName(); });
}

std::optional<String> ABDPlugIn::localizedContainingName() const {
  return name(containingName, [](const HLAmbrelProxy& proxy) -> std::optional<std::string> {
    const auto container = proxy.containingBundle();
    if (container == nullptr) return std::nullopt;
    return container->localizedName();
  });
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

std::optional<Error> ABDPlugIn::diagnose() const {
  if (auto error = ABPlugInCore::diagnose()) return error;
  if (!isData() && !hlproxy_->dataContainerURL())
    return ABError(kABErrorMisconfigured, "this plug-in has no sandbox data container");
  return std::nullopt;
}

std::shared_ptr<const HLApplicationProxy> ABDPlugIn::containingApplication() const {
  return std::dynamic_pointer_cast<const HLApplicationProxy>(hlproxy_->containingBundle());
}

// --- Form ---

namespace {

constexpr const char* kNameKeys[] = {formkey::localizedDisplayName, formkey::localizedShortName,
                                     formkey::localizedContainingDisplayName};

}  // namespace

std::shared_ptr<const PlugInForm::KeptPart> ABDPlugIn::keptPart(std::optional<Error>* error) const {
  {
    const std::lock_guard lock(mutex_);
    if (kept_ != nullptr) return kept_;
  }
  Dictionary form = exportForm(error);
  form.remove(formkey::annotations);
  auto part = std::make_shared<PlugInForm::KeptPart>();
  for (unsigned which = 0; which < nameCount; ++which)
    if (form.contains(kNameKeys[which])) part->names = static_cast<uint8_t>(part->names | 1u << which);
  part->shared = plugInDictionary()[plugInkey::shared];
  part->count = form.size();
  part->entries = qmx::encodeEntries(form);
  const std::lock_guard lock(mutex_);
  if (kept_ == nullptr) kept_ = std::move(part);
  return kept_;
}

PlugInForm ABDPlugIn::requestForm(std::optional<Error>* error) const {
  auto part = keptPart(error);
  Dictionary late;
  // A name that was absent is asked for again; what appears later belongs to the request.
  if ((part->names & 1u << displayName) == 0) late.set(kNameKeys[displayName], localizedName());
  if ((part->names & 1u << shortName) == 0) late.set(kNameKeys[shortName], localizedShortName());
  if ((part->names & 1u << containingName) == 0)
    late.set(kNameKeys[containingName], localizedContainingName());
  return PlugInForm(shared_from_this(), std::move(part), std::move(late));
}

}  // namespace abd
