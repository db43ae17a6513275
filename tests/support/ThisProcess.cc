#include "tests/support/ThisProcess.h"

#include <algorithm>
#include <cstdlib>

namespace testsupport {

const DeviceRoot& thisDevice() {
  static const DeviceRoot* device = [] {
    static const DeviceRoot root;
    for (const std::string& variable : root.environment()) {
      const size_t equals = variable.find('=');
      setenv(variable.substr(0, equals).c_str(), variable.substr(equals + 1).c_str(), 1);
    }
    return &root;
  }();
  return *device;
}

void clearOwnDevice() {
  const DeviceRoot& device = thisDevice();
  for (const std::string& root :
       {device.dataUser(), device.dataSystem(), device.configUser(), device.configDevice(), device.runtime()})
    for (const auto& entry : fs::directory_iterator(root)) fs::remove_all(entry.path());
}

std::vector<std::string> logEntries(const std::string& standardError) {
  std::vector<std::string> entries = linesOf(standardError);
  for (std::string& line : entries)
    if (const size_t prefix = line.find("]: "); prefix != std::string::npos) line.erase(0, prefix + 3);
  return entries;
}

size_t entriesWith(const std::vector<std::string>& log, std::string_view text) {
  return static_cast<size_t>(
      std::ranges::count_if(log, [text](const auto& each) { return contains(each, text); }));
}

}  // namespace testsupport
