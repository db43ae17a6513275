#pragma once

// A client's claim that a set of plug-ins must not be made ready for launch. Made by a granted "lock" request
// and kept by the server's hold list until its token is released or its client dies. Immutable; any thread.
// While it lives the process counts as busy towards the service launcher.

#include <memory>
#include <unordered_set>
#include <vector>

#include "platform/launcher/ServiceLauncher.h"
#include "platform/value/Date.h"
#include "platform/value/UUID.h"

namespace abd {

class ABDPlugIn;
class ABDQmxClient;

class ABDPlugInHold {
 public:
  using PlugIns = std::vector<std::shared_ptr<ABDPlugIn>>;
  struct SamePlugIn {
    size_t operator()(const std::shared_ptr<ABDPlugIn>& plugIn) const;
    bool operator()(const std::shared_ptr<ABDPlugIn>& a, const std::shared_ptr<ABDPlugIn>& b) const;
  };
  using PlugInSet = std::unordered_set<std::shared_ptr<ABDPlugIn>, SamePlugIn, SamePlugIn>;

  /// initWithPlugIns:forClient:. Plug-ins named twice are held once.
  ABDPlugInHold(const PlugIns& plugIns, const std::shared_ptr<ABDQmxClient>& client);

  /// The hold's token.
  const platform::UUID& uuid() const { return uuid_; }
  const PlugInSet& blocked() const { return blocked_; }
  /// Null once the client is gone.
  std::shared_ptr<ABDQmxClient> client() const { return client_.lock(); }
  platform::Date created() const { return created_; }

  size_t hash() const { return std::hash<platform::UUID>()(uuid_); }
  friend bool operator==(const ABDPlugInHold& a, const ABDPlugInHold& b) { return a.uuid_ == b.uuid_; }

 private:
  const platform::UUID uuid_ = platform::UUID::random();
  PlugInSet blocked_;
  const std::weak_ptr<ABDQmxClient> client_;
  const platform::Date created_ = platform::Date::now();
  const platform::BusyMarking busy_;
};

}  // namespace abd
