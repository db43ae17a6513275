#pragma once

// The registry's own proxies: one per plug-in that is registered, one per application that contains some.
// Made by the catalog; shared; any thread.

#include <atomic>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "platform/hollin/BundleFacts.h"
#include "platform/hollin/HLProxies.h"
#include "platform/hollin/Registration.h"
#include "platform/hollin/SeenNames.h"
#include "platform/hollin/Vigil.h"
#include "platform/system/Directories.h"

namespace platform::hollin {

class Catalog;

class ApplicationProxy final : public HLApplicationProxy {
 public:
  /// `container` is empty for an application without one.
  ApplicationProxy(std::weak_ptr<const Catalog> catalog, String path, String container,
                   std::shared_ptr<const Vigil> vigil)
      : catalog_(std::move(catalog)),
        path_(std::move(path)),
        container_(std::move(container)),
        vigil_(std::move(vigil)) {}

  std::optional<URL> bundleURL() const override;
  qmx::BundleNames localizedNames() const override;
  std::optional<URL> bundleContainerURL() const override;
  std::vector<std::shared_ptr<const HLAmbrelProxy>> ambrelPlugins() const override;
  bool isPlaceholder() const override;

  const std::shared_ptr<const Vigil>& vigil() const { return vigil_; }
  bool hasNames() const { return names_.areKept(); }
  /// Whether the names that were asked for are others now. Looks at the disk.
  bool areNamesOutdated() const { return names_.areOutdated(std::string(path_.view())); }

 private:
  const std::weak_ptr<const Catalog> catalog_;
  const String path_, container_;
  const std::shared_ptr<const Vigil> vigil_;
  mutable SeenAnswer isPlaceholder_;
  mutable SeenNames names_;
};

/// What all plug-in proxies of one registry share.
struct Surroundings {
  String containers;  // the directory of all data containers
  /// Whether data containers are made; if not, they are taken to be there.
  bool makesContainers = true;

  static Surroundings of(const Directories& directories);
};

class PlugInProxy final : public HLAmbrelProxy {
 public:
  PlugInProxy(std::shared_ptr<const BundleFacts> facts, size_t index, const Slot& slot,
              std::shared_ptr<const ApplicationProxy> application, bool isOnSystemVolume,
              std::shared_ptr<const Surroundings> surroundings, std::shared_ptr<const Vigil> vigil);
  /// The same plug-in, registered anew.
  PlugInProxy(const PlugInProxy& before, const Slot& slot);

  std::optional<URL> bundleURL() const override;
  UUID pluginUUID() const override { return uuid_; }
  const String& pluginIdentifier() const override { return plugIn().identifier; }
  const String& originalIdentifier() const override { return original_; }
  Date registrationDate() const override { return {registered_.load(std::memory_order_relaxed)}; }
  bool isOnSystemPartition() const override { return isOnSystemVolume_; }
  std::optional<std::string> bundleIdentifier() const override;
  std::optional<std::string> bundleVersion() const override;
  std::shared_ptr<const HLBundleProxy> containingBundle() const override { return application_; }
  Value ambrelDictionary(const Dictionary& info) const override;
  qmx::BundleNames localizedNames(const qmx::BundleNames& own) const override;
  const Value& entitlements() const override { return facts_->entitlements; }
  std::optional<URL> dataContainerURL() const override;
  std::optional<URL> preparedDataContainerURL() const override;
  std::optional<FilePlace> bundlePlace() const override;
  bool isUninstalled() const override { return isUninstalled_; }
  RegistrationNumber lastRegistration() const override { return lastRegistration_; }

  const BundleFacts& bundle() const { return *facts_; }
  const std::shared_ptr<const BundleFacts>& sharedBundle() const { return facts_; }
  const PlugInFacts& plugIn() const { return facts_->plugIns[index_]; }
  /// Of plugIn() among the bundle's.
  size_t index() const { return index_; }
  const std::shared_ptr<const ApplicationProxy>& application() const { return application_; }
  const std::shared_ptr<const Vigil>& vigil() const { return vigil_; }
  bool hasNames() const { return names_.areKept(); }
  /// Whether the names that were asked for are others now. Looks at the disk.
  bool areNamesOutdated() const { return names_.areOutdated(std::string(facts_->path.view())); }
  void setRegistrationDate(double seconds) { registered_.store(seconds, std::memory_order_relaxed); }
  /// Once. Whoever registers a launch and sees no mark after that has a number which is not above
  /// lastRegistration().
  void markUninstalled() {
    isUninstalled_ = true;
    lastRegistration_ = lastExternalService();
  }

 private:
  std::optional<URL> container(bool isTrusted) const;

  const std::shared_ptr<const BundleFacts> facts_;
  const std::shared_ptr<const ApplicationProxy> application_;
  const std::shared_ptr<const Surroundings> surroundings_;
  const std::shared_ptr<const Vigil> vigil_;
  const String original_;
  const UUID uuid_;
  std::atomic<double> registered_;
  const uint32_t index_;
  const bool isOnSystemVolume_;
  std::atomic<bool> isUninstalled_{false};
  RegistrationNumber lastRegistration_ = 0;        // published by the announcement
  mutable std::atomic<bool> hasContainer_{false};  // when it was last asked for
  mutable SeenPlace place_;
  mutable SeenNames names_;
};

}  // namespace platform::hollin
