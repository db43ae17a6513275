#include "platform/hollin/StoreRows.h"

#include <sqlite3.h>

#include <algorithm>
#include <array>
#include <cstring>

#include "platform/propertylist/PropertyList.h"
#include "platform/qmx/Encoding.h"
#include "platform/value/UTF8.h"

namespace platform::hollin {

namespace {

// Columns of the two tables, in order.
enum BundleColumn {
  bundleRow,
  bundlePath,
  byPath,
  unregistered,
  gone,
  infoFile,
  entitlementsFile,
  multiplexed,
  bundleIdentifier,
  bundleVersion,
  encodedEntitlements
};
enum PlugInColumn {
  plugInBundle,
  plugInIdentifier,
  originalIdentifier,
  plugInUUID,
  registered,
  present,
  protocol,
  sdk,
  pointNames
};

using IdentityBytes = std::array<uint64_t, 4>;

std::string_view blob(sqlite3_stmt* row, int column) {
  const void* bytes = sqlite3_column_blob(row, column);
  const int size = sqlite3_column_bytes(row, column);
  return bytes == nullptr ? std::string_view()
                          : std::string_view(static_cast<const char*>(bytes), static_cast<size_t>(size));
}

bool isNull(sqlite3_stmt* row, int column) {
  return sqlite3_column_type(row, column) == SQLITE_NULL;
}

std::optional<String> stringOrNone(sqlite3_stmt* row, int column) {
  return isNull(row, column) ? std::nullopt : std::optional<String>(blob(row, column));
}

/// Whether these columns hold text, which goes into replies, or nothing.
bool areText(sqlite3_stmt* row, std::initializer_list<int> columns) {
  return std::ranges::all_of(columns, [row](int column) { return isValidText(blob(row, column)); });
}

/// A missing file's identity is empty.
bool readIdentity(std::string_view bytes, FileIdentity& identity) {
  if (bytes.empty()) return true;
  IdentityBytes parts;
  if (bytes.size() != sizeof parts) return false;
  std::memcpy(parts.data(), bytes.data(), sizeof parts);
  identity = {0, parts[0], parts[1], static_cast<int64_t>(parts[2]), static_cast<int64_t>(parts[3])};
  return true;
}

void bindBlob(sqlite3_stmt* statement, int column, std::string_view bytes) {
  // A null pointer would bind NULL.
  sqlite3_bind_blob64(statement, column + 1, bytes.empty() ? "" : bytes.data(), bytes.size(), SQLITE_STATIC);
}

void bindIdentity(sqlite3_stmt* statement, int column, const FileIdentity& identity) {
  const IdentityBytes parts{identity.inode, identity.size,
                            static_cast<uint64_t>(identity.modificationNanoseconds),
                            static_cast<uint64_t>(identity.changeNanoseconds)};
  const size_t size = identity == FileIdentity() ? 0 : sizeof parts;
  sqlite3_bind_blob64(statement, column + 1, parts.data(), size, SQLITE_TRANSIENT);
}

void bindOptional(sqlite3_stmt* statement, int column, const std::optional<String>& text) {
  if (text) {
    bindBlob(statement, column, text->view());
  } else {
    sqlite3_bind_null(statement, column + 1);
  }
}

/// Each name after its length (4 bytes).
std::string joinNames(const std::vector<String>& names) {
  std::string out;
  for (const String& name : names) {
    const auto size = static_cast<uint32_t>(name.size());
    out.append(reinterpret_cast<const char*>(&size), sizeof size).append(name.view());
  }
  return out;
}

bool splitNames(std::string_view bytes, std::vector<String>& names) {
  while (!bytes.empty()) {
    uint32_t size;
    if (bytes.size() < sizeof size) return false;
    std::memcpy(&size, bytes.data(), sizeof size);
    bytes.remove_prefix(sizeof size);
    if (bytes.size() < size || !isValidText(bytes.substr(0, size))) return false;
    names.push_back(String::interned(bytes.substr(0, size)));
    bytes.remove_prefix(size);
  }
  return true;
}

bool readEntitlements(std::string_view bytes, Value& entitlements) {
  if (bytes.empty()) return true;
  const std::span<const uint8_t> view(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
  auto value = qmx::decode(view, kMaximumFileNesting);
  if (!value || !value->isDictionary()) return false;
  entitlements = *std::move(value);
  return true;
}

const PlugInFacts* factsOf(const Registration& bundle, const Slot& slot) {
  if (bundle.facts == nullptr) return nullptr;
  const std::vector<PlugInFacts>& plugIns = bundle.facts->plugIns;
  const auto found =
      std::lower_bound(plugIns.begin(), plugIns.end(), slot.identifier,
                       [](const PlugInFacts& facts, const String& key) { return facts.identifier < key; });
  return found != plugIns.end() && found->identifier == slot.identifier ? &*found : nullptr;
}

}  // namespace

std::optional<Registration> readBundleRow(sqlite3_stmt* row, std::shared_ptr<BundleFacts>& facts) {
  Registration bundle;
  facts.reset();
  bundle.row = sqlite3_column_int64(row, bundleRow);
  bundle.path = String(blob(row, bundlePath));
  bundle.isByPath = sqlite3_column_int(row, byPath) != 0;
  bundle.isUnregistered = sqlite3_column_int(row, unregistered) != 0;
  bundle.goneSince = sqlite3_column_double(row, gone);
  if (bundle.row <= 0 || !bundle.path.view().starts_with('/') ||
      !areText(row, {bundlePath, bundleIdentifier, bundleVersion}))
    return std::nullopt;
  if (isNull(row, infoFile)) return bundle;
  facts = std::make_shared<BundleFacts>();
  facts->path = bundle.path;
  facts->isMultiplexed = sqlite3_column_int(row, multiplexed) != 0;
  facts->bundleIdentifier = stringOrNone(row, bundleIdentifier);
  facts->bundleVersion = stringOrNone(row, bundleVersion);
  if (!readIdentity(blob(row, infoFile), facts->info) ||
      !readIdentity(blob(row, entitlementsFile), facts->entitlementsFile) ||
      !readEntitlements(blob(row, encodedEntitlements), facts->entitlements))
    return std::nullopt;
  bundle.facts = facts;
  return bundle;
}

bool readPlugInRow(sqlite3_stmt* row, Registration& bundle, BundleFacts* facts) {
  if (!areText(row, {plugInIdentifier, originalIdentifier, sdk})) return false;
  Slot slot;
  slot.identifier = String(blob(row, plugInIdentifier));
  const std::string_view first = blob(row, originalIdentifier);
  slot.original = first == slot.identifier.view() ? slot.identifier : String(first);
  const std::string_view bytes = blob(row, plugInUUID);
  const auto uuid = UUID::fromBytes({reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size()});
  if (!uuid) return false;
  slot.uuid = *uuid;
  slot.registered = sqlite3_column_double(row, registered);
  if (sqlite3_column_int(row, present) != 0) {
    const int kind = sqlite3_column_int(row, protocol);
    if (facts == nullptr || kind < 0 || kind > static_cast<int>(Protocol::other)) return false;
    PlugInFacts plugIn{slot.identifier, String::interned(blob(row, sdk)), {}, static_cast<Protocol>(kind)};
    if (!splitNames(blob(row, pointNames), plugIn.names)) return false;
    facts->plugIns.push_back(std::move(plugIn));
  }
  bundle.slots.push_back(std::move(slot));
  return true;
}

std::optional<std::string> keptEntitlements(const Registration& bundle) {
  if (bundle.facts == nullptr || bundle.facts->plugIns.empty()) return std::nullopt;
  const Value& entitlements = bundle.facts->entitlements;
  std::string bytes;
  if (entitlements.isNone()) return bytes;
  qmx::encode(entitlements, bytes);
  Value again;
  return readEntitlements(bytes, again) && again == entitlements ? std::optional(bytes) : std::nullopt;
}

void bindBundleRow(sqlite3_stmt* statement, const Registration& bundle,
                   const std::optional<std::string>& entitlements) {
  sqlite3_bind_int64(statement, bundleRow + 1, bundle.row);
  bindBlob(statement, bundlePath, bundle.path.view());
  sqlite3_bind_int(statement, byPath + 1, bundle.isByPath ? 1 : 0);
  sqlite3_bind_int(statement, unregistered + 1, bundle.isUnregistered ? 1 : 0);
  sqlite3_bind_double(statement, gone + 1, bundle.goneSince);
  for (int column = infoFile; column <= encodedEntitlements; column++)
    sqlite3_bind_null(statement, column + 1);
  if (!entitlements) return;
  const BundleFacts& facts = *bundle.facts;
  bindIdentity(statement, infoFile, facts.info);
  bindIdentity(statement, entitlementsFile, facts.entitlementsFile);
  sqlite3_bind_int(statement, multiplexed + 1, facts.isMultiplexed ? 1 : 0);
  bindOptional(statement, bundleIdentifier, facts.bundleIdentifier);
  bindOptional(statement, bundleVersion, facts.bundleVersion);
  bindBlob(statement, encodedEntitlements, *entitlements);
}

void bindPlugInRow(sqlite3_stmt* statement, const Registration& bundle, const Slot& slot, bool areFactsKept) {
  sqlite3_bind_int64(statement, plugInBundle + 1, bundle.row);
  bindBlob(statement, plugInIdentifier, slot.identifier.view());
  bindBlob(statement, originalIdentifier, slot.original.view());
  const UUID::Bytes& uuid = slot.uuid.bytes();
  bindBlob(statement, plugInUUID, {reinterpret_cast<const char*>(uuid.data()), uuid.size()});
  sqlite3_bind_double(statement, registered + 1, slot.registered);
  const PlugInFacts* facts = areFactsKept ? factsOf(bundle, slot) : nullptr;
  sqlite3_bind_int(statement, present + 1, facts != nullptr ? 1 : 0);
  for (int column = protocol; column <= pointNames; column++) sqlite3_bind_null(statement, column + 1);
  if (facts == nullptr) return;
  const std::string names = joinNames(facts->names);
  sqlite3_bind_int(statement, protocol + 1, static_cast<int>(facts->protocol));
  bindBlob(statement, sdk, facts->sdk.view());
  sqlite3_bind_blob64(statement, pointNames + 1, names.data(), names.size(), SQLITE_TRANSIENT);
}

}  // namespace platform::hollin
