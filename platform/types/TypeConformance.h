#pragma once

// Which type identifiers conform to which: data/Types/*.plist (type -> list of parents, or one parent) and
// the shared MIME database's "subclasses" and "aliases", so that MIME types work as type identifiers. What
// all files say counts together. Changed files are noticed by a question that comes at least a tenth of a
// second after they were last looked at: within that time an answer may still be the old one. Any thread.

#include <string_view>

namespace platform {

/// Whether `type` conforms to `ancestor`: reflexive and transitive; cycles are tolerated.
bool typeConformsTo(std::string_view type, std::string_view ancestor);

}  // namespace platform
