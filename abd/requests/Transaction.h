#pragma once

// One request of one client from its arrival to its single reply. Made on the connection's queue, then used
// only on the service queue; nothing keeps it once its handler has returned. A message that wants no reply is
// served like any other and nothing is sent.

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "abd/ABDPlugInHold.h"
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

class Transaction {
 public:
  /// initWithRequest:forClient:.
  Transaction(qmx::Message request, std::shared_ptr<ABDQmxClient> client);
  Transaction(const Transaction&) = delete;
  Transaction& operator=(const Transaction&) = delete;

  /// Checks version and client, then runs the request's handler.
  void dispatch();

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

  // The handlers; each finishes the request itself.
  void addPlugIns();
  void removePlugIns();
  void bulkPlugIns();
  void matchPlugIns();
  void readyPlugIns();
  void accessPlugIns();
  void annotatePlugIns();
  void lockDownPlugIns();

  /// Answers whether to go on; a step that answers false has finished the request.
  using PathStep = std::function<bool(const std::string& path, bool resolved)>;
  using PlugInStep = std::function<bool(const std::shared_ptr<ABDPlugIn>& plugIn)>;

  /// Hands each entry of "paths" to `step`, in its canonical form when it has one. False after the first
  /// failure, which has been replied.
  bool marshalPaths(const PathStep& step);
  /// marshalPaths(), then done().
  bool processPaths(const PathStep& step);
  /// Hands the plug-in of each entry of "uuids" to `step`. False after the first failure, which has been
  /// replied; success is for the caller to reply.
  bool processUuidList(const PlugInStep& step);

  /// Sends the reply.
  void done();
  void fail(int64_t code, std::string_view message);
  /// An error of the domain "Ambrel" brings its own code; any other gets `fallbackCode`.
  void fail(int64_t fallbackCode, const Error& error);
  void setReply(const char* key, Value value);

  void releaseHolds(const Array& tokens);
  bool collectPlugInsToHold(const std::string& path, bool resolved, uint64_t flags,
                            ABDPlugInHold::PlugIns& plugIns);
  bool refuseBusyPlugIns(const ABDPlugInHold::PlugIns& plugIns);

  const std::shared_ptr<ABDQmxClient> client_;
  // Kept all the time: after the connection's death a reply goes out when nobody keeps it any more.
  const std::shared_ptr<qmx::Connection> connection_;
  const qmx::Message request_;
  std::optional<qmx::Message> reply_;  // none when the message wants no reply
  uint64_t version_ = 0;
};

}  // namespace abd
