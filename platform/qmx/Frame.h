#pragma once

// The envelope of a message on the wire: what stands around the body in a frame. Pure functions; any thread.

#include <cstdint>
#include <optional>
#include <span>
#include <string>

#include "platform/qmx/Message.h"

namespace platform::qmx {

/// Bytes of a frame's length field, big-endian, which does not count itself.
inline constexpr size_t kLengthField = 4;

struct Frame {
  FrameKind kind = FrameKind::message;
  uint64_t id = 0;
  Value body;
};

/// The length that a frame's length field says. REQUIRES: kLengthField bytes.
uint32_t frameLength(const uint8_t* field);
void setFrameLength(char* field, uint32_t length);

/// Reads what follows a length field; none when it is malformed.
std::optional<Frame> decodeFrame(std::span<const uint8_t> contents);

/// Appends the envelope of `message` up to and with the head of its body's map of `count` entries.
void appendEnvelope(std::string& out, FrameKind kind, uint64_t id, size_t count);
/// Appends the heads under which the bytes of an encoded property list of `size` bytes stand.
void appendEncodedHead(std::string& out, size_t size);

}  // namespace platform::qmx
