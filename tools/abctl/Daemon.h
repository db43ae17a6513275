#pragma once

// The daemon as the commands see it: each call sends one request and waits for its answer; what goes wrong is
// thrown as a Failure with the right exit code. Main thread; lives as long as the command.

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "Ambrel/ABDaemonClient.h"
#include "platform/qmx/Message.h"
#include "platform/system/FileDescriptor.h"
#include "platform/value/UUID.h"
#include "platform/value/Value.h"
#include "tools/abctl/Commands.h"

namespace abctl {

class Daemon {
 public:
  /// Throws when no daemon can be reached under the service's name.
  /// A question to it is given up when `stopDescriptor` becomes readable.
  explicit Daemon(const Context& context, int stopDescriptor = -1) : Daemon(context, "", stopDescriptor) {}
  /// The service of the daemon that has this behind its name.
  Daemon(const Context& context, const char* suffix, int stopDescriptor = -1);
  ~Daemon();
  Daemon(const Daemon&) = delete;
  Daemon& operator=(const Daemon&) = delete;

  /// The forms of the plug-ins found, sorted by identifier, then newest version first.
  std::vector<platform::Dictionary> match(const platform::Dictionary& rules, uint64_t flags);
  /// Of the diagnostics service: an explanation for each plug-in that the request names.
  std::vector<platform::Dictionary> explain(const platform::Dictionary& request);
  /// Of the diagnostics service: what the daemon does and has done.
  platform::Dictionary status();
  void add(const std::vector<std::string>& paths);
  void remove(const std::vector<std::string>& paths);
  void bulk(uint64_t flags);
  void ready(const std::vector<platform::UUID>& uuids);
  /// One read token per UUID, in their order.
  std::vector<std::string> access(const std::vector<platform::UUID>& uuids);
  void annotate(const std::vector<platform::UUID>& uuids, const platform::Dictionary& annotations);
  /// The hold's token. A refusal because of busy plug-ins carries "conflicts" in the Failure's details.
  platform::UUID hold(const std::vector<std::string>& paths, uint64_t flags);
  void release(const platform::UUID& token);

 private:
  using Reply = ambrel::ABDaemonClient::Reply;
  /// Where a reply arrives; shared with the closure, which may outlive a wait that timed out.
  struct Slot {
    Slot();
    platform::FileDescriptor arrived;
    std::mutex mutex;
    std::optional<Reply> reply;
  };
  /// `pathHint` is what to do when the daemon finds a path wrong.
  std::vector<platform::Dictionary> dictionariesOf(const platform::Value& list) const;
  template <typename Send>
  platform::Dictionary ask(Send&& send, const char* pathHint = "");
  platform::Dictionary wait(Slot& slot);

  const std::string service_;
  const double timeoutSeconds_;
  const int stopDescriptor_;
  std::unique_ptr<ambrel::ABDaemonClient> client_;
};

}  // namespace abctl
