#include "abd/database/ABDUserPrefs.h"

#include "platform/system/Preferences.h"

namespace abd {

Value ABDUserPrefs::exclusions() const {
  return hostPreference(kDomain, kExclusions);
}

}  // namespace abd
