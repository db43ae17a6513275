// "add", "remove" and "bulk". Any client may send them; the registry alone decides.

#include "Ambrel/ABProtocol.h"
#include "abd/ABDServer.h"
#include "abd/ABDTrace.h"
#include "abd/requests/Walks.h"
#include "platform/log/Log.h"

namespace abd {

Course Transaction::addPlugIns() {
  PathWalk paths(*this);
  while (const auto entry = paths.next()) {
    const std::string& path = entry->path;
    if (!entry->resolved) co_return fail(kABErrorPath, format("invalid plugin path: %@", path));
    trace::pluginAdd(path);
    if (server().addPlugIn(URL::file(path))) {
      systemLog("failed to register plug-in at %@", path);
      co_return fail(kABErrorRegistration, format("unable to register plug-in at %@", path));
    }
    co_await giveWay();
  }
  if (!paths.hasFailed()) done();
}

Course Transaction::removePlugIns() {
  PathWalk paths(*this);
  while (const auto entry = paths.next()) {
    trace::pluginRemove(entry->path, entry->resolved);
    if (server().removePlugIn(URL::file(entry->path)))
      co_return fail(kABErrorPath, format("no plugin at %@", entry->path));
    co_await giveWay();
  }
  if (!paths.hasFailed()) done();
}

Course Transaction::bulkPlugIns() {
  systemLog("bulk options 0x%lx not supported", request_.unsignedValue(key::flags));
  done();
  return {};
}

}  // namespace abd
