#pragma once

// What the registry knows of one bundle without opening it again: where it is, which files it was read from,
// and what its Info file says about each of its plug-ins, as far as queries need it. Immutable once made and
// shared; any thread.

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/propertylist/FileReplacement.h"
#include "platform/value/Value.h"

struct stat;

namespace platform::hollin {

/// A bundle that claims to hold more plug-ins is refused: none that is meant seriously comes near.
inline constexpr size_t kMaximumPlugInsOfBundle = 4096;

/// What a plug-in's own dictionary says under "ZQExtensionProtocol".
enum class Protocol : uint8_t { absent, data, other };

struct PlugInFacts {
  String identifier;          // empty when the bundle names none; judging that is the record's business
  String sdk;                 // "ZQExtensionPointIdentifier"; empty when absent or no string
  std::vector<String> names;  // extension-point names of its attributes and of the bundle's top level
  Protocol protocol = Protocol::absent;
};

struct BundleFacts {
  String path;  // canonical
  // All zero when the file is missing. Devices are not part of it: their numbers change between boots.
  FileIdentity info, entitlementsFile;
  bool isMultiplexed = false;
  std::optional<String> bundleIdentifier, bundleVersion;
  Value entitlements;                // a dictionary, or none when the bundle has none
  std::vector<PlugInFacts> plugIns;  // in order of identifier; empty when the bundle is refused
  std::string refusal;               // why there are no plug-ins; empty when there are
  bool isTransient = false;          // the refusal says nothing about the bundle (descriptors ran out)

  bool isReadFrom(const FileIdentity& infoFile, const FileIdentity& entitlements_) const {
    return info == infoFile && entitlementsFile == entitlements_;
  }
};

/// The identity of a file as the registry keeps it.
FileIdentity identityOf(const struct stat& status);
/// Identities of a bundle's Info and entitlements files as they are now; zero for missing ones.
void identifyFiles(const std::string& path, FileIdentity& info, FileIdentity& entitlements);

/// Reads the bundle at the canonical `path`, whose files had these identities just before.
std::shared_ptr<const BundleFacts> readBundleFacts(const std::string& path, const FileIdentity& info,
                                                   const FileIdentity& entitlements);

/// What an extension point's SDK adds to the plug-ins that name it.
struct SDKFacts {
  std::vector<String> names;
  bool isData = false;  // gives the protocol "#Data" to plug-ins without one
  // What plug-ins take over: from which file (zero while there is no SDK of that name), and what it said,
  // since the times of files are coarse.
  FileIdentity file;
  uint64_t contents = 0;

  bool isSame(const SDKFacts& other) const { return file == other.file && contents == other.contents; }
};

/// The facts of the SDK called `name`: the names that its test definition and the registered one give, the
/// rest of the one that counts.
SDKFacts readSDKFacts(std::string_view name);

}  // namespace platform::hollin
