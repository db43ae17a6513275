#include "platform/qmx/OutputQueue.h"

#include <limits.h>
#include <sys/socket.h>
#include <sys/uio.h>

#include <algorithm>
#include <cerrno>

#include "platform/qmx/Encoding.h"
#include "platform/qmx/Frame.h"

namespace platform::qmx {

namespace {

/// A shorter list is copied: that is cheaper than one more part.
constexpr size_t kSharedFrom = 2048;
/// Own bytes that follow in one segment; a longer segment is not appended to.
constexpr size_t kLongSegment = 64u << 10;
/// Storage that an empty queue keeps.
constexpr size_t kKeptStorage = 4096;
constexpr size_t kMostParts = 512;
static_assert(kMostParts <= IOV_MAX);
/// More than a socket's buffer takes at once.
constexpr size_t kEnoughForOneCall = 512u << 10;
/// After that much other connections get their turn.
constexpr size_t kEnoughForOneGo = 1u << 20;

constexpr int kSendFlags = MSG_NOSIGNAL | MSG_DONTWAIT;

iovec part(const void* bytes, size_t size) {
  return {.iov_base = const_cast<void*>(bytes), .iov_len = size};
}

}  // namespace

/// The last segment, when it can be appended to; else a new one.
std::string& OutputQueue::ownBytes() {
  if (segments_.empty() || segments_.back().bytes.empty() || segments_.back().bytes.size() > kLongSegment) {
    segments_.push(Segment{.bytes = std::move(spare_), .list = {}});
    spare_.clear();
  }
  return segments_.back().bytes;
}

/// Appends what stands under a key that was appended to `head`, the last segment.
void OutputQueue::appendList(const EncodedPropertyList& list, std::string& head) {
  const size_t size = list.size();
  appendEncodedHead(head, size);
  if (size >= kSharedFrom) {
    segments_.push(Segment{.bytes = {}, .list = list});
    return;
  }
  for (const EncodedPropertyList::Piece& piece : list.pieces())
    head.append(reinterpret_cast<const char*>(piece.bytes.data()), piece.bytes.size());
}

bool OutputQueue::append(const Message& message) {
  // What is shared is known beforehand; what is not is far below the limit or has been in memory already.
  size_t shared = 0;
  for (const auto& [key, value] : message.body)
    if (const EncodedPropertyList* list = value.encoded()) shared += list->size();
  if (shared > UINT32_MAX - kEnoughForOneGo) return false;

  std::string& head = ownBytes();
  const size_t segment = segments_.size() - 1;
  const size_t start = head.size();
  head.append(kLengthField, '\0');
  appendEnvelope(head, message.kind, message.id, message.body.size());
  for (const auto& [key, value] : message.body) {
    std::string& bytes = ownBytes();
    encode(Value(key), bytes);
    if (const EncodedPropertyList* list = value.encoded())
      appendList(*list, bytes);
    else
      encode(value, bytes);
  }
  Segment* first = segments_.begin() + segment;
  size_t length = first->bytes.size() - start;
  for (const Segment* each = first + 1; each != segments_.end(); ++each) length += each->size();
  size_ += length;
  setFrameLength(first->bytes.data() + start, static_cast<uint32_t>(length - kLengthField));
  return true;
}

void OutputQueue::append(OutputQueue&& other) {
  if (empty()) {
    std::swap(segments_, other.segments_);
    std::swap(piece_, other.piece_);
    std::swap(offset_, other.offset_);
  } else {
    while (!other.segments_.empty()) segments_.push(other.segments_.pop());
  }
  size_ += std::exchange(other.size_, 0);
}

/// Fills `parts` with what comes next; the number of them.
size_t OutputQueue::gather(iovec* parts, size_t most) const {
  size_t count = 0, bytes = 0, piece = piece_, offset = offset_;
  for (const Segment& segment : segments_) {
    if (!segment.bytes.empty()) {
      parts[count++] = part(segment.bytes.data() + offset, segment.bytes.size() - offset);
      bytes += segment.bytes.size() - offset;
    } else {
      for (const auto& each : segment.list.pieces().subspan(piece)) {
        if (count == most || bytes >= kEnoughForOneCall) return count;
        parts[count++] = part(each.bytes.data() + offset, each.bytes.size() - offset);
        bytes += each.bytes.size() - offset;
        offset = 0;
      }
    }
    piece = offset = 0;
    if (count == most || bytes >= kEnoughForOneCall) break;
  }
  return count;
}

OutputQueue::Outcome OutputQueue::write(int fd) {
  iovec parts[kMostParts];
  for (size_t sent = 0; size_ > 0;) {
    if (sent >= kEnoughForOneGo) return Outcome::more;
    msghdr header{};
    header.msg_iov = parts;
    header.msg_iovlen = gather(parts, kMostParts);
    // A single part, the usual case, has a cheaper call.
    const ssize_t count = header.msg_iovlen == 1 ? ::send(fd, parts[0].iov_base, parts[0].iov_len, kSendFlags)
                                                 : sendmsg(fd, &header, kSendFlags);
    if (count >= 0) {
      drop(static_cast<size_t>(count));
      sent += static_cast<size_t>(count);
    } else if (errno == EAGAIN || errno == EWOULDBLOCK || errno == ENOBUFS || errno == ENOMEM) {
      return Outcome::blocked;
    } else if (errno != EINTR) {
      return Outcome::failed;
    }
  }
  return Outcome::everything;
}

void OutputQueue::drop(size_t count) {
  size_ -= count;
  written_ += count;
  while (count > 0) {
    const Segment& segment = segments_.front();
    if (!segment.bytes.empty()) {
      const size_t left = segment.bytes.size() - offset_;
      if (count < left) {
        offset_ += count;
        return;
      }
      count -= left;
      dropFront();
      continue;
    }
    const auto pieces = segment.list.pieces();
    while (piece_ < pieces.size()) {
      const size_t left = pieces[piece_].bytes.size() - offset_;
      if (count < left) {
        offset_ += count;
        return;
      }
      count -= left;
      offset_ = 0;
      ++piece_;
    }
    dropFront();
  }
}

void OutputQueue::dropFront() {
  Segment segment = segments_.pop();
  piece_ = offset_ = 0;
  if (spare_.capacity() < segment.bytes.capacity() && segment.bytes.capacity() <= kKeptStorage)
    spare_ = std::move(segment.bytes);
  spare_.clear();
}

void OutputQueue::clear() {
  segments_.clear();
  written_ += size_;
  piece_ = offset_ = size_ = 0;
}

}  // namespace platform::qmx
