#pragma once

// The ten static trace probes of provider "abd", one function each. A probe that no tracer has enabled costs
// a test of its semaphore; texts that exist only for a probe are built only while it is enabled. Any thread.

#include <cstdint>
#include <optional>
#include <string>

#include "platform/value/UUID.h"

namespace abd::trace {

void clientNew(int32_t pid);
void clientDone(int32_t pid);
bool requestIsEnabled();
/// `name` is none when the request has none.
void request(int32_t pid, const std::optional<std::string>& name);
void pluginAdd(const std::string& resolvedPath);
void pluginRemove(const std::string& path, bool resolved);
void pluginReady(const platform::UUID& uuid);
void discoverRaw(uint32_t candidates);
void dbLoad(const std::string& domain, uint64_t code);

bool requestInputIsEnabled();
void requestInput(int32_t pid, const std::string& message);
bool requestOutputIsEnabled();
void requestOutput(int32_t pid, const std::string& reply);

}  // namespace abd::trace
