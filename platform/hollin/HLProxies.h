#pragma once

// What the application registry says about one plug-in or one application, as it was when the proxy was made.
// Immutable but for the uninstalled mark, the registration date, which a repeated registration renews, and
// what is looked at when it is asked for; shared; any thread. What the registry watches is looked at once and
// known from then on (placeholders, bundle places: until something happens there; names: as long as the proxy
// is registered, for a change of them registers the plug-in anew).

#include <atomic>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "platform/launcher/ServiceLauncher.h"
#include "platform/qmx/BundleNames.h"
#include "platform/security/Sandbox.h"
#include "platform/value/Date.h"
#include "platform/value/URL.h"
#include "platform/value/UUID.h"
#include "platform/value/Value.h"

namespace platform {

class HLAmbrelProxy;

/// Base of every proxy: something that lies in a bundle.
class HLBundleProxy {
 public:
  virtual ~HLBundleProxy() = default;
  /// Canonical location of the bundle; none when the registry has lost it.
  virtual std::optional<URL> bundleURL() const = 0;
};

class HLApplicationProxy : public HLBundleProxy {
 public:
  /// The proxy of the application at `url`, or null when there is none there.
  static std::shared_ptr<const HLApplicationProxy> applicationProxyForBundleURL(const URL& url);

  /// Display name in the user's language; `display` is none when the application has none.
  virtual qmx::BundleNames localizedNames() const = 0;
  /// Directory that holds the application and its metadata; none for an application without a container.
  virtual std::optional<URL> bundleContainerURL() const = 0;
  /// Proxies of all registered plug-ins inside the application, in order of path, then identifier.
  virtual std::vector<std::shared_ptr<const HLAmbrelProxy>> ambrelPlugins() const = 0;
  /// Whether the application is still being installed (contains a file "Placeholder").
  virtual bool isPlaceholder() const = 0;
};

class HLAmbrelProxy : public HLBundleProxy {
 public:
  /// The proxy of the plug-in with that UUID, or null.
  static std::shared_ptr<const HLAmbrelProxy> ambrelProxyForUUID(const UUID& uuid);
  /// The proxy with the lowest identifier of the bundle at that location, or null.
  static std::shared_ptr<const HLAmbrelProxy> ambrelProxyForURL(const URL& url);

  virtual UUID pluginUUID() const = 0;
  /// Empty when the bundle names none: judging that is the record's business.
  virtual const String& pluginIdentifier() const = 0;
  virtual const String& originalIdentifier() const = 0;
  virtual Date registrationDate() const = 0;
  virtual bool isOnSystemPartition() const = 0;
  virtual std::optional<std::string> bundleIdentifier() const = 0;
  virtual std::optional<std::string> bundleVersion() const = 0;
  /// The containing application's proxy, or null.
  virtual std::shared_ptr<const HLBundleProxy> containingBundle() const = 0;
  /// The plug-in's own dictionary in `info`, its bundle's Info dictionary; none when it is not there.
  virtual Value ambrelDictionary(const Dictionary& info) const = 0;
  /// Display and short name in the user's language, of a bundle whose Info dictionary says `own`.
  virtual qmx::BundleNames localizedNames(const qmx::BundleNames& own) const = 0;
  /// The code-signing entitlements (a dictionary), or none.
  virtual const Value& entitlements() const = 0;
  /// The plug-in's data container. Made when the plug-in is registered, or at the latest when this is asked;
  /// none for data plug-ins and where it could not be made.
  virtual std::optional<URL> dataContainerURL() const = 0;
  /// The same for a process that is about to live in it: looked at, and made again when it is gone.
  virtual std::optional<URL> preparedDataContainerURL() const = 0;
  /// What the bundle's own read tokens are bound to; none, with errno set, when nothing that can be read lies
  /// at its location any more, or a link leads there.
  virtual std::optional<FilePlace> bundlePlace() const = 0;
  /// Whether the plug-in's uninstall was decided: a record made from this proxy must not be kept.
  virtual bool isUninstalled() const = 0;
  /// Of a plug-in that is announced as uninstalled: the service launcher's last registration when it was
  /// decided. A later one is none of its own.
  virtual RegistrationNumber lastRegistration() const = 0;
};

}  // namespace platform
