#pragma once

// The privacy-consent service (QSV): config/user Consent.plist, application identifier -> service identifier
// -> granted. Looked up anew on every call. Any thread.

#include <optional>
#include <string>
#include <vector>

#include "platform/qmx/Bundle.h"

namespace platform {

inline constexpr const char* kQSVServiceKeyboardNetwork = "kQSVServiceKeyboardNetwork";

struct ConsentEntry {
  std::string service;
  std::optional<bool> granted;
};

/// The services that the user has decided on for the application `bundle`; none when the file cannot be read.
/// No file or no entry is an empty list.
std::optional<std::vector<ConsentEntry>> QSVAccessCopyInformationForBundle(const qmx::Bundle& bundle);

}  // namespace platform
