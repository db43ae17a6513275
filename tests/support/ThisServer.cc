#include "tests/support/ThisServer.h"

#include <stdexcept>

namespace testsupport {

using namespace abd;

ABDServer& thisServer() {
  static ABDServer* server = [] {
    thisDevice();
    const auto made = ABDServer::initForService("abd.inprocess", std::nullopt);
    if (made == nullptr) throw std::runtime_error("no server");
    made->setCacheLimit(1000);
    return made.get();
  }();
  return *server;
}

static std::string registered(std::string path) {
  if (const auto error = thisServer().addPlugIn(URL::file(path)))
    throw std::runtime_error(error->description());
  return path;
}

std::string registerBundle(const PlugInBundle& bundle, std::string path) {
  if (path.empty()) path = thisDevice().path() + "/bundles/" + bundle.identifier + ".appex";
  thisDevice().writeBundle(path, bundle);
  return registered(path);
}

std::shared_ptr<ABDPlugIn> registeredRecord(const PlugInBundle& bundle, std::string path) {
  return thisServer().findPlugInAtPath(URL::file(registerBundle(bundle, std::move(path))));
}

std::shared_ptr<ABDPlugIn> installedRecord(const std::string& place, const PlugInBundle& bundle) {
  const std::string application = thisDevice().install(place, std::vector{bundle});
  return thisServer().findPlugInAtPath(
      URL::file(registered(DeviceRoot::plugInPath(application, bundle.identifier))));
}

}  // namespace testsupport
