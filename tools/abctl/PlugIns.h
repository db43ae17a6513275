#pragma once

// Plug-ins as people name them and as tables show them. Main thread.

#include <optional>
#include <string>
#include <vector>

#include "platform/value/UUID.h"
#include "platform/value/Value.h"
#include "tools/abctl/Daemon.h"
#include "tools/abctl/Terminal.h"

namespace abctl {

/// Whether there is any plug-in in the application at this path, offered to hosts or not; true also when this
/// abctl may not see those that are not offered.
bool mayHavePlugIns(Daemon& daemon, const std::string& application);

/// The plug-ins that `name` means, as forms: one for a UUID; for an identifier the one that hosts would get;
/// for a path every plug-in of the bundle there. Plug-ins that are offered to nobody (held ones, for example)
/// are found when abctl may see them. Throws Failure (nothing found) when there is none.
std::vector<platform::Dictionary> findPlugIns(Daemon& daemon, const std::string& name);

/// The UUIDs that the names mean, each once, in their order. A name that is a UUID is taken as it is.
std::vector<platform::UUID> findUUIDs(Daemon& daemon, const std::vector<std::string>& names);

/// Whether `name` is to be read as a path.
bool isPath(const std::string& name);

/// `path` made absolute; what exists of it without links and dots.
std::string absolutePath(const std::string& path);

// Facts of a form for people; empty where the form does not say.
std::string text(const platform::Dictionary& form, const char* key);
std::string nameOf(const platform::Dictionary& form);
std::string applicationOf(const platform::Dictionary& form);
std::string extensionPointOf(const platform::Dictionary& form);
int64_t electionOf(const platform::Dictionary& form);
/// A time for people, in their time zone.
std::string timeText(int64_t secondsSince1970);
/// "use", "ignore", "-" or the number.
std::string electionText(int64_t election);
Style electionStyle(int64_t election);

/// The table of plug-ins.
std::string plugInTable(const std::vector<platform::Dictionary>& forms, const Screen& screen);

}  // namespace abctl
