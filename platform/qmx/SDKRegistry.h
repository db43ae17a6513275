#pragma once

// The registered extension-point SDKs: data/SDKs/<name>.plist; a user's file wins over the system's. Looked
// up anew on every call, parsed only when the file changed. Any thread.

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/propertylist/FileReplacement.h"
#include "platform/value/Value.h"

namespace platform::qmx {

/// The registered entry of an SDK, or none. A name that cannot be a file name is not registered. `source`
/// becomes the identity of the file that gives the entry, and is left alone when there is none.
std::optional<Dictionary> copyExtensionSDKEntry(std::string_view name, FileIdentity* source = nullptr);

/// The files that may define the SDK called `name`, the one that wins first: in the directory named by
/// ABTEST_SDK, then the registered ones. Empty for a name that cannot be a file name.
std::vector<std::string> sdkFiles(std::string_view name);

/// The absolute path of the directory named by ABTEST_SDK; none when the variable is not set, or empty.
std::optional<std::string> testSDKDirectory();

/// The entry of `name` in the directory named by ABTEST_SDK (a file of exactly that name), when the variable
/// is set and the file holds a dictionary.
std::optional<Dictionary> testSDKEntry(std::string_view name, FileIdentity* source = nullptr);

/// Drops every parsed SDK dictionary.
void clearSDKCache();

}  // namespace platform::qmx
