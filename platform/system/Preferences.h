#pragma once

// The preferences store: config/user Preferences/<domain>.plist (any host) and
// Preferences/ByHost/<domain>.<host id>.plist (this host only). Any thread.

#include <string>

#include "platform/value/Value.h"

namespace platform {

/// The value of `key` in `domain` for the current user and the current host (the host-specific scope only),
/// as it is in the file now; a none value when there is none. An unchanged file is not parsed again.
Value hostPreference(const std::string& domain, std::string_view key);

/// First line of /etc/machine-id, else the host name.
const std::string& hostIdentifier();

/// Path of the file that hostPreference() reads.
std::string hostPreferencesPath(const std::string& domain);

}  // namespace platform
