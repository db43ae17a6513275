#pragma once

// The plug-ins of a bundle as the daemon would make them, made here: by its own code, without a daemon, and
// without leaving anything behind. Main thread.

#include <memory>
#include <string>
#include <vector>

#include "Ambrel/ABRecordTrace.h"
#include "abd/plugin/ABDPlugIn.h"
#include "platform/hollin/BundleFacts.h"

namespace abctl {

struct Trial {
  struct PlugIn {
    platform::String identifier;
    std::shared_ptr<const abd::ABDPlugIn> record;  // null: refused; the trace has the reason
    ambrel::ABRecordTrace trace;
  };

  /// Of the bundle at the canonical `path`. The log is silent from then on.
  explicit Trial(const std::string& path);

  std::shared_ptr<const platform::hollin::BundleFacts> facts;
  std::vector<PlugIn> plugIns;  // empty when the bundle is refused: the facts have the reason
};

/// The file that the record's SDK was read from; "" when there was none.
std::string sdkFile(const abd::ABDPlugIn& record);

}  // namespace abctl
