#pragma once

// The real daemon process on a device root, its log, and processes that connect to it from bundles. Child
// processes die with the test. A daemon that ends by itself, or whose log holds a sanitizer's report, fails
// the test.

#include <signal.h>
#include <sys/types.h>
#include <unistd.h>

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tests/support/DeviceRoot.h"
#include "tests/support/WireClient.h"

namespace testsupport {

/// A child process. Its standard error goes to a file.
class Process {
 public:
  /// `standardInput`: a descriptor for the child's standard input and output (that may be another one), or -1
  /// for none.
  Process(const std::vector<std::string>& arguments, const std::vector<std::string>& environment,
          const std::string& errorFile, int standardInput = -1, const std::string& directory = {},
          int standardOutput = -1);
  ~Process();
  Process(const Process&) = delete;
  Process& operator=(const Process&) = delete;

  pid_t pid() const { return pid_; }
  /// Whether it has not ended yet.
  bool isRunning();
  void signal(int number) const;
  /// Kills it (SIGKILL) and waits for its end.
  void kill();
  /// Its exit status (128 and the number of the signal that ended it); -1 when it does not end in time.
  int waitForExit(std::chrono::milliseconds timeout = kPatience);

 private:
  pid_t pid_ = -1;
  int status_ = -1;
};

class Daemon {
 public:
  struct Options {
    std::vector<std::string> arguments = {"-v"};
    std::vector<std::string> environment = {};
    std::string service = "abd.test";
    std::string home = {};  // for state and runtime files, when they shall not be the device's own
  };
  explicit Daemon(const DeviceRoot& root) : Daemon(root, Options()) {}
  Daemon(const DeviceRoot& root, Options options);
  ~Daemon();

  /// Starts it anew and waits until it accepts connections. A fresh log.
  void start();
  /// Ends it without warning, as a crash or a power switch does.
  void kill();
  /// Stops it where it is, until goOn().
  void pause();
  void goOn() { process_->signal(SIGCONT); }
  pid_t pid() const { return process_->pid(); }
  std::string runtime() const {
    return options_.home.empty() ? root_.runtime() : options_.home + "/run/veltra";
  }
  std::string socketPath() const { return runtime() + "/" + options_.service; }
  /// What the service launcher is told about a plug-in that `host` may start.
  std::string launchFile(pid_t host, const UUID& plugIn) const;
  WireClient connect() const { return WireClient::connect(socketPath()); }

  /// The log's entries without their prefixes. What was logged before a reply was sent is there when the
  /// reply arrives.
  std::vector<std::string> log() const;
  size_t logCount(std::string_view text) const;
  bool logs(std::string_view text) const { return logCount(text) > 0; }
  /// Waits until an entry that contains `text` was written `count` times.
  bool waitForLog(std::string_view text, size_t count = 1,
                  std::chrono::milliseconds timeout = kPatience) const;

 private:
  const DeviceRoot& root_;
  const Options options_;
  std::string logFile_;
  int starts_ = 0;
  std::unique_ptr<Process> process_;
};

/// A process that runs from a bundle and passes on what its client says: to the daemon the bundle's process
/// is the peer.
class Host {
 public:
  /// Copies the host program into the bundle at `bundle` (as "main") and starts it from there, if wanted
  /// under a sandbox's filter. It connects to the service that has `suffix` behind the daemon's name.
  Host(const DeviceRoot& root, const Daemon& daemon, const std::string& bundle, bool isConfined = false,
       const std::string& suffix = {});

  WireClient& client() { return *client_; }
  pid_t pid() const { return process_->pid(); }
  void kill() { process_->kill(); }

 private:
  std::unique_ptr<Process> process_;
  std::optional<WireClient> client_;
};

/// Waits until `condition` holds.
template <typename F>
bool eventually(F condition, std::chrono::milliseconds timeout = kPatience) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    usleep(2000);
  }
  return true;
}

}  // namespace testsupport
