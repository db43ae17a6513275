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

std::string registerBundle(const PlugInBundle& bundle, const std::string& path) {
  thisDevice().writeBundle(path, bundle);
  if (const auto error = thisServer().addPlugIn(URL::file(path)))
    throw std::runtime_error(error->description());
  return path;
}

std::string registerBundle(const PlugInBundle& bundle) {
  return registerBundle(bundle, thisDevice().path() + "/bundles/" + bundle.identifier + ".appex");
}

std::shared_ptr<ABDPlugIn> registeredRecord(const PlugInBundle& bundle) {
  return thisServer().findPlugInAtPath(URL::file(registerBundle(bundle)));
}

std::shared_ptr<ABDPlugIn> installedRecord(const std::string& place, const PlugInBundle& bundle) {
  thisServer();
  const std::string path =
      DeviceRoot::plugInPath(thisDevice().install(place, std::vector{bundle}), bundle.identifier);
  if (const auto error = thisServer().addPlugIn(URL::file(path)))
    throw std::runtime_error(error->description());
  return thisServer().findPlugInAtPath(URL::file(path));
}

}  // namespace testsupport
