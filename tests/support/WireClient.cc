#include "tests/support/WireClient.h"

#include <gtest/gtest.h>
#include <poll.h>

#include <algorithm>

#include "platform/qmx/Encoding.h"
#include "tests/support/Child.h"
#include "tests/support/DeviceRoot.h"

namespace testsupport {

namespace {

using Clock = std::chrono::steady_clock;
constexpr size_t kHeaderSize = 4;
constexpr int kAnyNesting = 2000;

int millisecondsUntil(Clock::time_point deadline) {
  const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
  return static_cast<int>(std::max<int64_t>(left.count(), 0));
}

uint32_t frameLength(std::string_view header) {
  uint32_t length = 0;
  for (const char c : header.substr(0, kHeaderSize)) length = length << 8 | static_cast<uint8_t>(c);
  return length;
}

}  // namespace

WireClient WireClient::connect(const std::string& socketPath) {
  FileDescriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  const sockaddr_un address = socketAddress(socketPath);
  if (::connect(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
    return WireClient(FileDescriptor());
  return WireClient(std::move(socket));
}

void WireClient::sendBytes(std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t sent = ::send(fd(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
    if (sent <= 0) return;  // the daemon has closed: the reader will see it
    bytes.remove_prefix(static_cast<size_t>(sent));
  }
}

std::string frameBytes(qmx::FrameKind kind, uint64_t id, const Value& body) {
  std::string item = "\x83";
  qmx::encode(static_cast<uint64_t>(kind), item);
  qmx::encode(id, item);
  qmx::encode(body, item);
  std::string frame;
  for (int shift = 24; shift >= 0; shift -= 8)
    frame += static_cast<char>(static_cast<uint8_t>(item.size() >> shift));
  return frame + item;
}

void WireClient::sendFrame(qmx::FrameKind kind, uint64_t id, const Value& body) {
  sendBytes(frameBytes(kind, id, body));
}

uint64_t WireClient::send(const Dictionary& body) {
  sendFrame(qmx::FrameKind::request, ++lastId_, body);
  return lastId_;
}

bool WireClient::fill(Clock::time_point deadline) {
  pollfd waiting{.fd = fd(), .events = POLLIN, .revents = 0};
  if (fd() < 0 || ::poll(&waiting, 1, millisecondsUntil(deadline)) != 1) return false;
  char buffer[65536];
  const ssize_t count = ::recv(fd(), buffer, sizeof buffer, 0);
  if (count <= 0) return false;
  received_.append(buffer, static_cast<size_t>(count));
  return true;
}

std::optional<Frame> WireClient::receive(std::chrono::milliseconds timeout) {
  const auto deadline = Clock::now() + timeout;
  while (received_.size() < kHeaderSize || received_.size() - kHeaderSize < frameLength(received_))
    if (!fill(deadline)) return std::nullopt;
  const size_t length = frameLength(received_);
  const auto* bytes = reinterpret_cast<const uint8_t*>(received_.data()) + kHeaderSize;
  const std::optional<Value> item = qmx::decode({bytes, length}, kAnyNesting);
  received_.erase(0, kHeaderSize + length);
  const Array* parts = item ? item->array() : nullptr;
  if (parts == nullptr || parts->size() != 3) {
    ADD_FAILURE() << "the daemon sent a frame that is no frame";
    return std::nullopt;
  }
  return Frame{.kind = static_cast<qmx::FrameKind>((*parts)[0].unsignedValue()),
               .id = (*parts)[1].unsignedValue(),
               .body = (*parts)[2]};
}

Dictionary WireClient::call(const Dictionary& body) {
  const uint64_t id = send(body);
  const std::optional<Frame> frame = receive();
  if (!frame || frame->kind != qmx::FrameKind::reply || frame->id != id || !frame->body.isDictionary()) {
    ADD_FAILURE() << "no reply to " << Value(body).description();
    return {};
  }
  return *frame->body.dictionary();
}

bool WireClient::isClosedByPeer() {
  pollfd waiting{.fd = fd(), .events = POLLIN, .revents = 0};
  char byte;
  return ::poll(&waiting, 1, millisecondsUntil(Clock::now() + kPatience)) == 1 &&
         ::recv(fd(), &byte, 1, 0) <= 0;
}

bool WireClient::isSilent() {
  pollfd waiting{.fd = fd(), .events = POLLIN, .revents = 0};
  return received_.empty() && ::poll(&waiting, 1, 100) == 0;
}

void WireClient::shutdownSending() {
  ::shutdown(fd(), SHUT_WR);
}

Dictionary message(std::string_view name, const Dictionary& more) {
  return merged({{"request", name}, {"version", 3}}, more);
}

UUID uuidIn(const Value& form) {
  return UUID::fromString(form["uuid"].string().value_or("")).value_or(UUID());
}

Array uuidArray(const std::vector<UUID>& uuids) {
  Array array;
  for (const UUID& each : uuids) array.append(each);
  return array;
}

std::vector<Dictionary> match(WireClient& client, const Value& rules, uint64_t flags) {
  Dictionary body = message("match", {{"flags", flags}});
  if (!rules.isNone()) body.set("rules", rules);
  const Dictionary reply = client.call(body);
  EXPECT_EQ(errorOf(reply), "");
  const EncodedPropertyList* list = reply["matches"].encoded();
  const std::optional<Value> forms = list != nullptr ? qmx::decodePropertyList(*list) : std::nullopt;
  if (!forms || !forms->isArray()) {
    ADD_FAILURE() << "a match reply without forms: " << Value(reply).description();
    return {};
  }
  std::vector<Dictionary> result;
  for (const Value& form : *forms->array()) result.push_back(*form.dictionary());
  return result;
}

UUID uuidOf(WireClient& client, std::string_view identifier) {
  const std::vector<Dictionary> forms =
      match(client, Dictionary{{"ZQExtensionIdentifier", "=" + std::string(identifier)}}, 0x5);
  if (forms.size() != 1) {
    ADD_FAILURE() << forms.size() << " plug-ins named " << identifier;
    return {};
  }
  return uuidIn(forms[0]);
}

std::string identifiers(const std::vector<Dictionary>& forms) {
  std::vector<std::string> names;
  for (const Dictionary& form : forms) names.emplace_back(form["identifier"].string().value_or("?"));
  std::ranges::sort(names);
  std::string joined;
  for (const std::string& name : names) joined += (joined.empty() ? "" : " ") + name;
  return joined;
}

Dictionary formOf(const std::vector<Dictionary>& forms, std::string_view identifier) {
  for (const Dictionary& form : forms)
    if (form["identifier"].string() == identifier) return form;
  ADD_FAILURE() << "no form of " << identifier;
  return {};
}

std::string errorOf(const Dictionary& reply) {
  if (!reply.contains("errorcode") && !reply.contains("error")) return "";
  return std::to_string(reply["errorcode"].unsignedValue()) + ": " +
         std::string(reply["error"].string().value_or("(no text)"));
}

}  // namespace testsupport
