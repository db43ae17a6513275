#include "abd/RequestSettings.h"

#include "platform/policy/Restrictions.h"

namespace abd {

const std::optional<int64_t>& RequestSettings::maximumAppsRating() {
  if (!maximumAppsRating_) maximumAppsRating_.emplace(platform::maximumAppsRating());
  return *maximumAppsRating_;
}

const ConsentDecisions& RequestSettings::consent() {
  if (!consent_) consent_.emplace(readConsentDecisions());
  return *consent_;
}

}  // namespace abd
