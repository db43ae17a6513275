#pragma once

// The keys that the daemon reads, by the place in which it reads them, what kind of value it takes there, and
// what becomes of another kind. Pure functions. Main thread.

#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "platform/value/Flaw.h"
#include "platform/value/Value.h"
#include "tools/abctl/Findings.h"

namespace abctl {

enum class Place { info, section, attributes, service, entitlements, rules, words };

/// Judges the keys, and the kinds of values, of the dictionary at `path` in `file`, which is a `place`.
/// `custom`: keys that others define there.
void checkKeys(const CheckedFile& file, const platform::KeyPath& path, Place place,
               const std::set<std::string>& custom = {});

/// The keys that the daemon reads in such a place.
std::vector<std::string_view> knownKeys(Place place);

/// The one of `names` that `name` is likely meant to be, or "". Case, and one or two letters, may differ.
std::string likelyMeant(std::string_view name, const std::vector<std::string>& names);

}  // namespace abctl
