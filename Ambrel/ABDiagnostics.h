#pragma once

// The daemon's second service, for administrators, in one table: its name, request names, keys and the names
// of the tests that an explanation tells of. Frames, limits, version and error replies are those of the main
// service (ABProtocol.h). Constants only.

namespace ambrel {

/// The service is called as the main one, with this behind it.
inline constexpr const char* kDiagnosticsSuffix = ".diagnostics";

/// Values of key::request.
namespace diagnostics {
inline constexpr const char* explain = "explain";
inline constexpr const char* status = "status";
}  // namespace diagnostics

/// Keys of "explain" and of its reply; "rules" and "flags" are those of a search.
namespace explainkey {
inline constexpr const char* plugIns = "plugins";            // array of strings: identifier, UUID or path
inline constexpr const char* pid = "pid";                    // unsigned: the connected host that searches
inline constexpr const char* bundle = "bundle";              // string: path of the bundle of a host
inline constexpr const char* explanations = "explanations";  // property-list message value: array
}  // namespace explainkey

/// Keys of an explanation; those of plug-ins are the keys of their forms.
namespace explanationkey {
inline constexpr const char* name = "name";          // string: as the request named it
inline constexpr const char* host = "host";          // string: who searches
inline constexpr const char* offered = "offered";    // boolean
inline constexpr const char* summary = "summary";    // string: one sentence
inline constexpr const char* change = "change";      // string: the one change that would make it eligible
inline constexpr const char* findings = "findings";  // array of dictionaries, in the order of the tests
}  // namespace explanationkey

/// Keys of a finding: stage, whether it passed, what was found. The others say what was looked at.
namespace findingkey {
inline constexpr const char* stage = "stage";      // string: one of the stages
inline constexpr const char* passed = "passed";    // boolean
inline constexpr const char* text = "text";        // string
inline constexpr const char* change = "change";    // string: what would make it pass
inline constexpr const char* key = "key";          // string: of a rule or an entitlement
inline constexpr const char* pattern = "pattern";  // what was asked for
inline constexpr const char* value = "value";      // what was found; absent when there was none
inline constexpr const char* pid = "pid";          // of who holds the plug-in
inline constexpr const char* bundle = "bundle";    // string: path of the bundle of who holds it
inline constexpr const char* since = "since";      // date
inline constexpr const char* token = "token";      // string: of the hold
inline constexpr const char* uuid = "uuid";        // string: of the other plug-in
}  // namespace findingkey

/// The tests, in their order.
namespace stage {
inline constexpr const char* registration = "registration";  // the registry knows it
inline constexpr const char* record = "record";              // its bundle is well-formed
inline constexpr const char* candidate = "candidate";        // the search looks at it
inline constexpr const char* visibility = "visibility";      // volume, application, dedicated
inline constexpr const char* hold = "hold";                  // nobody holds it
inline constexpr const char* rule = "rule";                  // one for each rule
inline constexpr const char* exclusion = "exclusion";        // the user has not excluded it
inline constexpr const char* access = "access";              // the host may use it
inline constexpr const char* duplicate = "duplicate";        // none of its identifier is preferred
inline constexpr const char* replacement = "replacement";    // hosts are told of what replaces it
}  // namespace stage

/// Keys of "status": of its reply, which has the dictionary `status`, and of what is in that.
namespace statuskey {
inline constexpr const char* status = "status";      // dictionary, with:
inline constexpr const char* version = "version";    // string
inline constexpr const char* service = "service";    // string: the main service's name
inline constexpr const char* pid = "pid";            // unsigned: the daemon's; in rows, a client's
inline constexpr const char* uptime = "uptime";      // double: seconds
inline constexpr const char* queued = "queued";      // unsigned: messages that wait for their turn
inline constexpr const char* clients = "clients";    // array of dictionaries: bundle, pid, requests, ...
inline constexpr const char* holds = "holds";        // array of dictionaries: token, pid, bundle, ...
inline constexpr const char* requests = "requests";  // array of dictionaries; of a client, unsigned
inline constexpr const char* records = "records";    // dictionary; of the annotations, unsigned
inline constexpr const char* registry = "registry";  // dictionary
inline constexpr const char* annotations = "annotations";  // dictionary
// Of clients and holds.
inline constexpr const char* bundle = "bundle";    // string: path; absent when it is not known
inline constexpr const char* waiting = "waiting";  // unsigned: messages
inline constexpr const char* unsent = "unsent";    // unsigned: bytes
inline constexpr const char* token = "token";      // string
inline constexpr const char* since = "since";      // date
inline constexpr const char* plugIns = "plugins";  // unsigned; of the registry, too
// Of requests of one name.
inline constexpr const char* name = "name";        // string
inline constexpr const char* count = "count";      // unsigned
inline constexpr const char* failed = "failed";    // unsigned
inline constexpr const char* seconds = "seconds";  // double: all together
inline constexpr const char* p50 = "p50";          // double: seconds; absent when there was none
inline constexpr const char* p99 = "p99";          // double: seconds; absent when there was none
// Of records kept.
inline constexpr const char* kept = "kept";      // unsigned
inline constexpr const char* limit = "limit";    // unsigned
inline constexpr const char* purges = "purges";  // unsigned
// Of the registry.
inline constexpr const char* bundles = "bundles";              // unsigned
inline constexpr const char* announcements = "announcements";  // unsigned
inline constexpr const char* scanned = "scanned";              // date; absent before the first scan is over
inline constexpr const char* watches = "watches";              // unsigned
inline constexpr const char* polling = "polling";              // boolean
// Of the annotation file.
inline constexpr const char* path = "path";    // string
inline constexpr const char* bytes = "bytes";  // unsigned
inline constexpr const char* saved = "saved";  // date; absent when this daemon has not saved it
inline constexpr const char* error =
    "error";  // string: why it could not be loaded, or saved; absent if it could
}  // namespace statuskey

}  // namespace ambrel
