#pragma once

// The daemon's protocol in one table: service name, versions, request names, message keys and flag bits. The
// error codes are in ABErrors.h. Constants only.

#include <cstddef>
#include <cstdint>

#include "Ambrel/ABErrors.h"

namespace ambrel {

inline constexpr const char* kDefaultServiceName = "com.veltra.ambrel.abd";
/// The version that a client of today speaks, and the only one with property-list message values. The daemon
/// also serves version 2.
inline constexpr int64_t kProtocolVersion = 3;
/// Posted when an annotation or a hold has changed.
inline constexpr const char* kAnnotationChangeNotification = "com.veltra.ambrel.annotation-change";

/// Values of key::request.
namespace request {
inline constexpr const char* add = "add";
inline constexpr const char* remove = "remove";
inline constexpr const char* bulk = "bulk";
inline constexpr const char* match = "match";
inline constexpr const char* ready = "ready";
inline constexpr const char* access = "access";
inline constexpr const char* annotate = "annotate";
inline constexpr const char* lock = "lock";
}  // namespace request

/// Keys of requests and replies.
namespace key {
inline constexpr const char* request = "request";          // string: a request name
inline constexpr const char* version = "version";          // unsigned: protocol version of the sender
inline constexpr const char* paths = "paths";              // array of strings
inline constexpr const char* rules = "rules";              // dictionary: rule key to pattern
inline constexpr const char* flags = "flags";              // unsigned: option bits of the request
inline constexpr const char* uuids = "uuids";              // array of UUIDs; a granted hold's token: one UUID
inline constexpr const char* annotations = "annotations";  // dictionary: annotation entries
inline constexpr const char* errorCode = "errorcode";      // unsigned: absent or 0 on success
inline constexpr const char* error = "error";              // string: description of the error
inline constexpr const char* matches = "matches";          // property-list message value: array of forms
inline constexpr const char* conflicts = "conflicts";      // array of dictionaries: busy instances
inline constexpr const char* extensions = "extensions";    // array of strings: read tokens
}  // namespace key

/// Keys of an annotation record.
namespace annotation {
inline constexpr const char* election = "election";    // number; 0 or absent: no election
inline constexpr const char* extension = "extension";  // dictionary of a client's own
}  // namespace annotation

/// Bits of a "match" request's flags.
inline constexpr uint64_t ABDiscoverAllVersions = 0x1;
inline constexpr uint64_t ABDiscoverDuplicates = 0x4;
inline constexpr uint64_t ABDiscoverSystemOnly = 0x8;
inline constexpr uint64_t ABDiscoverAll = 0x200;

/// Flags of a "lock" request that holds: what its paths name.
inline constexpr uint64_t ABHoldApplications = 1;  // applications: every plug-in inside, none of them busy
inline constexpr uint64_t ABHoldPlugIns = 2;       // plug-in bundles, busy or not

// Limits of requests, beyond what the message service limits. A request that exceeds one is refused (code 4).

/// Rule entries, patterns, items and types of items in a "match" request's rules, all together.
inline constexpr size_t kMaximumPatterns = 16384;
/// Holds of one connection at a time.
inline constexpr size_t kMaximumHolds = 1024;
/// Plug-ins in all of them; one that is in two counts twice.
inline constexpr size_t kMaximumHeldPlugIns = 65536;

/// The elections that people make; any other value counts as made, too.
inline constexpr int64_t ABElectionDefault = 0;
inline constexpr int64_t ABElectionUse = 1;
inline constexpr int64_t ABElectionIgnore = 2;

/// Entitlements that the daemon reads.
namespace entitlement {
inline constexpr const char* manager = "com.veltra.private.ambrel.manager";
inline constexpr const char* allowedPlugIns = "com.veltra.developer.ambrel.allowedplugins";
inline constexpr const char* replacePlugIn = "com.veltra.developer.replace-plugin";
inline constexpr const char* autoElectPlugIn = "com.veltra.developer.auto-elect-plugin";
}  // namespace entitlement

}  // namespace ambrel
