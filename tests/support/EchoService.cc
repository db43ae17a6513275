#include "tests/support/EchoService.h"

#include <gtest/gtest.h>

#include <algorithm>

#include "platform/value/Error.h"
#include "tests/support/Daemon.h"

namespace testsupport {

EncodedPropertyList encodedOfSize(size_t size) {
  // A byte string with a four-byte length.
  constexpr size_t kHead = 5;
  std::string first = "\x5a";
  for (int shift = 24; shift >= 0; shift -= 8) first += static_cast<char>((size - kHead) >> shift);
  first.resize(size / 2, 'a');
  const Data front{std::string_view(first)}, rest{std::string_view(std::string(size - first.size(), 'b'))};
  return EncodedPropertyList({{front, front.bytes()}, {rest, rest.bytes()}});
}

EchoService::EchoService(std::string name) : name_(std::move(name)) {
  auto listener = qmx::Listener::create(name_, listenerQueue_, loop);
  if (const auto* error = std::get_if<Error>(&listener)) {
    ADD_FAILURE() << error->description();
    return;
  }
  listener_ = std::move(std::get<std::unique_ptr<qmx::Listener>>(listener));
  listener_->setConnectionHandler(
      [this](const std::shared_ptr<qmx::Connection>& connection) { welcome(connection); });
  EXPECT_FALSE(listener_->resume());
  thread_ = std::thread([this] { loop.run(); });
}

EchoService::~EchoService() {
  loop.stop();
  if (thread_.joinable()) thread_.join();
}

void EchoService::add(std::string_view word) {
  const std::lock_guard lock(mutex_);
  history_.emplace_back(word);
}

std::string EchoService::history() const {
  const std::lock_guard lock(mutex_);
  std::string all;
  for (const std::string& word : history_) all += word;
  return all;
}

bool EchoService::waitFor(std::string_view word, size_t count) const {
  return eventually([&] {
    const std::lock_guard lock(mutex_);
    return static_cast<size_t>(std::ranges::count(history_, word)) >= count;
  });
}

size_t EchoService::livingConnections() const {
  const std::lock_guard lock(mutex_);
  return static_cast<size_t>(
      std::ranges::count_if(connections_, [](const auto& each) { return !each.expired(); }));
}

void EchoService::welcome(const std::shared_ptr<qmx::Connection>& connection) {
  {
    const std::lock_guard lock(mutex_);
    history_.emplace_back("+");
    connections_.push_back(connection);
  }
  connection->setEventHandler(
      [this, weak = std::weak_ptr(connection)](qmx::Event&& event) { handle(weak, std::move(event)); });
  connection->resume();
}

void EchoService::handle(const std::weak_ptr<qmx::Connection>& weak, qmx::Event&& event) {
  if (auto* message = std::get_if<qmx::Message>(&event)) {
    add("m");
    serviceQueue_.async([this, weak, request = std::move(*message)] {
      if (const auto connection = weak.lock()) serve(*connection, request);
    });
  } else if (const auto* error = std::get_if<qmx::ConnectionError>(&event)) {
    add(*error == qmx::ConnectionError::terminationImminent ? "!" : "-");
  } else {
    add("?");
  }
}

void EchoService::serve(qmx::Connection& connection, const qmx::Message& request) {
  if (const String* tag = request.string("tag")) add(*tag);
  if (request.body.contains("cancel")) return connection.cancel();
  std::this_thread::sleep_for(std::chrono::milliseconds(request.unsignedValue("sleep")));
  if (!request.wantsReply()) return;
  qmx::Message reply = request.createReply();
  reply.body = request.body;
  if (const uint64_t size = request.unsignedValue("size")) reply.body.set("list", encodedOfSize(size));
  connection.send(std::move(reply));
}

}  // namespace testsupport
