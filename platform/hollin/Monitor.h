#pragma once

// Notices what changes on disk while the process runs, on a thread of its own: installs, removals and edits
// of bundles, roots that appear late, bundles registered by path, SDKs. What is being written is taken when
// it is quiet. When events or watches are lost it looks at everything again. Lives as long as its registry.

#include <atomic>
#include <chrono>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

#include "platform/hollin/Registrar.h"
#include "platform/hollin/Watches.h"

namespace platform::hollin {

/// Nothing may have happened to a bundle for this long before it is read.
inline constexpr std::chrono::milliseconds kQuietPeriod{300};
/// Longest time that something is waited for which never becomes quiet.
inline constexpr std::chrono::seconds kLongestWait{30};
/// SDKs are single files: they are read soon after the last event, also while they are being written.
inline constexpr std::chrono::milliseconds kShortPeriod{50};
inline constexpr std::chrono::seconds kLongestWaitForSDKs{1};
/// How often everything is looked at when watches ran out.
inline constexpr std::chrono::seconds kRescanInterval{2};

class Monitor {
 public:
  /// All outlive this.
  Monitor(const Directories& directories, Catalog& catalog, Registrar& registrar)
      : directories_(directories), catalog_(catalog), registrar_(registrar) {}
  /// Ends the thread.
  ~Monitor();
  Monitor(const Monitor&) = delete;
  Monitor& operator=(const Monitor&) = delete;

  /// Begins watching, and looks at everything once more: what changed since the scan at start is found. Then
  /// makes data containers of the plug-ins that were registered at start. Once.
  void start(std::vector<std::shared_ptr<const PlugInProxy>> registered);
  /// What is registered by path changed. Any thread.
  void registrationsChanged();
  /// Fills in what is watched. Any thread.
  void count(HLRegistryStatistics& statistics) const;

 private:
  using Clock = std::chrono::steady_clock;
  struct Pending {
    Clock::time_point since, due;
  };
  /// Entries that a scan came to.
  using Visited = std::unordered_map<std::string, Subject*>;
  using PendingPaths = std::unordered_map<std::string, Pending>;

  void run();
  void wait();
  void readEvents();
  void handle(Subject& subject, std::string_view name, bool isOnTheWay);
  void work();
  void mark(PendingPaths& pending, const std::string& path);
  void markSDKs();
  void schedule(std::optional<Clock::time_point>& due, Clock::duration delay);
  std::optional<Clock::time_point> nextDue() const;
  std::vector<std::string> takeDue(PendingPaths& pending);

  void lookAtEverything();
  void refreshSDKs();
  void watchPlaces();
  void watchRegistered();
  void collectRegistered();
  void watchBundle(Subject& subject);
  void watchNamed(Subject& subject, const std::string& bundle);
  void scanEverything();
  void scanEntries(const std::vector<std::string>& entries);
  void lookAtRegistered(const std::vector<std::string>& paths);
  void takeReport(Registrar::Report report);
  bool isBusy(const std::string& path);
  void visit(Scanner::Way way, const std::string& path, const std::string& entry, Visited& visited);
  Subject& subjectOf(Subject::Kind kind, const std::string& path);
  void drop(Subject& subject);
  void endVigil(const std::string& entry);
  void endVigils();
  static void beginVigil(const Subject& subject);
  void judgeExhaustion();

  const Directories& directories_;
  Catalog& catalog_;
  Registrar& registrar_;

  FileDescriptor wake_;    // eventfd
  FileDescriptor mounts_;  // proc(5): what is mounted over a directory is no event of the file system
  std::atomic<bool> isStopping_{false}, haveRegistrationsChanged_{false};
  std::atomic<bool> isPeriodic_{false};  // watches ran out
  std::atomic<Date> lastScan_{Date()};
  std::thread thread_;

  // Only on the thread.
  std::vector<std::shared_ptr<const PlugInProxy>> registeredAtStart_;
  Watches watches_;
  std::unordered_map<std::string, std::unique_ptr<Subject>> places_, entries_, registered_;  // by path
  PendingPaths pendingEntries_, pendingRegistered_;
  std::unordered_map<std::string, Clock::time_point> busySince_;
  std::optional<Clock::time_point> everythingDue_;
  std::optional<Pending> pendingSDKs_;
};

}  // namespace platform::hollin
