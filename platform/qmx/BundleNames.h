#pragma once

// The names of a bundle in the user's language, and the files that they depend on. The language is that of
// LC_ALL, LC_MESSAGES or LANG when this is first asked: "de_AT.UTF-8" finds de_AT, de-AT or de, whichever is
// there first. Pure functions; any thread.

#include <optional>
#include <string>
#include <vector>

#include "platform/propertylist/PropertyList.h"
#include "platform/value/Value.h"

namespace platform::qmx {

struct BundleNames {
  std::optional<String> display, brief;
  /// Whether these are the names until one of the files changes: false when a file could not be read for now,
  /// or changed a moment ago.
  bool isCertain = true;

  /// What an Info dictionary says under "BWBundleDisplayName" and "BWBundleName".
  static BundleNames of(const Dictionary& info);
};

/// Whether bundles may have words for this user at all.
bool hasLanguage();

/// The files that may hold a bundle's words for this user, the closest language first; a zero identity for
/// one that is missing.
using LocalizationFiles = std::vector<FileIdentity>;
/// As they are now; empty when the bundle at `path` has none.
LocalizationFiles localizationFiles(const std::string& path);

/// The words in one localization file: a dictionary, or the error that keeps it from being one.
Result<Dictionary> readLocalization(const std::string& file);

/// Display and short name of the bundle at `path` whose Info dictionary says `own`: both keys may be
/// overridden by the first of its localization files that can be read; without a display name the short one
/// counts. `files` is what localizationFiles() just said.
BundleNames localizedBundleNames(const std::string& path, const BundleNames& own,
                                 const LocalizationFiles& files);

}  // namespace platform::qmx
