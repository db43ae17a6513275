#pragma once

// The usual fixture of the end-to-end tests: a device, a daemon on it once start() is called, and a client.

#include <gtest/gtest.h>

#include "tests/support/Daemon.h"

namespace testsupport {

/// Flags of "match".
constexpr uint64_t kAllVersions = 0x1, kDuplicates = 0x4, kSystemOnly = 0x8, kAll = 0x200;
constexpr const char* kManager = "com.veltra.private.ambrel.manager";
constexpr const char* kAllowedPlugIns = "com.veltra.developer.ambrel.allowedplugins";
constexpr const char* kReplacePlugIn = "com.veltra.developer.replace-plugin";

class DaemonTest : public testing::Test {
 protected:
  /// Starts the daemon (anew) on what lies on the device by then, and connects.
  void start(Daemon::Options options = {}) {
    daemon.reset();
    daemon.emplace(root, std::move(options));
    client.emplace(daemon->connect());
  }
  Dictionary call(std::string_view request, const Dictionary& more = {}) {
    return client->call(message(request, more));
  }
  /// "code: text" of the reply to a request, "" of a success.
  std::string error(std::string_view request, const Dictionary& more = {}) {
    return errorOf(call(request, more));
  }
  /// The error of electing the plug-in.
  std::string elect(const UUID& plugIn, const Value& election) {
    return error("annotate", {{"uuids", Array{plugIn}}, {"annotations", Dictionary{{"election", election}}}});
  }
  /// The identifiers that a "match" finds.
  std::string found(const Value& rules = {}, uint64_t flags = 0) {
    return identifiers(match(*client, rules, flags));
  }
  UUID uuid(std::string_view identifier) { return uuidOf(*client, identifier); }
  Dictionary form(std::string_view identifier) { return formOf(match(*client), identifier); }
  /// Writes the application bundle of a host with these entitlements; answers its path.
  std::string hostBundle(const std::string& name, const Dictionary& entitlements = {}) const {
    const std::string path = root.path() + "/hosts/" + name + ".app";
    writePropertyList(path + "/Entitlements.plist", entitlements);
    return path;
  }

  const DeviceRoot root;
  std::optional<Daemon> daemon;
  std::optional<WireClient> client;
};

}  // namespace testsupport
