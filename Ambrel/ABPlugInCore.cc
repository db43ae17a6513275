#include "Ambrel/ABPlugInCore.h"

#include "Ambrel/ABCollections.h"
#include "Ambrel/ABRecordTrace.h"
#include "platform/log/Failure.h"
#include "platform/log/Log.h"

namespace ambrel {

namespace {

constexpr const char* kSource = "Ambrel/ABPlugInCore";

}  // namespace

std::shared_ptr<ABPlugInCore> ABPlugInCore::initWithName(const std::optional<String>& name,
                                                         const std::optional<URL>& url,
                                                         const Value& bundleInfo, const Value& info,
                                                         const std::optional<UUID>& uuid) {
  auto record = std::make_shared<ABPlugInCore>();
  if (!record->setupWithName(name, url, bundleInfo, info, uuid)) return nullptr;
  return record;
}

std::shared_ptr<ABPlugInCore> ABPlugInCore::initWithForm(const Dictionary& form) {
  auto record = std::make_shared<ABPlugInCore>();
  if (!record->setupWithForm(form)) return nullptr;
  return record;
}

bool ABPlugInCore::setupWithName(const std::optional<String>& name, const std::optional<URL>& url,
                                 const Value& bundleInfo, const Value& /*info*/,
                                 const std::optional<UUID>& uuid, ABRecordTrace* trace) {
  if (!url) return false;
  if (!name) {
    systemLog("missing identifier in plug-in at %@", url->path());
    if (trace != nullptr) trace->flaw({bundlekey::identifier}, "the plug-in has no identifier");
    return false;
  }
  if (bundleInfo.isNone()) {
    systemLog("missing Info dictionary in plug-in %@ at %@", name->view(), url->path());
    if (trace != nullptr) trace->flaw({}, "the Info dictionary is missing");
    return false;
  }
  identifier_ = name;
  url_ = url;
  if (!setDictionaries(normalizeInfoDictionary(bundleInfo))) {
    systemLog("malformed plug-in dictionary in plug-in %@ at %@: %@", name->view(), *url, bundleInfo);
    if (trace != nullptr) trace->flaw(plugInPath(), "the plug-in section is no dictionary");
    return false;
  }
  uuid_ = uuid ? *uuid : UUID::random();
  return true;
}

bool ABPlugInCore::setDictionaries(const Value& info) {
  if (!info.isDictionary()) return false;
  bundleInfoDictionary_ = info;
  topDictionary_ = info[bundlekey::plugIn];
  if (!topDictionary_.isDictionary()) return false;
  const Value& multiple = topDictionary_[topkey::multiple];
  plugInDictionary_ = multiple.isNone() ? topDictionary_ : multiple[identifier()];
  return plugInDictionary_.isDictionary();
}

std::vector<String> ABPlugInCore::plugInPath() const {
  const Value& multiple = topDictionary_[topkey::multiple];
  if (multiple.isNone()) return {bundlekey::plugIn};
  if (!multiple.isDictionary()) return {bundlekey::plugIn, topkey::multiple};
  return {bundlekey::plugIn, topkey::multiple, identifier()};
}

void ABPlugInCore::setTopDictionary(const Value& dictionary) {
  if (!topDictionary_.isNone() && !topDictionary_.isSameObject(dictionary))
    bundleInfoDictionary_ =
        dictionaryChanging(std::move(bundleInfoDictionary_), String::interned(bundlekey::plugIn), dictionary);
  topDictionary_ = dictionary;
}

void ABPlugInCore::setPlugInDictionary(const Value& dictionary) {
  if (!plugInDictionary_.isNone() && !plugInDictionary_.isSameObject(dictionary)) {
    const Value& multiple = topDictionary_[topkey::multiple];
    if (multiple.isNone()) {
      setTopDictionary(dictionary);
    } else {
      setTopDictionary(dictionaryChanging(topDictionary_, topkey::multiple,
                                          dictionaryChanging(multiple, identifier(), dictionary)));
    }
  }
  plugInDictionary_ = dictionary;
}

const String& ABPlugInCore::identifier() const {
  static const String none;
  return identifier_ ? *identifier_ : none;
}

const UUID& ABPlugInCore::uuid() const {
  if (!uuid_) assertionFailure("self.uuid", "-[ABPlugInCore uuid]", kSource, __LINE__);
  return *uuid_;
}

bool ABPlugInCore::isEqual(const ABPlugInCore* other) const {
  if (!uuid_) assertionFailure("self.uuid", "-[ABPlugInCore isEqual:]", kSource, 65);
  return other != nullptr && other->uuid_ == uuid_;
}

size_t ABPlugInCore::hash() const {
  if (!uuid_) assertionFailure("self.uuid", "-[ABPlugInCore hash]", kSource, 71);
  return std::hash<UUID>()(*uuid_);
}

const std::string& ABPlugInCore::path() const {
  static const std::string none;
  return url_ ? url_->path() : none;
}

std::optional<std::string> ABPlugInCore::containingPath() const {
  if (!containingUrl_) return std::nullopt;
  return containingUrl_->path();
}

Value ABPlugInCore::annotations() const {
  const std::lock_guard lock(mutex_);
  return annotations_;
}

void ABPlugInCore::setAnnotations(Value annotations) {
  const std::lock_guard lock(mutex_);
  annotations_ = std::move(annotations);
}

void ABPlugInCore::setAnnotation(const String& key, const Value& value) {
  const std::lock_guard lock(mutex_);
  annotations_ = dictionaryChanging(annotations_, key, value);
}

const Value& ABPlugInCore::embeddedProtocolSpec() const {
  const Value& embedded = plugInDictionary_[plugInkey::embeddedProtocol];
  return embedded.isNone() ? protocolSpec() : embedded;
}

bool ABPlugInCore::oldStyle() const {
  if (!bundleInfoDictionary_[bundlekey::plugIn].isNone()) return false;
  if (!bundleInfoDictionary_[bundlekey::oldStyle].isNone()) return true;
  assertionFailure("unknown plug-in configuration style", "-[ABPlugInCore oldStyle]", kSource, 472);
}

Value ABPlugInCore::augmentInterface(const Value& /*description*/) const {
  return Value();
}

std::string ABPlugInCore::description() const {
  if (!uuid_) return "<plug-in, not set up>";
  return format("<plug-in %@ %@ %@>", identifier().view(), *uuid_, path());
}

}  // namespace ambrel
