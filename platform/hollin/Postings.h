#pragma once

// The plug-ins that an index lists under one key. Adding and removing cost the same however long the list is:
// what was removed stays, marked as uninstalled, until it makes up half of the list. Guarded by its owner.

#include <functional>
#include <memory>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "platform/hollin/Proxies.h"

namespace platform::hollin {

class Postings {
 public:
  void add(std::shared_ptr<PlugInProxy> proxy) { entries_.push_back(std::move(proxy)); }

  /// Counts one entry out. REQUIRES: it is in the list and was marked as uninstalled.
  void removeOne() {
    if (++dead_ * 2 <= entries_.size()) return;
    std::erase_if(entries_, [](const auto& proxy) { return proxy->isUninstalled(); });
    dead_ = 0;
  }

  size_t size() const { return entries_.size() - dead_; }

  /// Calls `visit(proxy)` for each plug-in in the list.
  template <typename Visit>
  void forEach(Visit&& visit) const {
    for (const auto& proxy : entries_)
      if (!proxy->isUninstalled()) visit(proxy);
  }

 private:
  std::vector<std::shared_ptr<PlugInProxy>> entries_;
  size_t dead_ = 0;
};

/// Looks strings up without making one.
struct StringHash {
  using is_transparent = void;
  size_t operator()(std::string_view text) const { return std::hash<std::string_view>()(text); }
};
struct StringEqual {
  using is_transparent = void;
  bool operator()(std::string_view a, std::string_view b) const { return a == b; }
};
template <typename T>
using StringMap = std::unordered_map<String, T, StringHash, StringEqual>;

}  // namespace platform::hollin
