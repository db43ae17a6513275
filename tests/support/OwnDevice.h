#pragma once

// The device that the test program itself lives on (ThisProcess.h), there before anything asks where things
// lie, for tests that write its files and call the platform in their own process.

#include <unistd.h>

#include <filesystem>
#include <string>

#include "tests/support/ThisProcess.h"

namespace testsupport {

inline const DeviceRoot& ownDevice = thisDevice();

/// Waits until a file that was just written counts as unchanged from now on, and until the types are looked
/// at again.
inline void letFilesSettle() {
  usleep(150'000);
}

/// Empties the directories of the device, for the next test.
inline void clearOwnDevice() {
  namespace fs = std::filesystem;
  for (const std::string& root : {ownDevice.dataUser(), ownDevice.dataSystem(), ownDevice.configUser(),
                                  ownDevice.configDevice(), ownDevice.runtime()})
    for (const auto& entry : fs::directory_iterator(root)) fs::remove_all(entry.path());
}

}  // namespace testsupport
