#pragma once

// Read tokens for files. Any thread.

#include <optional>
#include <string>

#include "platform/value/URL.h"

namespace ambrel {

using namespace platform;

/// A token that lets its holder read the file or directory at `url`, whose path is canonical: a link that was
/// put in its way since is not followed. None, with errno set, when the platform refuses.
std::optional<std::string> ABIssueSandboxExtension(const URL& url);

}  // namespace ambrel
