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

  const auto entry = [](const char* key, Value value) {
    return Dictionary::Entry{String::interned(key), std::move(value)};
  };
  Value stored = annotations();
  if (!stored.isDictionary()) stored = Dictionary();
  // In the order of the keys, which spares sorting.
  Dictionary::Entry entries[] = {
      entry(formkey::annotations, std::move(stored)),
      entry(formkey::bundleInfo, std::move(bundleInfo)),
      entry(formkey::containingPath, containingPath()),
      entry(formkey::hubProtocolVersion, hubProtocolVersion_),
      entry(formkey::identifier, identifier_),
      entry(formkey::info, plugInDictionary_),
      entry(formkey::lastModified, lastModified_),
      entry(formkey::localizedContainingDisplayName, localizedContainingName()),
      entry(formkey::localizedDisplayName, localizedName()),
      entry(formkey::localizedShortName, localizedShortName()),
      entry(formkey::originalIdentifier, originalIdentifier_),
      entry(formkey::path, url_ ? Value(url_->path()) : Value()),
      entry(formkey::systemResident, onSystemVolume_),
      entry(formkey::uuid, uuid_ ? Value(uuid_->string()) : Value()),
      entry(formkey::version, version()),
  };
  return Dictionary::takingLast(entries);
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
