#pragma once

// Frames that wait to be sent on one connection, as a list of byte ranges: small parts are joined in buffers
// of its own, large encoded property lists are shared with whoever made them and written from where they lie.
// One thread at a time.

#include <cstddef>
#include <cstdint>
#include <string>

#include "platform/qmx/Message.h"
#include "platform/queue/Fifo.h"

struct iovec;

namespace platform::qmx {

class OutputQueue {
 public:
  enum class Outcome : uint8_t {
    everything,  // nothing is left
    more,        // enough for one go; the socket may take more
    blocked,     // the socket takes no more for now
    failed,      // the peer will never take it
  };

  OutputQueue() = default;
  OutputQueue(OutputQueue&&) = default;
  OutputQueue& operator=(OutputQueue&&) = default;

  bool empty() const { return size_ == 0; }
  /// Unsent bytes.
  size_t size() const { return size_; }

  /// Appends the frame of `message`. False: it is longer than a frame can be; nothing was appended.
  bool append(const Message& message);
  /// Takes all of `other`, which is empty afterwards.
  void append(OutputQueue&& other);
  /// Writes to the non-blocking stream socket `fd`.
  Outcome write(int fd);
  /// Bytes that are gone in all, written or dropped.
  uint64_t written() const { return written_; }
  void clear();

 private:
  /// Either bytes of its own or a shared list.
  struct Segment {
    std::string bytes;
    EncodedPropertyList list;
    size_t size() const { return bytes.empty() ? list.size() : bytes.size(); }
  };
  std::string& ownBytes();
  void appendList(const EncodedPropertyList& list, std::string& head);
  size_t gather(iovec* parts, size_t most) const;
  void drop(size_t count);
  void dropFront();

  Fifo<Segment> segments_;
  // Where the first unsent byte is: in the first segment, and when that is a list, in that piece of it.
  size_t piece_ = 0, offset_ = 0;
  size_t size_ = 0;
  uint64_t written_ = 0;
  /// Storage for the next segment of own bytes.
  std::string spare_;
};

}  // namespace platform::qmx
