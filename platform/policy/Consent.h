#pragma once

// The privacy-consent service (QSV): config/user Consent.plist, application identifier -> service identifier
// -> granted. Any thread.

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

/// All decisions of the user; none when the file cannot be read.
using ConsentDecisions = std::optional<Dictionary>;

/// Where the user's decisions are; "" without a place for them.
std::string consentFile();

/// The decisions as the file says now. No file: no decisions.
ConsentDecisions readConsentDecisions();

/// The services that the user has decided on for the application `bundle`; none without `decisions`. No entry
/// is an empty list.
std::optional<std::vector<ConsentEntry>> QSVAccessCopyInformationForBundle(const qmx::Bundle& bundle,
                                                                           const ConsentDecisions& decisions);

}  // namespace platform
