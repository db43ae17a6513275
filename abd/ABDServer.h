#pragma once

// The daemon's one server: the plug-in database and its delegate, the daemon's queues, the listener, the
// hold list and the two logging operations. Made by the process's entry before any queue has work; lives as
// long as the process.

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "abd/Statistics.h"
#include "abd/database/ABDUserPrefs.h"
#include "abd/database/ABDatabase.h"
#include "platform/log/Format.h"
#include "platform/qmx/Listener.h"
#include "platform/queue/SerialQueue.h"
#include "platform/value/UUID.h"

namespace abd {

class ABDPlugIn;
class ABDPlugInHold;
class ABDQmxClient;

class ABDServer : public ABDatabase, public ABDatabaseDelegate {
 public:
  /// initForService:database:. Null, with the reason logged, when the registry or the service's socket cannot
  /// be had; without the diagnostics service it goes on. `database` is the annotation file's path; none: the
  /// default location.
  static std::shared_ptr<ABDServer> initForService(const std::string& service,
                                                   const std::optional<std::string>& database);
  /// The singleton; null before the first initialisation.
  static const std::shared_ptr<ABDServer>& server();
  /// Ends the singleton's reference.
  static void releaseServer();
  ~ABDServer() override;

  /// Resumes the listener, tells those who look for plug-ins, and runs the main run loop.
  void run();

  uint32_t verbose() const { return verbose_; }
  /// REQUIRES: run() was not called yet.
  void setVerbose(uint32_t verbose) { verbose_ = verbose; }
  SerialQueue& qmxQueue() { return qmxQueue_; }
  SerialQueue& mainQueue() { return mainQueue_; }
  SerialQueue& syncQueue() { return syncQueue_; }
  qmx::Listener& service() { return *service_; }
  const std::string& serviceName() const { return serviceName_; }
  ABDUserPrefs& userPrefs() { return *userPrefs_; }
  /// Only on the service queue.
  Statistics& statistics() { return statistics_; }

  /// From this verbosity on every message and every reply is written out in full.
  static constexpr uint32_t kVerboseMessages = 2;
  static constexpr int32_t kLogLevel = 5;    // syslog's notice
  static constexpr int32_t kDebugLevel = 6;  // syslog's info

  /// Writes one entry to the system log.
  template <typename... Args>
  void log(Format<Args...> text, const Args&... args) {
    logArguments(kLogLevel, text.text(), args...);
  }
  /// The same, but only when `verbose` is not 0; otherwise nothing is formatted.
  template <typename... Args>
  void debug(Format<Args...> text, const Args&... args) {
    if (verbose_ != 0) logArguments(kDebugLevel, text.text(), args...);
  }
  /// log:format:arguments:. The level travels with the call and changes nothing of what is written.
  void log(int32_t level, std::string_view text, std::span<const FormatArgument> arguments);

  /// Queues `work` on the service queue.
  void submitWork(SerialQueue::Work work) { mainQueue_.async(std::move(work)); }

  // The hold list. From any queue but "serverSync", which each of these enters.

  /// All, in no order.
  std::vector<std::shared_ptr<ABDPlugInHold>> holds();
  /// Whether a live hold blocks the plug-in.
  bool holdOnPlugIn(const ABDPlugIn& plugIn);
  /// The holds that do. Looks at all.
  std::vector<std::shared_ptr<ABDPlugInHold>> holdsOnPlugIn(const ABDPlugIn& plugIn);
  struct Held {
    size_t holds, plugIns;  // one that is in two holds counts twice
  };
  /// How much the client holds.
  Held heldBy(const ABDQmxClient& client);
  /// Plug-ins that a request found free of holds and enables: keeps holds on them from being granted
  /// meanwhile. Only on the service queue.
  class Enabling {
   public:
    using PlugIns = std::vector<std::shared_ptr<ABDPlugIn>>;
    /// Both outlive this; the list may grow.
    Enabling(ABDServer& server, const PlugIns& plugIns);
    ~Enabling();
    Enabling(const Enabling&) = delete;
    Enabling& operator=(const Enabling&) = delete;

   private:
    ABDServer& server_;
    const PlugIns& plugIns_;
  };
  /// Whether some of the hold's plug-ins are being enabled. Only on the service queue.
  bool isEnabling(const ABDPlugInHold& hold) const;
  /// Takes up a new hold. One whose client has died meanwhile is released at once.
  void addHold(const std::shared_ptr<ABDPlugInHold>& hold);
  /// Releases the hold with that token; an unknown token is ignored.
  void unholdToken(const UUID& token);
  /// Releases every hold of the client, and every one that is still to come.
  void unholdClient(ABDQmxClient& client);

  /// A connected client of that process, or null. On the service queue.
  std::shared_ptr<ABDQmxClient> clientOf(pid_t pid) const;
  /// Those that are connected to the main service, in no order. On the service queue.
  std::vector<std::shared_ptr<ABDQmxClient>> clients() const;

  /// Has the service launcher forget uninstalled plug-ins. Any thread.
  void removedPlugIns(const HLProxyList& proxies) override;

 private:
  friend class ABDQmxClient;  // lists itself
  ABDServer() = default;
  void openDiagnostics(const std::string& service);
  void installConnectionHandlers();
  template <typename... Args>
  void logArguments(int32_t level, std::string_view text, const Args&... args) {
    const FormatArgument arguments[] = {FormatArgument(args)..., FormatArgument(0)};
    log(level, text, std::span(arguments, sizeof...(Args)));
  }

  void removeHold(const ABDPlugInHold& hold);
  void releaseHoldsOfDeadClient(ABDQmxClient& client);

  // Set before the first request.
  uint32_t verbose_ = 0;
  SerialQueue qmxQueue_{"qmx", RunLoop::main()};
  SerialQueue mainQueue_{"service", RunLoop::main(), QualityOfService::userInitiated};
  SerialQueue syncQueue_{"serverSync", RunLoop::main()};
  std::string serviceName_;
  std::unique_ptr<qmx::Listener> service_;
  std::unique_ptr<qmx::Listener> diagnostics_;  // null where its socket cannot be had
  std::unique_ptr<ABDUserPrefs> userPrefs_;

  // Only on the service queue.
  Statistics statistics_;
  std::vector<const Enabling::PlugIns*> enabling_;

  // Only on the main run loop.
  std::unordered_set<ABDQmxClient*> clients_;  // that are connected to the main service

  // Only on "serverSync".
  std::unordered_map<UUID, std::shared_ptr<ABDPlugInHold>> holds_;  // by token
  std::unordered_map<UUID, uint32_t> blockedPlugIns_;               // how many of holds_ block each plug-in
};

}  // namespace abd
