#include "abd/requests/Walks.h"

#include "Ambrel/ABCollections.h"
#include "Ambrel/ABProtocol.h"
#include "abd/ABDServer.h"
#include "abd/plugin/ABDPlugIn.h"
#include "platform/system/Directories.h"
#include "platform/value/UTF8.h"

namespace abd {

namespace {

/// Bytes of a path or of its canonical form, the terminating NUL included.
constexpr size_t kPathBuffer = 1024;

/// The canonical form of `path`, or "" when it has none that fits the buffer.
std::string resolvedPath(const std::string& path) {
  if (path.size() >= kPathBuffer) return {};
  std::string resolved = canonicalPath(path);
  // What no message can carry is a path that clients cannot have meant.
  if (resolved.size() >= kPathBuffer || !isValidText(resolved)) resolved.clear();
  return resolved;
}

}  // namespace

// --- Paths ---

Transaction::PathWalk::PathWalk(Transaction& transaction)
    : transaction_(transaction), paths_(qmx_dictionary_get_array(transaction.request_.body, key::paths)) {
  if (!paths_) fail(kABErrorRequest, "invalid request format");
}

std::optional<Transaction::PathWalk::Entry> Transaction::PathWalk::next() {
  if (hasFailed_ || next_ == paths_->size()) return std::nullopt;
  const std::optional<std::string_view> text = (*paths_)[next_++].string();
  if (!text) return fail(kABErrorRequest, "invalid request format");
  std::string path(*text);
  if (!path.starts_with('/')) return fail(kABErrorPath, format("absolute path required: %s", path));
  std::string resolved = resolvedPath(path);
  if (resolved.empty()) return Entry{std::move(path), false};
  return Entry{std::move(resolved), true};
}

std::optional<Transaction::PathWalk::Entry> Transaction::PathWalk::fail(int64_t code,
                                                                        std::string_view message) {
  transaction_.fail(code, message);
  hasFailed_ = true;
  return std::nullopt;
}

// --- Plug-ins ---

Transaction::PlugInWalk::PlugInWalk(Transaction& transaction)
    : transaction_(transaction), uuids_(qmx_dictionary_get_array(transaction.request_.body, key::uuids)) {
  if (!uuids_) fail("invalid request format (uuid)");
}

std::shared_ptr<ABDPlugIn> Transaction::PlugInWalk::next() {
  if (hasFailed_ || next_ == uuids_->size()) return nullptr;
  const Value& entry = (*uuids_)[next_++];
  if (entry.kind() != Value::Kind::uuid) return fail("invalid request (bad uuid array)");
  const std::optional<UUID> uuid = entry.uuid();
  if (!uuid) return fail("invalid request (uuid allocation failure)");
  std::shared_ptr<ABDPlugIn> plugIn = transaction_.server().findPlugIn(*uuid);
  return plugIn != nullptr ? plugIn : fail("no such plugin (uuid not found)");
}

std::shared_ptr<ABDPlugIn> Transaction::PlugInWalk::fail(std::string_view message) {
  transaction_.fail(kABErrorRequest, message);
  hasFailed_ = true;
  return nullptr;
}

}  // namespace abd
