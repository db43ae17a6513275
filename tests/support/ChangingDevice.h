#pragma once

// A device that changes at random: applications with plug-ins, SDKs, localizations, settings and containers
// that come, change and go, each in one of the ways in which installers, administrators and accidents change
// them. The same seed gives the same changes. No two bundles ever have the same version, and what a plug-in
// replaces is replaced by no other, so that what a daemon answers depends on nothing but the device.

#include <cstdint>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include "tests/support/DeviceRoot.h"

namespace testsupport {

class ChangingDevice {
 public:
  /// A change; what files cannot say is a request that every daemon on the device has to be sent.
  struct Change {
    std::string description;
    std::string request = {};  // "add", "remove", "annotate", or empty
    std::string path = {};     // of the plug-ins that the request names
    int election = 0;
  };

  explicit ChangingDevice(uint64_t seed);
  ~ChangingDevice();

  const DeviceRoot& root() const { return root_; }
  /// An application of the user's that is always there, with plug-ins dedicated to it.
  std::string managerBundle() const { return root_.dataUser() + "/Applications/Main.app"; }
  /// The directory for ABTEST_SDK.
  std::string testSDKs() const { return root_.path() + "/sdks"; }

  Change change();

 private:
  using Kind = Change (ChangingDevice::*)();

  Change install();
  Change removeApplication();
  Change moveApplication();
  Change replaceApplication();
  Change repointLink();
  Change editApplication();
  Change togglePlaceholder();
  Change addPlugIn();
  Change editInfo();
  Change swap();
  Change exchange();
  Change replacePlugIn();
  Change replaceInfo();
  Change editEntitlements();
  Change localize();
  Change changeSDK();
  Change moveSDKs();
  Change restrict();
  Change consent();
  Change exclude();
  Change removeContainers();
  Change registerPath();
  Change elect();
  Change makeUnreadable();

  // 0 to `count` - 1.
  size_t any(size_t count) { return random_() % count; }
  bool oneIn(size_t count) { return any(count) == 0; }
  template <typename T>
  T anyOf(const std::vector<T>& choices) {
    return choices[any(choices.size())];
  }
  std::string anyName() { return "name " + std::to_string(any(1000)); }

  std::vector<std::string> applications() const;
  std::vector<std::string> plugIns() const;
  std::string emptyPlace();
  std::string staged();
  PlugInBundle anyBundle();
  Dictionary anySDK();
  void writeBundle(const std::string& path);
  void writeApplication(const std::string& path);
  void put(const std::string& path, const Value& value);
  void link(const std::string& target, const std::string& path);
  void discard(const std::string& path);

  std::mt19937_64 random_;
  const DeviceRoot root_;
  const std::string loose_ = root_.path() + "/loose", aside_ = root_.path() + "/aside";
  std::vector<std::string> links_;  // that others lead to
  unsigned count_ = 0;              // of what needs a name or a version of its own
};

}  // namespace testsupport
