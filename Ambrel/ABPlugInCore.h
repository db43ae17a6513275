#pragma once

// The canonical record of one plug-in, shared by the daemon and by clients: its identity, where it lies,
// three nested views of its Info dictionary (the bundle's whole dictionary, the plug-in section, this
// plug-in's own dictionary), names and annotations. Everything else is derived from these on each read.
//
// A record is made empty and becomes usable through one successful set-up, from the registry's data
// (abd/plugin/ABDPlugIn.h) or from a form. It is changed by one thread at a time and, in the daemon, never
// after it was shared. Typed accessors answer a none value (or an empty string) for what is absent.

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Ambrel/ABErrors.h"
#include "Ambrel/ABInfoKeys.h"
#include "platform/propertylist/FileReplacement.h"
#include "platform/value/Date.h"
#include "platform/value/URL.h"
#include "platform/value/UUID.h"
#include "platform/value/Value.h"

#pragma GCC visibility push(default)

namespace ambrel {

using namespace platform;

struct ABRecordTrace;

class ABPlugInCore {
 public:
  ABPlugInCore() = default;
  virtual ~ABPlugInCore() = default;
  ABPlugInCore(const ABPlugInCore&) = delete;
  ABPlugInCore& operator=(const ABPlugInCore&) = delete;

  /// A set-up record, or null (the reason is logged). `info` is not consulted: the plug-in's dictionary is
  /// always derived from `bundleInfo`. Without a UUID the record gets a new random one.
  static std::shared_ptr<ABPlugInCore> initWithName(const std::optional<String>& name,
                                                    const std::optional<URL>& url, const Value& bundleInfo,
                                                    const Value& info, const std::optional<UUID>& uuid);
  /// A record rebuilt from a form, or null.
  static std::shared_ptr<ABPlugInCore> initWithForm(const Dictionary& form);

  /// Here and below `trace`, where there is one, is told what was decided and why.
  bool setupWithName(const std::optional<String>& name, const std::optional<URL>& url,
                     const Value& bundleInfo, const Value& info, const std::optional<UUID>& uuid,
                     ABRecordTrace* trace = nullptr);
  bool setupWithForm(const Dictionary& form);
  /// Takes over the form's annotations and nothing else.
  void updateFromForm(const Dictionary& form);

  // Identity.
  const String& identifier() const;
  void setIdentifier(std::optional<String> identifier) { identifier_ = std::move(identifier); }
  const std::optional<String>& originalIdentifier() const { return originalIdentifier_; }
  void setOriginalIdentifier(std::optional<String> identifier) {
    originalIdentifier_ = std::move(identifier);
  }
  /// REQUIRES: the record was set up.
  const UUID& uuid() const;
  bool hasUUID() const { return uuid_.has_value(); }
  void setUuid(std::optional<UUID> uuid) { uuid_ = uuid; }
  /// Whether `other` is a record with the same UUID. REQUIRES: this record was set up.
  bool isEqual(const ABPlugInCore* other) const;
  /// REQUIRES: the record was set up.
  size_t hash() const;

  // Place.
  const std::optional<URL>& url() const { return url_; }
  void setUrl(std::optional<URL> url) { url_ = std::move(url); }
  const std::string& path() const;
  const std::optional<URL>& containingUrl() const { return containingUrl_; }
  void setContainingUrl(std::optional<URL> url) { containingUrl_ = std::move(url); }
  std::optional<std::string> containingPath() const;
  bool onSystemVolume() const { return onSystemVolume_; }
  void setOnSystemVolume(bool onSystemVolume) { onSystemVolume_ = onSystemVolume; }

  // The three views of the Info dictionary. Dictionaries on every set-up record.
  const Value& bundleInfoDictionary() const { return bundleInfoDictionary_; }
  /// Replaces this view alone; setDictionaries() derives the others too.
  void setBundleInfoDictionary(Value info) { bundleInfoDictionary_ = std::move(info); }
  const Value& topDictionary() const { return topDictionary_; }
  const Value& plugInDictionary() const { return plugInDictionary_; }
  /// Derives the three views from a bundle's Info dictionary; false when they cannot be derived.
  bool setDictionaries(const Value& info);
  /// Where the plug-in's own dictionary stands in the bundle's.
  std::vector<String> plugInPath() const;
  /// Replaces a view and puts it in its place in the views above it. A none value removes it there.
  void setTopDictionary(const Value& dictionary);
  void setPlugInDictionary(const Value& dictionary);
  /// The dictionary that a record is set up from; the core's answer is its argument.
  virtual Value normalizeInfoDictionary(const Value& info) const { return info; }

