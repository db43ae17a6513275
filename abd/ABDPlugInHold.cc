#include "abd/ABDPlugInHold.h"

#include "abd/plugin/ABDPlugIn.h"

namespace abd {

size_t ABDPlugInHold::SamePlugIn::operator()(const std::shared_ptr<ABDPlugIn>& plugIn) const {
  return plugIn->hash();
}

bool ABDPlugInHold::SamePlugIn::operator()(const std::shared_ptr<ABDPlugIn>& a,
                                           const std::shared_ptr<ABDPlugIn>& b) const {
  return a->isEqual(b.get());
}

ABDPlugInHold::ABDPlugInHold(const PlugIns& plugIns, const std::shared_ptr<ABDQmxClient>& client)
    : blocked_(plugIns.begin(), plugIns.end()), client_(client) {}

}  // namespace abd
