#pragma once

// The daemon's server inside the test process, on thisDevice(): for tests of the records, the matching engine
// and the database as objects. The first use makes it; it is never run, so nobody connects to it.

#include <memory>
#include <string>

#include "abd/ABDServer.h"
#include "tests/support/ThisProcess.h"

namespace testsupport {

abd::ABDServer& thisServer();

/// Writes the bundle and registers it; it lies in no application unless `path` is inside one. Answers its
/// path.
std::string registerBundle(const PlugInBundle& bundle, std::string path = {});
/// Registers the bundle and answers its record (null when it cannot be built).
std::shared_ptr<abd::ABDPlugIn> registeredRecord(const PlugInBundle& bundle, std::string path = {});
/// Installs an application with the plug-in and answers the plug-in's record.
std::shared_ptr<abd::ABDPlugIn> installedRecord(const std::string& place, const PlugInBundle& bundle);

}  // namespace testsupport
