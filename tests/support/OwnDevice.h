#pragma once

// The device that the test program itself lives on (ThisProcess.h), there before anything asks where things
// lie, for tests that write its files and call the platform in their own process.

#include <filesystem>
#include <string>

#include "tests/support/ThisProcess.h"

namespace testsupport {

inline const DeviceRoot& ownDevice = thisDevice();

/// Empties the directories of the device, for the next test.
inline void clearOwnDevice() {
  namespace fs = std::filesystem;
  for (const std::string& root : {ownDevice.dataUser(), ownDevice.dataSystem(), ownDevice.configUser(),
                                  ownDevice.configDevice(), ownDevice.runtime()})
    for (const auto& entry : fs::directory_iterator(root)) fs::remove_all(entry.path());
}

}  // namespace testsupport
