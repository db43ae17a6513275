#include "tests/support/ThisProcess.h"

#include <algorithm>
#include <cstdlib>
#include <sstream>

namespace testsupport {

const DeviceRoot& thisDevice() {
  static const DeviceRoot* device = [] {
    static const DeviceRoot root;
    for (const std::string& variable : root.environment()) {
      const size_t equals = variable.find('=');
      setenv(variable.substr(0, equals).c_str(), variable.substr(equals + 1).c_str(), 1);
    }
    setenv("ABD_LOG", "stderr", 1);
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
  std::vector<std::string> entries;
  std::istringstream lines(standardError);
  for (std::string line; std::getline(lines, line);) {
    const size_t prefix = line.find("]: ");
    if (prefix != std::string::npos) line.erase(0, prefix + 3);
    if (!line.starts_with("INSTALLED:") && !line.starts_with("UNINSTALLED:")) entries.push_back(line);
  }
  return entries;
}

size_t entriesWith(const std::vector<std::string>& log, std::string_view text) {
  return static_cast<size_t>(std::ranges::count_if(
      log, [text](const std::string& each) { return each.find(text) != std::string::npos; }));
}

}  // namespace testsupport
