#pragma once

// One message of the service: a dictionary of typed values and how it is answered. Plain values; any thread.

#include <cstdint>
#include <string>

#include "platform/value/Value.h"

#pragma GCC visibility push(default)

namespace platform::qmx {

/// First element of a frame.
enum class FrameKind : uint8_t { message = 0, request = 1, reply = 2 };

struct Message {
  Dictionary body;
  FrameKind kind = FrameKind::message;
  uint64_t id = 0;

  bool wantsReply() const { return kind == FrameKind::request; }
  /// The reply dictionary of a request, empty and already addressed. REQUIRES: wantsReply().
  Message createReply() const { return Message{.body = {}, .kind = FrameKind::reply, .id = id}; }

  /// The whole message for people; encoded property lists are written out.
  std::string description() const;

  // Typed reading: a value of another type counts as absent (integers as 0). Negative integers read as 0.
  uint64_t unsignedValue(std::string_view key) const;
  const String* string(std::string_view key) const { return body[key].sharedString(); }
};

}  // namespace platform::qmx

#pragma GCC visibility pop
