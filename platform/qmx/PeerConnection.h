#pragma once

// The daemon's end of a connection, made by a Listener for each peer. Everything happens on the loop's
// thread. After resume() the loop keeps the connection until it dies; then those who still owe it a reply may
// keep it, and the socket is closed with the object.
//
// Bytes are read when the descriptor is readable; whole frames wait in the reader and are handed to the event
// handler one at a time, when the loop asks its sources (RunLoop::enlist); what is left to do for one comes
// before the next. Replies are collected and written when the turn ends. Reading pauses while
// kMaximumPendingRequests frames wait, reading and handing over while more than kMaximumUnsentBytes are
// unsent; the end of the stream is watched for all the time.
//
// When the end is noticed (a failed write brings it about) and nothing stands before what has arrived,
// neither work of a connection that is not ending nor unsent replies of its own beyond the limit, the
// connection is ending: it goes on taking turns until everything that had arrived was handed over, and dies
// then, or when a message takes more than a turn and others wait. Else it dies at once. What is left to do
// for a message that was handed over is done in any case, after the death, too.

#include <sys/epoll.h>

#include <cstdint>
#include <memory>
#include <string>

#include "platform/qmx/Connection.h"
#include "platform/qmx/FrameReader.h"
#include "platform/qmx/OutputQueue.h"
#include "platform/qmx/TimeLimit.h"
#include "platform/queue/RunLoop.h"
#include "platform/system/FileDescriptor.h"

namespace platform::qmx {

class PeerConnection final : public Connection, private RunLoop::Source {
 public:
  /// `socket` is connected and non-blocking. `admission` is released when the socket is closed.
  PeerConnection(RunLoop& loop, FileDescriptor socket, std::shared_ptr<const PeerIdentity> peer,
                 std::shared_ptr<void> admission);
  ~PeerConnection() override;

  void setEventHandler(Handler handler) override { handler_ = std::move(handler); }
  void setContext(std::shared_ptr<void> context) override { context_ = std::move(context); }
  void resume() override;
  void send(Message message) override;
  void goOnLater(Work rest) override;
  void sendWithReply(Dictionary body, ReplyHandler handler) override;
  void cancel() override;
  Load load() const override { return {reader_.count() + (rest_ ? 1 : 0), output_.size()}; }
  const std::shared_ptr<const PeerIdentity>& peer() const override { return peer_; }
  std::string description() const override;

 private:
  enum class State : uint8_t { suspended, live, dead };
  /// What becomes of what has arrived and was not handed over, and of what is unsent.
  enum class Ending : uint8_t { deliverAndFlush, flush, drop };

  bool supply() override;
  bool standsBack() const override;
  void tookLong() override { hasTakenLong_ = true; }
  bool takeTurn();
  void finishTurn() override;
  bool isOrphaned() const override { return isEnding_ || state_ == State::dead; }

  std::shared_ptr<PeerConnection> self() {
    return std::static_pointer_cast<PeerConnection>(shared_from_this());
  }
  template <typename Part>
  void guarded(Part part);
  void handleEvents(RunLoop::Events events);
  void handleProcessExit();
  void readAvailable(bool untilEnd);
  void noteArrival();
  void noteEnd();
  bool deliverFront();
  void deliverTheRest();
  bool mayServeMore() const;
  bool hasWork() const;
  void enlistWhenReady();
  void flush();
  void flushAtEndOfTurn();
  void updateInterest();
  /// A reason is logged.
  void die(Ending ending, const char* reason = nullptr);
  void dieSoon(Ending ending);
  void stopWatchingProcess();
  void settleOutput();

  RunLoop& loop_;
  std::shared_ptr<void> admission_;  // released after the socket was closed
  FileDescriptor socket_;
  const int number_;  // of the socket, for descriptions
  const std::shared_ptr<const PeerIdentity> peer_;
  Handler handler_;
  std::shared_ptr<void> context_;

  State state_ = State::suspended;
  FrameReader reader_;
  // Of the message that was handed over last.
  Work rest_;
  bool isReplyWanted_ = false;
  bool hasTakenLong_ = false, hadTakenLong_ = false;  // it, and the one before it
  OutputQueue output_;
  RunLoop::Events interest_ = EPOLLIN | EPOLLRDHUP;
  bool isEnding_ = false;       // the stream has ended, and what had arrived still gets its turn
  bool isReadOver_ = false;     // nothing is left in the socket
  bool isEnlisted_ = false;     // among the loop's sources
  bool isTurnNoted_ = false;    // finishTurn() will come
  bool isBlocked_ = false;      // the socket takes no more for now
  bool isWritingOver_ = false;  // a write has failed, or what is due is dropped
  bool isProcessWatched_ = false;
  uint64_t begunFrame_ = 0;  // total() of the reader when the frame clock was started
  TimeLimit frameLimit_, sendLimit_;
};

}  // namespace platform::qmx
