#pragma once

// The device that the test program itself lives on, for tests that call the platform in their own process:
// made, and named in the environment, before anything asks where things lie.

#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <string>

#include "tests/support/DeviceRoot.h"

namespace testsupport {

inline const DeviceRoot& makeOwnDevice() {
  static const DeviceRoot root;
  for (const std::string& variable : root.environment()) {
    const size_t equals = variable.find('=');
    setenv(variable.substr(0, equals).c_str(), variable.substr(equals + 1).c_str(), 1);
  }
  return root;
}

inline const DeviceRoot& ownDevice = makeOwnDevice();

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
