// "add", "remove" and "bulk". Any client may send them; the registry alone decides.

#include "Ambrel/ABProtocol.h"
#include "abd/ABDServer.h"
#include "abd/ABDTrace.h"
#include "abd/requests/Transaction.h"
#include "platform/log/Log.h"

namespace abd {

void Transaction::addPlugIns() {
  processPaths([this](const std::string& path, bool resolved) {
    if (!resolved) {
      fail(kABErrorPath, format("invalid plugin path: %@", path));
      return false;
    }
    trace::pluginAdd(path);
    if (server().addPlugIn(URL::file(path))) {
      systemLog("failed to register plug-in at %@", path);
      fail(kABErrorRegistration, format("unable to register plug-in at %@", path));
      return false;
    }
    return true;
  });
}

void Transaction::removePlugIns() {
  processPaths([this](const std::string& path, bool resolved) {
    trace::pluginRemove(path, resolved);
    if (server().removePlugIn(URL::file(path))) {
      fail(kABErrorPath, format("no plugin at %@", path));
      return false;
    }
    return true;
  });
}

void Transaction::bulkPlugIns() {
  systemLog("bulk options 0x%lx not supported", request_.unsignedValue(key::flags));
  done();
}

}  // namespace abd