  // Other stored facts.
  uint64_t hubProtocolVersion() const { return hubProtocolVersion_; }
  void setHubProtocolVersion(uint64_t version) { hubProtocolVersion_ = version; }
  /// Registration time, whole seconds since 1970.
  int64_t lastModified() const { return lastModified_; }
  void setLastModified(int64_t seconds) { lastModified_ = seconds; }
  virtual std::optional<String> localizedName() const { return localizedName_; }
  virtual std::optional<String> localizedShortName() const { return localizedShortName_; }
  virtual std::optional<String> localizedContainingName() const { return localizedContainingName_; }
  virtual void setLocalizedName(std::optional<String> name) { localizedName_ = std::move(name); }
  virtual void setLocalizedShortName(std::optional<String> name) { localizedShortName_ = std::move(name); }
  virtual void setLocalizedContainingName(std::optional<String> name) {
    localizedContainingName_ = std::move(name);
  }
  /// A dictionary, or none. The daemon keeps annotations in its store, not here. Of all facts these alone
  /// change on a record that is shared: reading and changing them is for any thread.
  Value annotations() const;
  void setAnnotations(Value annotations);
  /// Changes one annotation (a none value removes it); absent annotations stay absent.
  void setAnnotation(const String& key, const Value& value);
  /// Only from forms.
  const std::optional<Data>& cdhash() const { return cdhash_; }
  void setCdhash(std::optional<Data> hash) { cdhash_ = std::move(hash); }
  const std::optional<String>& requirement() const { return requirement_; }
  void setRequirement(std::optional<String> requirement) { requirement_ = std::move(requirement); }

  // Derived on each read.
  const Value& attributes() const { return plugInDictionary_[plugInkey::attributes]; }
  const Value& version() const { return attributes()[attributekey::version]; }
  const Value& protocolSpec() const { return plugInDictionary_[plugInkey::protocol]; }
  /// The name of the SDK (extension point) that the plug-in serves.
  const Value& sdkSpec() const { return plugInDictionary_[plugInkey::pointIdentifier]; }
  const Value& embeddedProtocolSpec() const;
  std::optional<std::string> embeddedCodePath() const { return std::nullopt; }
  Date timestamp() const { return Date{static_cast<double>(lastModified_)}; }
  bool isAppExtension() const { return path().ends_with(".appex"); }
  bool isMultiplexed() const { return !topDictionary_[topkey::multiple].isNone(); }
  bool isHybrid() const { return !plugInDictionary_[plugInkey::embeddedCode].isNone(); }
  bool isDedicated() const { return plugInDictionary_[plugInkey::dedicated].booleanValue(); }
  bool isData() const { return protocolSpec().string() == "#Data"; }
  bool oldStyle() const;

  /// Always absent in the core record.
  virtual Value augmentInterface(const Value& description) const;

  // The form (ABPlugInForm.cc).

  /// The whole form; a key whose value the record lacks is left out. `error` is for records that cannot be
  /// exported: the core record always can and leaves it untouched.
  Dictionary exportForm(std::optional<Error>* error = nullptr) const;

  // SDK resolution and diagnosis (ABPlugInSDK.cc).

  /// Merges the SDK's dictionary into the record's and canonicalizes it. Once, right after set-up.
  void resolveSDK(ABRecordTrace* trace = nullptr);
  /// The same with this definition, whichever SDK the record names.
  void resolveWith(const std::optional<Dictionary>& sdk, ABRecordTrace* trace = nullptr);
  /// The definition of an SDK: from the directory named by ABTEST_SDK, else the registered one; none (logged)
  /// when there is neither.
  static std::optional<Dictionary> readSDKDictionary(std::string_view name, FileIdentity* source = nullptr);
  /// The file that resolveSDK() read the SDK from; zero when there was none.
  const FileIdentity& sdkFile() const { return sdkFile_; }
  /// `info` with what it lacks taken from `sdk`, level by level. Unchanged values are shared.
  static Dictionary mergeDictionary(const Dictionary& sdk, Dictionary info, ABRecordTrace* trace = nullptr);
  static bool sdkOverridesKey(std::string_view key) { return key == plugInkey::cleanTimeout; }
  /// The union of both lists without duplicates (one string is a one-element list); the plug-in's value when
  /// one of them is neither.
  static Value mergeSharedResources(const Value& sdk, const Value& info);
  /// Fills in defaults and records the plug-in's style.
  void canonicalize(ABRecordTrace* trace = nullptr);
  /// Why the plug-in is not acceptable, or none.
  virtual std::optional<Error> diagnose(ABRecordTrace* trace = nullptr) const;

  virtual std::string description() const;

 private:
  bool onSystemVolume_ = false;
  Value topDictionary_;
  Value plugInDictionary_;
  std::optional<String> identifier_;
  std::optional<String> originalIdentifier_;
  std::optional<URL> url_;
  std::optional<URL> containingUrl_;
  Value bundleInfoDictionary_;
  FileIdentity sdkFile_;
  uint64_t hubProtocolVersion_ = 0;
  std::optional<String> localizedName_;
  std::optional<String> localizedShortName_;
  std::optional<String> localizedContainingName_;
  int64_t lastModified_ = 0;
  std::optional<UUID> uuid_;
  std::optional<Data> cdhash_;
  std::optional<String> requirement_;
  mutable std::mutex mutex_;
  Value annotations_;  // guarded by mutex_
};

}  // namespace ambrel

#pragma GCC visibility pop
