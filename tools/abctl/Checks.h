#pragma once

// What `abctl check` looks at. Each adds what it finds, by the daemon's own functions. Main thread.

#include <string>

#include "platform/value/Flaw.h"
#include "tools/abctl/Findings.h"

namespace abctl {

/// Applications, or one, or the container of some: whatever is at the canonical `path`, and the plug-ins that
/// a scan finds in there.
void checkApplications(const std::string& path, Findings& findings);

/// The plug-in bundle at the canonical `path`.
void checkBundle(const std::string& path, Findings& findings);

/// The definition of the extension point that the file's name says.
void checkSDK(const std::string& path, Findings& findings);

/// A rule dictionary, as the rules of a search are.
void checkRuleFile(const std::string& path, Findings& findings);

/// The rule dictionary at `path` in `file`.
void checkRules(const CheckedFile& file, const platform::KeyPath& path);

/// Entitlements of the bundle at `path`, where it has some.
void checkEntitlements(const std::string& path, Findings& findings);

/// The words for other languages of the bundle at `path`.
void checkLocalizations(const std::string& path, Findings& findings);

/// An activation rule, when `file` has one under `attributes`.
void checkActivationRule(const CheckedFile& file, const platform::KeyPath& attributes);

}  // namespace abctl
