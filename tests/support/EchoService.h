#pragma once

// A service on a run loop of its own thread, for tests of what stands below the daemon: connections, frames
// and limits. It handles messages as the daemon does: the handler submits each to a service queue, where it
// is answered. A request says in its body what it wants: "sleep" (milliseconds that serving it takes), "size"
// (bytes of an encoded property list in the reply); the reply echoes the rest.

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "platform/qmx/Listener.h"
#include "tests/support/Daemon.h"

namespace testsupport {

/// An encoded property list (whose contents nobody reads) of exactly `size` bytes, joined from two kept
/// pieces.
inline EncodedPropertyList encodedOfSize(size_t size) {
  const Data front(std::string(size / 2, 'a')), rest(std::string(size - size / 2, 'b'));
  return EncodedPropertyList({{front, front.bytes()}, {rest, rest.bytes()}});
}

class EchoService {
 public:
  /// Listens at once.
  explicit EchoService(const std::string& name)
      : name_(name), listener_(std::get<0>(qmx::Listener::create(name, listenerQueue_, loop))) {
    listener_->setConnectionHandler(
        [this](const std::shared_ptr<qmx::Connection>& connection) { welcome(connection); });
    EXPECT_FALSE(listener_->resume());
    thread_ = std::jthread([this] { loop.run(); });
  }
  ~EchoService() { loop.stop(); }

  WireClient connect() const { return WireClient::connect(qmx::servicePath(name_)); }

  /// What happened so far, one word each: "+" a connection, "m" a message, "!" imminent termination,
  /// "-" a death; and a request's "tag" when it is served.
  std::string history() const {
    const std::lock_guard lock(mutex_);
    std::string all;
    for (const std::string& word : history_) all += word;
    return all;
  }
  /// Waits until history() has `count` times `word`; false when that takes too long.
  bool waitFor(std::string_view word, size_t count = 1) const {
    return eventually([&] {
      const std::lock_guard lock(mutex_);
      return static_cast<size_t>(std::ranges::count(history_, word)) >= count;
    });
  }
  RunLoop loop;

 private:
  void add(std::string_view word) {
    const std::lock_guard lock(mutex_);
    history_.emplace_back(word);
  }

  void welcome(const std::shared_ptr<qmx::Connection>& connection) {
    add("+");
    connection->setEventHandler(
        [this, weak = std::weak_ptr(connection)](qmx::Event&& event) { handle(weak, std::move(event)); });
    connection->resume();
  }

  void handle(const std::weak_ptr<qmx::Connection>& weak, qmx::Event&& event) {
    const auto* error = std::get_if<qmx::ConnectionError>(&event);
    if (error != nullptr) return add(*error == qmx::ConnectionError::terminationImminent ? "!" : "-");
    add("m");
    serviceQueue_.async([this, weak, request = std::get<qmx::Message>(std::move(event))] {
      if (const auto connection = weak.lock()) serve(*connection, request);
    });
  }

  void serve(qmx::Connection& connection, const qmx::Message& request) {
    if (const String* tag = request.string("tag")) add(*tag);
    std::this_thread::sleep_for(std::chrono::milliseconds(request.unsignedValue("sleep")));
    if (!request.wantsReply()) return;
    qmx::Message reply = request.createReply();
    reply.body = request.body;
    if (const uint64_t size = request.unsignedValue("size")) reply.body.set("list", encodedOfSize(size));
    connection.send(std::move(reply));
  }

  const std::string name_;
  SerialQueue listenerQueue_{"qmx", loop}, serviceQueue_{"service", loop};
  std::unique_ptr<qmx::Listener> listener_;

  mutable std::mutex mutex_;
  std::vector<std::string> history_;  // guarded by mutex_

  std::jthread thread_;  // ends first
};

}  // namespace testsupport
