#pragma once

// The daemon's record of one plug-in: a core record built from the registry's proxy, with the matching
// engine, the access policy and launch preparation. Built on the database queue, then shared between the
// cache and the requests that use it. After that it is only read, but for what is filled on first use and
// never refreshed (localized names, age rank, the kept encoding of its form), which any thread may do.

#include <sys/types.h>

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "Ambrel/ABPlugInCore.h"
#include "abd/plugin/PlugInForm.h"
#include "platform/hollin/HLProxies.h"
#include "platform/qmx/PeerIdentity.h"
#include "platform/types/TypeConformance.h"

namespace abd {

using namespace platform;
using namespace ambrel;

class Explanation;
class RequestHost;
class RequestSettings;
class Rule;
class Rules;

class ABDPlugIn : public ABPlugInCore, public std::enable_shared_from_this<ABDPlugIn> {
 public:
  /// A set-up, resolved and acceptable record, or null (the reason is logged, but for a lost bundle). `trace`
  /// is told all that was decided on the way.
  static std::shared_ptr<ABDPlugIn> initWithHLData(std::shared_ptr<const HLAmbrelProxy> proxy,
                                                   ABRecordTrace* trace = nullptr);

  /// `info` without the entries of build tools (keys that begin with "DT"); the same dictionary when it has
  /// none of them, an empty one when `info` is absent. Values are shared.
  static Dictionary prunedInfoDictionaryFor(const std::optional<Dictionary>& info);

  const std::shared_ptr<const HLAmbrelProxy>& hlproxy() const { return hlproxy_; }

  std::optional<String> localizedName() const override;
  std::optional<String> localizedShortName() const override;
  std::optional<String> localizedContainingName() const override;
  void setLocalizedName(std::optional<String> name) override;
  void setLocalizedShortName(std::optional<String> name) override;
  void setLocalizedContainingName(std::optional<String> name) override;

  /// A dictionary, or none.
  const Value& entitlements() const { return hlproxy_->entitlements(); }
  const Value& valueForEntitlement(std::string_view name) const { return entitlements()[name]; }
  /// Whether the entitlement is there with a value that is not equal to false.
  bool hasEntitlement(std::string_view name) const;
  /// The key of this plug-in's annotation record: of the plug-in that it replaces, else its own identifier.
  const String& annotationKey() const;
  /// The same rule for registry data. Answers one of its arguments' storage.
  static const String& annotationKey(const String& identifier, const Value& entitlements);

  std::optional<Error> diagnose(ABRecordTrace* trace = nullptr) const override;

  /// This record's form for one request, with empty annotations and without "extensions". `error` is
  /// exportForm()'s.
  PlugInForm requestForm(std::optional<Error>* error = nullptr) const;

  // Matching (ABDPlugInMatching.cc).

  /// Whether every entry of `rules` holds.
  bool match(const Dictionary& rules) const;
  /// One entry of a rule dictionary, and what came of it.
  struct TriedRule {
    String key;
    Value pattern, value;  // the value is none when the plug-in has none
    bool holds;
  };
  /// The same. With `tried` every entry is tried, and told.
  bool matchRules(const Rules& rules, std::vector<TriedRule>* tried = nullptr) const;
  bool matchKey(std::string_view key, const Value& pattern) const;
  static bool matchValue(const Value& value, const Value& patterns);
  static bool matchString(std::string_view value, std::string_view pattern);
  static bool matchDictionary(const Value& value, const Dictionary& pattern);

  // Access policy (ABDPlugInAccess.cc).

  /// None when the host may use the plug-in, else the first reason.
  std::optional<std::string> allowForClient(RequestHost& host, Explanation* why = nullptr) const;
  /// The consent services that the user has granted to the containing application.
  std::set<std::string> allowedQSVServices(RequestSettings& settings) const;
  bool ageRestricted(RequestSettings& settings) const;
  /// The containing application's rank; -1 when it is unknown.
  int64_t containerAgeRestriction() const;

  // Launch (ABDPlugInLaunch.cc).

  /// Read tokens for shared resources (one string, or an array): resource as written to token.
  Dictionary issueResourceExtensions(const Value& shared) const;
  /// Adds the tokens of the plug-in's shared resources to its form.
  void augmentForm(PlugInForm& form) const;
  /// Lets process `pid` start the plug-in; with `host`, only while that is the process.
  std::optional<Error> enableForPid(pid_t pid, RequestSettings& settings,
                                    const qmx::PeerIdentity* host = nullptr) const;
  /// The description of a busy instance, or none.
  std::optional<Dictionary> checkBusy() const;

 private:
  enum Name : uint8_t { displayName, shortName, containingName, nameCount };
  std::optional<String> givenName(Name which) const;
  void setName(Name which, std::optional<String> name);
  bool areNamesCertain() const;
  std::shared_ptr<const HLApplicationProxy> containingApplication() const;
  std::shared_ptr<const PlugInForm::KeptPart> keptPart(std::optional<Error>* error) const;
  Value valueForRule(const Rule& rule) const;
  /// `found`, if given, gets the value that the rule looked at.
  bool matchRule(const Rule& rule, TypeConformances& types, Value* found = nullptr) const;
  Dictionary environment() const;
  /// For a resource called `name` in "Shared", at `target`; none with errno set.
  std::optional<std::string> resourceToken(const String& name, const std::string& target) const;
  const char* sandboxProfile(RequestSettings& settings) const;
  Dictionary launchDescription(Dictionary environment, const char* profile) const;
  /// Tells the log, and the trace, of a "QMXService" with which no launch can be registered: such a plug-in
  /// is offered.
  void reportUnlaunchableService(ABRecordTrace* trace) const;

  // Set before the record is shared.
  std::shared_ptr<const HLAmbrelProxy> hlproxy_;
  qmx::BundleNames ownNames_;  // in the Info dictionary, before the SDK's entries came into it

  static constexpr int64_t kRankNotRead = INT64_MIN;
  mutable std::atomic<int64_t> containerAgeRestriction_{kRankNotRead};

  mutable std::mutex mutex_;                // guards what follows; nothing is read or asked while it is held
  std::optional<String> names_[nameCount];  // that were set; the others are the registry's to tell
  mutable std::shared_ptr<const PlugInForm::KeptPart> kept_;
  mutable std::map<String, std::shared_ptr<const FoundFile>> resources_;  // those that were judged, by name
};

/// Each record once, in no particular order.
using ABDPlugInSet = std::vector<std::shared_ptr<ABDPlugIn>>;

}  // namespace abd
