#include "tools/abctl/Trial.h"

#include <utility>

#include "platform/hollin/Locations.h"
#include "platform/hollin/Proxies.h"
#include "platform/log/Log.h"
#include "platform/propertylist/FileReplacement.h"
#include "platform/qmx/SDKRegistry.h"
#include "platform/system/Directories.h"

namespace abctl {

namespace hollin = platform::hollin;

Trial::Trial(const std::string& path) {
  platform::silenceLog();
  const platform::Directories& directories = platform::Directories::shared();
  platform::FileIdentity info, entitlements;
  hollin::identifyFiles(path, info, entitlements);
  facts = hollin::readBundleFacts(path, info, entitlements);
  auto surroundings = std::make_shared<hollin::Surroundings>(hollin::Surroundings::of(directories));
  surroundings->makesContainers = false;
  const bool isSystem = hollin::Locations::current(directories)->isOnSystemVolume(path);
  for (size_t i = 0; i < facts->plugIns.size(); ++i) {
    const platform::String& identifier = facts->plugIns[i].identifier;
    const hollin::Slot slot{identifier, identifier, platform::UUID::random()};
    auto proxy =
        std::make_shared<hollin::PlugInProxy>(facts, i, slot, nullptr, isSystem, surroundings, nullptr);
    PlugIn plugIn{identifier, nullptr, {}};
    plugIn.record = abd::ABDPlugIn::initWithHLData(std::move(proxy), &plugIn.trace);
    plugIns.push_back(std::move(plugIn));
  }
}

std::string sdkFile(const abd::ABDPlugIn& record) {
  for (const std::string& file : platform::qmx::sdkFiles(record.sdkSpec().string().value_or("")))
    if (platform::FileIdentity::ofFile(file) == record.sdkFile()) return file;
  return {};
}

}  // namespace abctl
