#pragma once

// The rows of the registry's database to and from values. Internal to the store.

#include <memory>
#include <optional>
#include <string>

#include "platform/hollin/Registration.h"

struct sqlite3_stmt;

namespace platform::hollin {

/// The bundle in the current row of "SELECT * FROM bundle"; none when the row was not written by us. `facts`
/// becomes the bundle's facts, to which its plug-ins are yet to be added; null when none are kept.
std::optional<Registration> readBundleRow(sqlite3_stmt* row, std::shared_ptr<BundleFacts>& facts);
/// Adds the plug-in in the current row of "SELECT * FROM plugin" to its bundle and the bundle's facts; false
/// when the row was not written by us.
bool readPlugInRow(sqlite3_stmt* row, Registration& bundle, BundleFacts* facts);

/// The bundle's encoded entitlements when its facts can be kept; none when they cannot, or there are none:
/// then the bundle is read again at the next start.
std::optional<std::string> keptEntitlements(const Registration& bundle);

/// Bind all columns. What is bound lives as long as the arguments.
void bindBundleRow(sqlite3_stmt* statement, const Registration& bundle,
                   const std::optional<std::string>& entitlements);
void bindPlugInRow(sqlite3_stmt* statement, const Registration& bundle, const Slot& slot, bool areFactsKept);

}  // namespace platform::hollin
