#pragma once

// Cuts a stream of bytes into frames. Bytes are read into its own storage and frames are handed out in place.
// Storage grows as bytes arrive, never because a length field says so; an empty reader has none, so idle
// connections cost nothing (storage of the usual size is kept for the next reader of the same thread). One
// thread at a time.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <span>

namespace platform::qmx {

class FrameReader {
 public:
  /// `largestFrame`: a longer frame is refused when its length field has arrived. `keptStorage`: how many
  /// bytes of storage an empty reader keeps for itself.
  FrameReader(uint32_t largestFrame, size_t keptStorage)
      : largestFrame_(largestFrame), keptStorage_(keptStorage) {}
  ~FrameReader() { release(); }
  FrameReader(const FrameReader&) = delete;
  FrameReader& operator=(const FrameReader&) = delete;

  /// Where the next bytes go; never empty.
  std::span<uint8_t> space();
  /// `count` bytes were written to the front of space().
  void received(size_t count);
  /// Forgets everything that has arrived.
  void reset();
  /// Gives storage back when nothing is in it.
  void releaseIfEmpty();

  /// How many whole frames are there.
  size_t count() const { return count_; }
  /// What follows the length field of the first frame. REQUIRES: count() > 0. Valid until pop() or space().
  std::span<const uint8_t> front() const;
  /// REQUIRES: count() > 0.
  void pop();

  /// A frame that is too long follows the whole ones; nothing after it can be read.
  bool isOversized() const { return isOversized_; }
  /// A frame has begun and not ended.
  bool isInsideFrame() const { return cut_ < end_ && !isOversized_; }
  /// How many whole frames there were in all: tells one begun frame from another.
  uint64_t total() const { return total_; }

 private:
  struct Free {
    void operator()(uint8_t* bytes) const { std::free(bytes); }
  };
  class Pool;
  void grow();
  void release();

  const uint32_t largestFrame_;
  const size_t keptStorage_;
  std::unique_ptr<uint8_t[], Free> storage_;
  size_t capacity_ = 0;
  // Offsets: the first frame, the end of the last whole frame, the end of what has arrived.
  size_t begin_ = 0, cut_ = 0, end_ = 0;
  size_t count_ = 0;
  uint64_t total_ = 0;
  bool isOversized_ = false;
};

}  // namespace platform::qmx
