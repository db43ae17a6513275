#pragma once

// Whether a file's identity can be trusted to tell a later change. A plain function, usable from any thread.

#include "platform/propertylist/FileReplacement.h"

namespace platform {

/// False while the file changed so short a time ago that it may change again without another time stamp
/// (file systems take theirs from a clock that ticks a few hundred times a second at most): what was read
/// from it then is not to be kept.
bool isSettled(const FileIdentity& identity);

}  // namespace platform
