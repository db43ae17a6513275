#include "abd/database/ABDUserPrefs.h"

#include "platform/system/Preferences.h"

namespace abd {

Value ABDUserPrefs::exclusions() const {
  return hostPreference("com.veltra.ambrel.userprefs", "exclusions");
}

}  // namespace abd
