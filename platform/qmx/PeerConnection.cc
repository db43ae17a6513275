#include "platform/qmx/PeerConnection.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <new>
#include <utility>

#include "platform/log/Failure.h"
#include "platform/log/Log.h"
#include "platform/qmx/Frame.h"
#include "platform/qmx/Limits.h"

namespace platform::qmx {

namespace {

constexpr RunLoop::Events kEnd = EPOLLRDHUP | EPOLLHUP | EPOLLERR;
constexpr const char* kMalformedFrame = "a malformed frame";
constexpr const char* kOversizedFrame = "an oversized frame";
constexpr const char* kOutOfMemory = "out of memory";

// The loop looks at descriptors, and so takes ends of streams, after every request that took long.
static_assert(RunLoop::kTurnBudget <= kLongRequest);

/// What was due to a peer when its connection died: written as far as the peer takes it in time, then closed.
class LastWords : public std::enable_shared_from_this<LastWords> {
 public:
  LastWords(RunLoop& loop, FileDescriptor socket, OutputQueue output, std::shared_ptr<void> admission)
      : loop_(loop),
        admission_(std::move(admission)),
        socket_(std::move(socket)),
        output_(std::move(output)),
        limit_(loop, kSendTimeout, [this] { finish(); }) {}

  void start() {
    const int fd = socket_.get();
    const bool isWatched =
        loop_.add(fd, EPOLLOUT, [words = shared_from_this()](RunLoop::Events events) { words->go(events); });
    if (isWatched) limit_.start();
  }

 private:
  void go(RunLoop::Events events) {
    const uint64_t before = output_.written();
    const auto outcome =
        (events & EPOLLERR) != 0 ? OutputQueue::Outcome::failed : output_.write(socket_.get());
    if (outcome == OutputQueue::Outcome::everything || outcome == OutputQueue::Outcome::failed) {
      finish();
    } else if (output_.written() != before) {
      limit_.start();
    }
  }
  void finish() {
    // The registration holds the last reference.
    loop_.remove(socket_.get());
  }

