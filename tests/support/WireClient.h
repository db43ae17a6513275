#pragma once

// A client of the daemon made of nothing but a socket: it frames messages itself and can send anything, right
// or wrong. Every wait is bounded; what does not come in time fails the test.

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/qmx/Message.h"
#include "platform/system/FileDescriptor.h"
#include "platform/value/Value.h"

namespace testsupport {

using namespace platform;

/// Far beyond anything that a healthy daemon takes.
inline constexpr std::chrono::seconds kPatience{30};

struct Frame {
  qmx::FrameKind kind = qmx::FrameKind::message;
  uint64_t id = 0;
  Value body;
};

class WireClient {
 public:
  static WireClient connect(const std::string& socketPath);
  /// Takes over a connected stream socket.
  explicit WireClient(FileDescriptor socket) : socket_(std::move(socket)) {}

  int fd() const { return socket_.get(); }
  void sendBytes(std::string_view bytes);
  void sendFrame(qmx::FrameKind kind, uint64_t id, const Value& body);
  /// Sends a request and answers its id.
  uint64_t send(const Dictionary& body);
  /// The next frame, or none when the stream ended or nothing came in time.
  std::optional<Frame> receive(std::chrono::milliseconds timeout = kPatience);
  /// Sends a request and answers the body of its reply.
  Dictionary call(const Dictionary& body);
  /// Whether the daemon closes the stream (without sending anything more).
  bool isClosedByPeer();
  /// Nothing arrives for a moment, and the stream stays open.
  bool isSilent();
  void shutdownSending();
  void close() { socket_ = FileDescriptor(); }

 private:
  bool fill(std::chrono::steady_clock::time_point deadline);
  FileDescriptor socket_;
  std::string received_;
  uint64_t lastId_ = 0;
};

/// The bytes of one frame.
std::string frameBytes(qmx::FrameKind kind, uint64_t id, const Value& body);
/// A request's body of version 3.
Dictionary message(std::string_view name, const Dictionary& more = {});
/// The UUID that a form says.
UUID uuidIn(const Value& form);
Array uuidArray(const std::vector<UUID>& uuids);

/// The forms that a "match" finds; the request has to succeed.
std::vector<Dictionary> match(WireClient& client, const Value& rules = {}, uint64_t flags = 0);
/// The UUID of the one plug-in with that identifier.
UUID uuidOf(WireClient& client, std::string_view identifier);
/// Identifiers of forms, sorted and joined by blanks.
std::string identifiers(const std::vector<Dictionary>& forms);
/// The form with that identifier, or an empty one.
Dictionary formOf(const std::vector<Dictionary>& forms, std::string_view identifier);

/// "code: text" of an error reply, "" of a success.
std::string errorOf(const Dictionary& reply);

}  // namespace testsupport
