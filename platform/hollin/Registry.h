#pragma once

// The application registry of one set of directories. The process has one (HLApplicationWorkspace::open());
// it lives as long as the process. Any thread.

#include <memory>
#include <optional>
#include <variant>

#include "platform/hollin/HLApplicationWorkspace.h"
#include "platform/hollin/Monitor.h"
#include "platform/system/FileDescriptor.h"

namespace platform::hollin {

class Registry final : public HLApplicationWorkspace {
 public:
  /// Locks the state directory, reads what was stored, scans all roots and begins to watch them. An error
  /// when another process has the lock, or the state directory cannot be used.
  static std::variant<std::unique_ptr<Registry>, Error> open(const Directories& directories);
  /// The process's registry, or null before it was opened.
  static Registry* shared();
  ~Registry() override;

  void addObserver(HLApplicationWorkspaceObserverProtocol* observer) override;
  void removeObserver(HLApplicationWorkspaceObserverProtocol* observer) override;
  void startPosting() override;
  std::shared_ptr<const HLProxyList> installedPlugins() const override;
  std::optional<HLProxyList> pluginsWithIdentifiers(const std::vector<std::string>* identifiers,
                                                    const std::vector<std::string>* protocols,
                                                    const std::string* version,
                                                    const Filter& filter) const override;
  bool registerPlugin(const URL& url) override;
  bool unregisterPlugin(const URL& url) override;
  HLBundleStanding standingOf(const std::string& path) const override;
  bool vouchesForSDK(std::string_view name, const FileIdentity& file) const override;
  HLRegistryStatistics statistics() const override;
  void HLClearSchemaCaches() override;

  std::shared_ptr<const HLAmbrelProxy> proxyForUUID(const UUID& uuid) const;
  std::shared_ptr<const HLAmbrelProxy> proxyForURL(const URL& url) const;
  std::shared_ptr<const HLApplicationProxy> applicationForURL(const URL& url) const;

 private:
  explicit Registry(const Directories& directories);
  std::optional<Error> lock();
  std::optional<Error> load(std::vector<Registration>& registrations, Scan& scan);

  const Directories directories_;
  FileDescriptor lock_;  // held while this lives
  Announcer announcer_;
  const std::shared_ptr<Catalog> catalog_;
  Store store_;
  Registrar registrar_;
  Monitor monitor_;
};

}  // namespace platform::hollin
