#include "Ambrel/ABPlugInCore.h"

namespace ambrel {

namespace {

std::optional<String> optionalString(const Value& value) {
  const String* string = value.sharedString();
  if (string == nullptr) return std::nullopt;
  return *string;
}

std::optional<URL> fileURL(const Value& path, bool isDirectory) {
  const auto text = path.string();
  if (!text || !text->starts_with('/')) return std::nullopt;
  return URL::file(*text, isDirectory);
}

}  // namespace

Dictionary ABPlugInCore::exportForm(std::optional<Error>* /*error*/) const {
  Dictionary bundleInfo;
  if (const Dictionary* info = bundleInfoDictionary_.dictionary()) bundleInfo = *info;
  bundleInfo.remove(bundlekey::infoPlistURL);

  Dictionary form;
  form.reserve(16);
  form.set(formkey::hubProtocolVersion, hubProtocolVersion_);
  if (url_) form.set(formkey::path, url_->path());
  form.set(formkey::systemResident, onSystemVolume_);
  form.set(formkey::identifier, identifier_);
  form.set(formkey::originalIdentifier, originalIdentifier_);
  form.set(formkey::version, version());
  form.set(formkey::bundleInfo, std::move(bundleInfo));
  form.set(formkey::info, plugInDictionary_);
  if (uuid_) form.set(formkey::uuid, uuid_->string());
  form.set(formkey::lastModified, lastModified_);
  Value stored = annotations();
  form.set(formkey::annotations, stored.isDictionary() ? std::move(stored) : Value(Dictionary()));
  form.set(formkey::containingPath, containingPath());
  form.set(formkey::localizedContainingDisplayName, localizedContainingName());
  form.set(formkey::localizedDisplayName, localizedName());
  form.set(formkey::localizedShortName, localizedShortName());
  return form;
}

bool ABPlugInCore::setupWithForm(const Dictionary& form) {
  const auto uuidText = form[formkey::uuid].string();
  if (!setupWithName(optionalString(form[formkey::identifier]), fileURL(form[formkey::path], true),
                     form[formkey::bundleInfo], form[formkey::info],
                     uuidText ? UUID::fromString(*uuidText) : std::nullopt))
    return false;
  const Value& version = form[formkey::hubProtocolVersion];
  hubProtocolVersion_ = version.isNone() ? 1 : version.unsignedValue();
  originalIdentifier_ = optionalString(form[formkey::originalIdentifier]);
  if (const Data* hash = form[formkey::hash].data()) cdhash_ = *hash;
  requirement_ = optionalString(form[formkey::requirement]);
  lastModified_ = form[formkey::lastModified].integerValue();
  containingUrl_ = fileURL(form[formkey::containingPath], true);
  onSystemVolume_ = form[formkey::systemResident].booleanValue();
  updateFromForm(form);
  setLocalizedName(optionalString(form[formkey::localizedDisplayName]));
  setLocalizedShortName(optionalString(form[formkey::localizedShortName]));
  setLocalizedContainingName(optionalString(form[formkey::localizedContainingDisplayName]));
  return true;
}

void ABPlugInCore::updateFromForm(const Dictionary& form) {
  const Value& given = form[formkey::annotations];
  setAnnotations(given.isDictionary() ? given : Value());
}

}  // namespace ambrel
