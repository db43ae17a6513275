#pragma once

// The program for which a request is answered: its bundle, its entitlements and the settings, as that one
// request sees them. A connected peer is one (ABDQmxClient); a diagnosis makes one of another peer, or of a
// bundle whose program need not run. On the service queue.

#include <sys/types.h>

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "Ambrel/ABBundle.h"
#include "abd/RequestSettings.h"
#include "abd/plugin/Rules.h"
#include "platform/qmx/PeerIdentity.h"
#include "platform/security/CodeSigning.h"
#include "platform/value/Value.h"

namespace abd {

using namespace platform;
using namespace ambrel;

class RequestHost {
 public:
  explicit RequestHost(const std::shared_ptr<const qmx::PeerIdentity>& peer);
  /// The program of the bundle at a canonical `path`.
  explicit RequestHost(const std::string& path);
  /// The same program, for a request that asks anew.
  RequestHost(const RequestHost& other);
  RequestHost& operator=(const RequestHost&) = delete;

  /// 0 when it is no process.
  pid_t pid() const { return pid_; }
  /// Null when the peer's executable is unknown.
  const std::shared_ptr<ABBundle>& bundle() const { return bundle_; }
  /// "PATH (pid N)" of its bundle, as far as that is known.
  std::string name() const;

  /// What the last request has asked for is asked anew.
  void beginRequest();
  /// The value of one entitlement of the program, or a none value. Asked once for each request that wants to
  /// know. When the question fails (the process is gone or runs another image, the entitlements cannot be
  /// read) it has none, but the restriction of the plug-ins that it may use stays what it was when it was
  /// known last, the first time when the peer connected.
  Value entitlementValueForKey(std::string_view key);
  /// Whether the program has the entitlement with a value that is not equal to false.
  bool hasEntitlement(std::string_view key);
  /// The settings as the current request sees them.
  RequestSettings& settings() { return settings_; }
  /// The program's own restriction, `rules`, taken apart once for each request.
  const Rules& restriction(const Dictionary& rules);

 private:
  const pid_t pid_ = 0;
  const std::shared_ptr<ABBundle> bundle_;
  const std::shared_ptr<const CodeSigningTask> task_;
  Value lastRestriction_;  // entitlement::allowedPlugIns, as it was known last

  // What this request has asked for.
  std::vector<std::pair<std::string, Value>> entitlements_;
  RequestSettings settings_;
  std::unique_ptr<const Rules> restriction_;
};

}  // namespace abd
