#include "abd/ABDTrace.h"

#include "platform/system/Probes.h"

PLATFORM_DEFINE_PROBE(abd, client__new);
PLATFORM_DEFINE_PROBE(abd, client__done);
PLATFORM_DEFINE_PROBE(abd, request__input);
PLATFORM_DEFINE_PROBE(abd, request);
PLATFORM_DEFINE_PROBE(abd, request__output);
PLATFORM_DEFINE_PROBE(abd, plugin__add);
PLATFORM_DEFINE_PROBE(abd, plugin__remove);
PLATFORM_DEFINE_PROBE(abd, plugin__ready);
PLATFORM_DEFINE_PROBE(abd, discover__raw);
PLATFORM_DEFINE_PROBE(abd, db__load);

namespace abd::trace {

void clientNew(int32_t pid) {
  PLATFORM_PROBE1(abd, client__new, pid);
}

void clientDone(int32_t pid) {
  PLATFORM_PROBE1(abd, client__done, pid);
}

bool requestInputIsEnabled() {
  return PLATFORM_PROBE_ENABLED(abd, request__input);
}

void requestInput(int32_t pid, const std::string& message) {
  PLATFORM_PROBE2(abd, request__input, pid, message.c_str());
}

bool requestIsEnabled() {
  return PLATFORM_PROBE_ENABLED(abd, request);
}

void request(int32_t pid, const std::optional<std::string>& name) {
  PLATFORM_PROBE2(abd, request, pid, name ? name->c_str() : nullptr);
}

bool requestOutputIsEnabled() {
  return PLATFORM_PROBE_ENABLED(abd, request__output);
}

void requestOutput(int32_t pid, const std::string& reply) {
  PLATFORM_PROBE2(abd, request__output, pid, reply.c_str());
}

void pluginAdd(const std::string& resolvedPath) {
  PLATFORM_PROBE1(abd, plugin__add, resolvedPath.c_str());
}

void pluginRemove(const std::string& path, bool resolved) {
  const int isResolved = resolved ? 1 : 0;
  PLATFORM_PROBE2(abd, plugin__remove, path.c_str(), isResolved);
}

void pluginReady(const platform::UUID& uuid) {
  if (PLATFORM_PROBE_ENABLED(abd, plugin__ready)) PLATFORM_PROBE1(abd, plugin__ready, uuid.string().c_str());
}

void discoverRaw(uint32_t candidates) {
  PLATFORM_PROBE1(abd, discover__raw, candidates);
}

void dbLoad(const std::string& domain, uint64_t code) {
  PLATFORM_PROBE2(abd, db__load, domain.c_str(), code);
}

}  // namespace abd::trace
