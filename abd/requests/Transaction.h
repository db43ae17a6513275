#pragma once

// One request of one client from its arrival to its single reply. Made on the connection's queue, then used
// only on the service queue, in slices of time when it takes long (Course.h); nothing keeps it once its
// handler has come to its end. A message that wants no reply is served like any other and nothing is sent.

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "abd/ABDPlugInHold.h"
#include "abd/requests/Course.h"
#include "platform/qmx/Connection.h"
#include "platform/qmx/Message.h"
#include "platform/value/Error.h"
#include "platform/value/Value.h"

namespace abd {

using namespace platform;

class ABDPlugIn;
class ABDQmxClient;
class ABDServer;
class PlugInForm;
class RequestHost;
struct SearchTerms;

class Transaction : public std::enable_shared_from_this<Transaction> {
 public:
  /// initWithRequest:forClient:.
  Transaction(qmx::Message request, std::shared_ptr<ABDQmxClient> client);
  Transaction(const Transaction&) = delete;
  Transaction& operator=(const Transaction&) = delete;

  /// Checks version and client, then runs the request's handler.
  void dispatch();
  /// Has a request of the same client begin when this unfinished one, and those that wait already, have
  /// ended.
  void setNext(std::shared_ptr<Transaction> next);

  ABDQmxClient& client() const { return *client_; }
  ABDServer& server() const;
  const qmx::Message& request() const { return request_; }
  /// The request's "version"; set by dispatch().
  uint64_t version() const { return version_; }

  /// Puts the plug-in's stored annotations, or empty ones, into its form.
  static void addAnnotationForPlugIn(ABDServer& server, const ABDPlugIn& plugIn, PlugInForm& form);

 private:
  struct Request;
  static const Request kRequests[];
  static const size_t kRequestCount;
  /// The request's place in the table; kRequestCount when there is no such request.
  size_t find(std::string_view name) const;

  /// Runs a part of the request, and sees to what is left of it.
  template <typename Part>
  void goThrough(Part part);
  /// Checks the request, and runs its handler until that ends or gives way.
  void begin();
  /// Goes on with a course that has given way, at this request's next turn; ends one that is over.
  void goOnOrEnd();
  void goOnLater();
  void end();
  /// Where a handler lets others in: `co_await giveWay()`.
  Course::Pause giveWay() const { return {slice_}; }
  void beginSlice(Slice::Clock::time_point now);

  // The handlers; each finishes the request itself.
  Course addPlugIns();
  Course removePlugIns();
  Course bulkPlugIns();
  Course matchPlugIns();
  Course readyPlugIns();
  Course accessPlugIns();
  Course annotatePlugIns();
  Course lockDownPlugIns();
  Course explainPlugIns();
  Course reportStatus();

  /// The entries of "paths" and of "uuids" (Walks.h).
  class PathWalk;
  class PlugInWalk;

  /// What a search asks for; none when that is malformed, which was replied.
  std::optional<SearchTerms> searchTerms();
  /// What "status" tells of the requests of each name.
  Array requestFigures() const;
  /// For whom an explained search is; none when nobody can be told, which was replied.
  std::optional<RequestHost> explainedHost();

  /// Sends the reply.
  void done();
  void fail(int64_t code, std::string_view message);
  /// An error of the domain "Ambrel" brings its own code; any other gets `fallbackCode`.
  void fail(int64_t fallbackCode, const Error& error);
  void setReply(const char* key, Value value);

  Course releaseHolds(Array tokens);
  Course holdPlugIns();

  const std::shared_ptr<ABDQmxClient> client_;
  // Kept all the time: after the connection's death a reply goes out when nobody keeps it any more.
  const std::shared_ptr<qmx::Connection> connection_;
  const qmx::Message request_;
  std::optional<qmx::Message> reply_;  // none when the message wants no reply
  uint64_t version_ = 0;
  size_t kind_ = kRequestCount;  // as find() answers
  bool hasFailed_ = false;
  Slice::Clock::time_point began_;
  Slice slice_;
  Course course_;
  std::shared_ptr<Transaction> next_;  // what waits for the end of this one
};

}  // namespace abd