  RunLoop& loop_;
  std::shared_ptr<void> admission_;  // released after the socket was closed
  FileDescriptor socket_;
  OutputQueue output_;
  TimeLimit limit_;
};

}  // namespace

PeerConnection::PeerConnection(RunLoop& loop, FileDescriptor socket, std::shared_ptr<const PeerIdentity> peer,
                               std::shared_ptr<void> admission)
    : loop_(loop),
      admission_(std::move(admission)),
      socket_(std::move(socket)),
      number_(socket_.get()),
      peer_(std::move(peer)),
      reader_(kMaximumRequestFrame, 0),
      frameLimit_(loop, kFrameTimeout, [this] { die(Ending::flush, "a frame did not end in time"); }),
      sendLimit_(loop, kSendTimeout, [this] { die(Ending::drop, "the peer takes no replies"); }) {}

/// Replies to what was handed over at the end were sent after the death.
PeerConnection::~PeerConnection() {
  try {
    settleOutput();
  } catch (const std::bad_alloc&) {
    output_.clear();  // nothing is left that could be written later
  }
}

std::string PeerConnection::description() const {
  return format("<connection %p fd=%d pid=%d>", static_cast<const void*>(this), number_, peer_->pid());
}

void PeerConnection::resume() {
  if (state_ != State::suspended) return;
  state_ = State::live;
  // The registration is the loop's reference.
  if (!loop_.add(number_, interest_,
                 [connection = self()](RunLoop::Events events) { connection->handleEvents(events); })) {
    dieSoon(Ending::drop);
    return;
  }
  const int process = peer_->pidfd();
  if (process >= 0)
    isProcessWatched_ = loop_.add(process, EPOLLIN, [this](RunLoop::Events) { handleProcessExit(); });
}

/// Runs a part of the connection's own work. What memory is lacking for ends with the connection.
template <typename Part>
void PeerConnection::guarded(Part part) {
  try {
    part();
  } catch (const std::bad_alloc&) {
    die(Ending::drop, kOutOfMemory);
  }
}

void PeerConnection::handleEvents(RunLoop::Events events) {
  if ((events & EPOLLOUT) != 0) flush();
  const bool hasEnded = (events & kEnd) != 0;
  guarded([&] {
    if ((events & EPOLLIN) != 0 && (interest_ & EPOLLIN) != 0) readAvailable(hasEnded);
    if (hasEnded || isReadOver_) noteEnd();
  });
}

/// Reads once, or with `untilEnd` what there is.
void PeerConnection::readAvailable(bool untilEnd) {
  do {
    // The loop returns at once while frames wait, so this pause needs no change of interest.
    if (reader_.count() >= kMaximumPendingRequests || reader_.isOversized()) break;
    const auto space = reader_.space();
    const ssize_t count = read(number_, space.data(), space.size());
    if (count > 0) {
      reader_.received(static_cast<size_t>(count));
    } else if (count < 0 && errno == EINTR) {
      continue;
    } else {
      isReadOver_ = count == 0 || (errno != EAGAIN && errno != ENOMEM);
      break;
    }
  } while (untilEnd);
  noteArrival();
}

void PeerConnection::noteArrival() {
  reader_.releaseIfEmpty();
  if (!reader_.isInsideFrame() || isEnding_) {
    frameLimit_.stop();
  } else if (!frameLimit_.isRunning() || reader_.total() != begunFrame_) {
    begunFrame_ = reader_.total();
    frameLimit_.start();
  }
  enlistWhenReady();
}

void PeerConnection::noteEnd() {
  if (state_ != State::live || isEnding_) return;
  if (loop_.hasOthers(*this) || output_.size() > kMaximumUnsentBytes) {
    die(Ending::deliverAndFlush);
    return;
  }
  isEnding_ = true;
  frameLimit_.stop();
  // The end would be told again and again while nothing else happens.
  if (!isReadOver_ || isBlocked_) updateInterest();
  enlistWhenReady();
}

/// Whether there is something to do when the connection's turn comes.
bool PeerConnection::hasWork() const {
  if (rest_ || state_ != State::live) return static_cast<bool>(rest_);
  return reader_.count() > 0 || reader_.isOversized() || (isEnding_ && isReadOver_);
}

void PeerConnection::enlistWhenReady() {
  if (isEnlisted_ || !hasWork()) return;
  loop_.enlist(std::shared_ptr<RunLoop::Source>(self(), this));
  isEnlisted_ = true;
}

bool PeerConnection::supply() {
  bool mayGoOn = false;
  guarded([&] { mayGoOn = takeTurn(); });
  isEnlisted_ = mayGoOn && hasWork();
  return isEnlisted_;
}

/// Who asked for much is likely to do so again: small requests of others go first. Once is an accident: the
/// loop itself may have had to wait.
bool PeerConnection::standsBack() const {
  return rest_ || (hasTakenLong_ && hadTakenLong_) ||
         (reader_.count() > 0 && reader_.front().size() > kSmallRequest);
}

/// One piece of work; false when there is none for now.
bool PeerConnection::takeTurn() {
  if (rest_) {
    if (state_ == State::live && isEnding_ && !mayServeMore()) die(Ending::deliverAndFlush);
    Work rest = std::exchange(rest_, {});
    rest();
    return true;
  }
  if (state_ != State::live) return false;
  // Room for replies brings it back (flush()).
  if (output_.size() > kMaximumUnsentBytes) return false;
  if (reader_.count() == 0) {
    if (hasWork()) die(Ending::flush, reader_.isOversized() ? kOversizedFrame : nullptr);
    return false;
  }
  if (!deliverFront()) die(Ending::flush, kMalformedFrame);
  return true;
}

/// Whether an ending connection that took long gets to what waits behind that: while nobody else waits, and
/// not for a reply that nobody will read.
bool PeerConnection::mayServeMore() const {
  if (loop_.hasOthers(*this)) return false;
  pollfd stream{.fd = number_, .events = 0, .revents = 0};
  return !isReplyWanted_ || poll(&stream, 1, 0) == 0;
}

/// While that is quick: the requests come too late to be served, and others wait.
void PeerConnection::deliverTheRest() {
  const auto end = std::chrono::steady_clock::now() + RunLoop::kLongPiece;
  while (reader_.count() > 0) {
    if (reader_.front().size() > kSmallRequest || std::chrono::steady_clock::now() > end) return;
    if (deliverFront()) continue;
    systemLog("closing %@: %s", *this, kMalformedFrame);
    return;
  }
  if (reader_.isOversized()) systemLog("closing %@: %s", *this, kOversizedFrame);
}

/// Hands the first frame over; false when it is malformed.
bool PeerConnection::deliverFront() {
  std::optional<Frame> frame = decodeFrame(reader_.front());
  reader_.pop();
  // A reply was never asked for here.
  if (!frame || frame->kind == FrameKind::reply) return false;
  hadTakenLong_ = hasTakenLong_;
  hasTakenLong_ = false;
  isReplyWanted_ = frame->kind == FrameKind::request;
  if (!handler_) return true;
  if (const Dictionary* body = frame->body.dictionary())
    handler_(Event(Message{.body = *body, .kind = frame->kind, .id = frame->id}));
  else
    handler_(Event(UnexpectedObject{std::move(frame->body)}));
  return true;
}

void PeerConnection::send(Message message) {
  if (isWritingOver_) return;
  try {
    if (output_.append(message)) return flushAtEndOfTurn();
    systemLog("%@: a reply is too large for a frame", *this);
  } catch (const std::bad_alloc&) {
    isWritingOver_ = true;  // what is there may end in the midst of a reply
    output_.clear();
    systemLog("closing %@: %s", *this, kOutOfMemory);
  }
  if (state_ != State::dead) dieSoon(Ending::drop);
}

void PeerConnection::flushAtEndOfTurn() {
  if (isTurnNoted_ || state_ == State::dead) return;
  loop_.tellEndOfTurn(std::shared_ptr<RunLoop::Source>(self(), this));
  isTurnNoted_ = true;
}

void PeerConnection::goOnLater(Work rest) {
  rest_ = std::move(rest);
  enlistWhenReady();
}

void PeerConnection::sendWithReply(Dictionary, ReplyHandler) {
  raiseInternalInconsistency("%@: requests are not sent to peers", *this);
}

void PeerConnection::finishTurn() {
  isTurnNoted_ = false;
  if (state_ == State::dead) return;
  if (isBlocked_)
    updateInterest();
  else
    flush();
}

void PeerConnection::flush() {
  if (isWritingOver_) return;
  const uint64_t before = output_.written();
  const OutputQueue::Outcome outcome = output_.write(number_);
  if (outcome == OutputQueue::Outcome::failed) {
    isWritingOver_ = true;
    output_.clear();
    sendLimit_.stop();
    // Ends the stream for this side, too: an event of its own tells of the end.
    shutdown(number_, SHUT_RD);
    updateInterest();
    return;
  }
  const bool wasBlocked = std::exchange(isBlocked_, outcome != OutputQueue::Outcome::everything);
  if (!isBlocked_)
    sendLimit_.stop();
  else if (!wasBlocked || output_.written() != before)
    sendLimit_.start();
  updateInterest();
}

void PeerConnection::updateInterest() {
  if (state_ != State::live) return;
  const bool mayRead = output_.size() <= kMaximumUnsentBytes;
  RunLoop::Events interest = isEnding_ ? 0u : EPOLLRDHUP;
  if (mayRead && !isReadOver_) interest |= EPOLLIN;
  if (isBlocked_) interest |= EPOLLOUT;
  if (mayRead) enlistWhenReady();
  if (interest == interest_) return;
  const bool couldRead = (interest_ & EPOLLIN) != 0;
  interest_ = interest;
  loop_.change(number_, interest);
  if (couldRead == mayRead) return;
  // The clock of a begun frame stands while its rest is not read.
  if (!mayRead)
    frameLimit_.stop();
  else
    noteArrival();
}

void PeerConnection::cancel() {
  loop_.async([weak = weak_from_this()] {
    if (const auto connection = std::static_pointer_cast<PeerConnection>(weak.lock()))
      connection->die(Ending::drop);
  });
}

void PeerConnection::dieSoon(Ending ending) {
  loop_.async([connection = self(), ending] { connection->die(ending); });
}

void PeerConnection::die(Ending ending, const char* reason) {
  if (state_ == State::dead) return;
  if (reason != nullptr) systemLog("closing %@: %s", *this, reason);
  const bool wasLive = state_ == State::live;
  const std::shared_ptr<PeerConnection> keep = self();
  // What had arrived comes before the end, as it came.
  if (ending == Ending::deliverAndFlush) deliverTheRest();
  state_ = State::dead;
  frameLimit_.stop();
  sendLimit_.stop();
  stopWatchingProcess();
  if (wasLive) loop_.remove(number_);
  // What was begun is done to its end.
  if (isEnlisted_ && !rest_) {
    loop_.withdraw(*this);
    isEnlisted_ = false;
  }
  if (ending == Ending::drop) {
    isWritingOver_ = true;
    output_.clear();
  }

  Handler handler = std::move(handler_);
  handler_ = nullptr;
  if (handler) handler(Event(ConnectionError::connectionInvalid));
}

/// Writes what is due, now or later.
void PeerConnection::settleOutput() {
  if (output_.empty() || isWritingOver_) return;
  const OutputQueue::Outcome outcome = output_.write(number_);
  if (outcome == OutputQueue::Outcome::everything || outcome == OutputQueue::Outcome::failed) return;
  std::make_shared<LastWords>(loop_, std::move(socket_), std::move(output_), std::move(admission_))->start();
}

void PeerConnection::handleProcessExit() {
  stopWatchingProcess();
  // An exit closes the stream first, as a rule; then the end of the stream says it all.
  pollfd stream{.fd = number_, .events = POLLRDHUP, .revents = 0};
  if (poll(&stream, 1, 0) == 1) return;
  if (handler_) handler_(Event(ConnectionError::terminationImminent));
}

void PeerConnection::stopWatchingProcess() {
  if (std::exchange(isProcessWatched_, false)) loop_.remove(peer_->pidfd());
}

}  // namespace platform::qmx
