#pragma once

// Where each key of a plug-in's merged Info dictionary comes from: worked out from the files as the daemon
// does. Main thread.

#include "platform/value/Value.h"
#include "tools/abctl/Terminal.h"
#include "tools/abctl/Trial.h"

namespace abctl {

/// A table for people. REQUIRES: the plug-in has a record.
void printOrigins(const Screen& screen, const Trial::PlugIn& plugIn);

/// The same for programs.
platform::Dictionary dictionaryOfOrigins(const Trial::PlugIn& plugIn);

}  // namespace abctl
