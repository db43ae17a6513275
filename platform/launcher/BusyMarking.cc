#include <cstdint>
#include <mutex>
#include <string>

#include "platform/launcher/ServiceLauncher.h"
#include "platform/system/ServiceManager.h"

namespace platform {

namespace {

// The texts are sent under the lock, so that the last one sent tells the last count. A manager that lags
// behind misses one; the next says the same better.
std::mutex mutex;
uint32_t openMarkings = 0;

void changeCount(int difference) {
  const std::lock_guard lock(mutex);
  openMarkings += static_cast<uint32_t>(difference);
  tellServiceManager(openMarkings == 0 ? std::string("STATUS=idle")
                                       : "STATUS=busy (" + std::to_string(openMarkings) + ")");
}

}  // namespace

BusyMarking::BusyMarking() {
  changeCount(1);
}

BusyMarking::~BusyMarking() {
  changeCount(-1);
}

}  // namespace platform
