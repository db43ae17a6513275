#pragma once

// Which type identifiers conform to which: data/Types/*.plist (type -> list of parents) and the shared MIME
// database's "subclasses" and "aliases", so that MIME types work as type identifiers. Reloaded when a file
// changes. Any thread.

#include <string_view>

namespace platform {

/// Whether `type` conforms to `ancestor`: reflexive and transitive; cycles are tolerated.
bool typeConformsTo(std::string_view type, std::string_view ancestor);

}  // namespace platform
