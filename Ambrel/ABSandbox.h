#pragma once

// Read tokens for files. Any thread.

#include <optional>
#include <string>

#include "platform/value/URL.h"

namespace ambrel {

using namespace platform;

/// A token that lets its holder read the file or directory at `url`, bound to its canonical path. None, with
/// errno set, when the platform refuses.
std::optional<std::string> ABIssueSandboxExtension(const URL& url);
/// The same for a path that was named relative to the bundle at `bundle`: none when it leads out of it.
std::optional<std::string> ABIssueSandboxExtension(const URL& url, const URL& bundle);

}  // namespace ambrel
