#pragma once

// A service on a run loop of its own thread, for tests of what stands below the daemon: connections, frames
// and limits. It handles messages as the daemon does: the handler submits each to a service queue, where it
// is answered. A request says in its body what it wants: "sleep" (milliseconds that serving it takes), "size"
// (bytes of an encoded property list in the reply), "cancel"; the reply echoes the rest.

#include <atomic>
#include <chrono>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "platform/qmx/Listener.h"
#include "tests/support/WireClient.h"

namespace testsupport {

class EchoService {
 public:
  /// Listens at once.
  explicit EchoService(std::string name);
  ~EchoService();
  EchoService(const EchoService&) = delete;
  EchoService& operator=(const EchoService&) = delete;

  const std::string& name() const { return name_; }
  WireClient connect() const { return WireClient::connect(qmx::servicePath(name_)); }

  /// What happened so far, one word each: "+" a connection, "m" a message, "!" imminent termination, "?" an
  /// unexpected object, "-" a death; and a request's "tag" when it is served.
  std::string history() const;
  /// Waits until history() has `count` times `word`; false when that takes too long.
  bool waitFor(std::string_view word, size_t count = 1) const;
  /// How many connections the loop and others still refer to.
  size_t livingConnections() const;

  RunLoop loop;

 private:
  void add(std::string_view word);
  void welcome(const std::shared_ptr<qmx::Connection>& connection);
  void handle(const std::weak_ptr<qmx::Connection>& weak, qmx::Event&& event);
  void serve(qmx::Connection& connection, const qmx::Message& request);

  const std::string name_;
  SerialQueue listenerQueue_{"qmx", loop}, serviceQueue_{"service", loop};
  std::unique_ptr<qmx::Listener> listener_;

  mutable std::mutex mutex_;
  // Guarded by mutex_.
  std::vector<std::string> history_;
  std::vector<std::weak_ptr<qmx::Connection>> connections_;

  std::thread thread_;
};

/// An encoded property list (a data value) of exactly `size` bytes, joined from two kept pieces.
EncodedPropertyList encodedOfSize(size_t size);

}  // namespace testsupport
