#include "platform/qmx/FrameReader.h"

#include <algorithm>
#include <cstring>
#include <new>
#include <utility>
#include <vector>

#include "platform/qmx/Frame.h"

namespace platform::qmx {

namespace {

/// Storage of a reader before it grows, and the least room that one read is given.
constexpr size_t kChunk = 16u << 10;
constexpr size_t kLeastRoom = 4u << 10;
/// Chunks that are kept per thread.
constexpr size_t kKeptChunks = 64;

}  // namespace

/// Chunks that no reader of this thread uses now.
class FrameReader::Pool {
 public:
  using Chunk = std::unique_ptr<uint8_t[], Free>;
  static Pool& ofThisThread() {
    static thread_local Pool pool;
    return pool;
  }
  Chunk take() {
    if (chunks_.empty()) return Chunk(static_cast<uint8_t*>(std::malloc(kChunk)));
    Chunk chunk = std::move(chunks_.back());
    chunks_.pop_back();
    return chunk;
  }
  void give(Chunk chunk) {
    if (chunks_.size() < kKeptChunks) chunks_.push_back(std::move(chunk));
  }

 private:
  std::vector<Chunk> chunks_;
};

std::span<uint8_t> FrameReader::space() {
  if (capacity_ - end_ < kLeastRoom) grow();
  return {storage_.get() + end_, capacity_ - end_};
}

void FrameReader::grow() {
  if (storage_ == nullptr) {
    storage_ = Pool::ofThisThread().take();
    if (storage_ == nullptr) throw std::bad_alloc();
    capacity_ = kChunk;
    return;
  }
  if (begin_ > 0) {
    std::memmove(storage_.get(), storage_.get() + begin_, end_ - begin_);
    cut_ -= begin_;
    end_ -= begin_;
    begin_ = 0;
    if (capacity_ - end_ >= kLeastRoom) return;
  }
  const size_t larger = capacity_ * 2;
  auto* bytes = static_cast<uint8_t*>(std::realloc(storage_.get(), larger));
  if (bytes == nullptr) throw std::bad_alloc();
  static_cast<void>(storage_.release());  // realloc() freed or reused it
  storage_.reset(bytes);
  capacity_ = larger;
}

void FrameReader::received(size_t count) {
  end_ += count;
  while (end_ - cut_ >= kLengthField && !isOversized_) {
    const uint32_t length = frameLength(storage_.get() + cut_);
    if (length > largestFrame_) {
      isOversized_ = true;
    } else if (end_ - cut_ - kLengthField < length) {
      break;
    } else {
      cut_ += kLengthField + length;
      ++count_;
      ++total_;
    }
  }
}

std::span<const uint8_t> FrameReader::front() const {
  const uint8_t* field = storage_.get() + begin_;
  return {field + kLengthField, frameLength(field)};
}

void FrameReader::pop() {
  begin_ += kLengthField + frameLength(storage_.get() + begin_);
  --count_;
  if (begin_ == end_) {
    begin_ = cut_ = end_ = 0;
    if (capacity_ > keptStorage_) release();
  }
}

void FrameReader::releaseIfEmpty() {
  if (begin_ == end_ && capacity_ > keptStorage_) release();
}

void FrameReader::reset() {
  begin_ = cut_ = end_ = count_ = 0;
  isOversized_ = false;
  releaseIfEmpty();
}

void FrameReader::release() {
  if (storage_ != nullptr && capacity_ == kChunk) Pool::ofThisThread().give(std::move(storage_));
  storage_.reset();
  capacity_ = 0;
}

}  // namespace platform::qmx
