#include "abd/requests/Transaction.h"

#include <climits>
#include <cstdlib>

#include "Ambrel/ABCollections.h"
#include "Ambrel/ABErrors.h"
#include "Ambrel/ABProtocol.h"
#include "abd/ABDQmxClient.h"
#include "abd/ABDServer.h"
#include "abd/ABDTrace.h"
#include "abd/plugin/ABDPlugIn.h"
#include "platform/system/Directories.h"
#include "platform/value/UTF8.h"

namespace abd {

namespace {

/// Bytes of a path or of its canonical form, the terminating NUL included.
constexpr size_t kPathBuffer = 1024;
/// Versions 2 and 3 are served; they differ in the lowest bit.
constexpr uint64_t kOldestProtocolVersion = 2;

/// The canonical form of `path`, or "" when it has none that fits the buffer.
std::string resolvedPath(const std::string& path) {
  if (path.size() >= kPathBuffer) return {};
  std::string resolved = canonicalPath(path);
  // What no message can carry is a path that clients cannot have meant.
  if (resolved.size() >= kPathBuffer || !isValidText(resolved)) resolved.clear();
  return resolved;
}

}  // namespace

struct Transaction::Request {
  std::string_view name;
  void (Transaction::*handler)();
};

const Transaction::Request Transaction::kRequests[] = {
    {request::add, &Transaction::addPlugIns},           {request::remove, &Transaction::removePlugIns},
    {request::bulk, &Transaction::bulkPlugIns},         {request::match, &Transaction::matchPlugIns},
    {request::ready, &Transaction::readyPlugIns},       {request::access, &Transaction::accessPlugIns},
    {request::annotate, &Transaction::annotatePlugIns}, {request::lock, &Transaction::lockDownPlugIns},
};

Transaction::Transaction(qmx::Message request, std::shared_ptr<ABDQmxClient> client)
    : client_(std::move(client)), connection_(client_->connection()), request_(std::move(request)) {
  if (request_.wantsReply()) reply_ = request_.createReply();
}

ABDServer& Transaction::server() const {
  return client_->server();
}

void Transaction::dispatch() {
  const String* name = request_.string(key::request);
  version_ = request_.unsignedValue(key::version);
  if ((version_ & ~uint64_t{1}) != kOldestProtocolVersion) {
    return fail(kABErrorVersion, format("unsupported protocol version %d (current %d)",
                                        static_cast<int32_t>(version_), kProtocolVersion));
  }
  if (!client_->acceptWork()) return;
  server().debug("client %d request %s", client_->pid(), name != nullptr ? name->view() : "(null)");
  if (trace::requestIsEnabled())
    trace::request(client_->pid(), name != nullptr ? std::optional(std::string(name->view())) : std::nullopt);
  if (name == nullptr) return fail(kABErrorRequest, "invalid request format (missing type)");
  for (const Request& request : kRequests) {
    if (name->view() == request.name) return (this->*request.handler)();
  }
  fail(kABErrorRequest, "unrecognized request");
}

bool Transaction::marshalPaths(const PathStep& step) {
  const std::optional<Array> paths = qmx_dictionary_get_array(request_.body, key::paths);
  if (!paths) {
    fail(kABErrorRequest, "invalid request format");
    return false;
  }
  for (const Value& entry : *paths) {
    const std::optional<std::string_view> text = entry.string();
    if (!text) {
      fail(kABErrorRequest, "invalid request format");
      return false;
    }
    const std::string path(*text);
    if (!path.starts_with('/')) {
      fail(kABErrorPath, format("absolute path required: %s", path));
      return false;
    }
    const std::string resolved = resolvedPath(path);
    if (!(resolved.empty() ? step(path, false) : step(resolved, true))) return false;
  }
  return true;
}

bool Transaction::processPaths(const PathStep& step) {
  const bool succeeded = marshalPaths(step);
  if (succeeded) done();
  return succeeded;
}

bool Transaction::processUuidList(const PlugInStep& step) {
  const std::optional<Array> uuids = qmx_dictionary_get_array(request_.body, key::uuids);
  if (!uuids) {
    fail(kABErrorRequest, "invalid request format (uuid)");
    return false;
  }
  for (const Value& entry : *uuids) {
    if (entry.kind() != Value::Kind::uuid) {
      fail(kABErrorRequest, "invalid request (bad uuid array)");
      return false;
    }
    const std::optional<UUID> uuid = entry.uuid();
    if (!uuid) {
      fail(kABErrorRequest, "invalid request (uuid allocation failure)");
      return false;
    }
    const std::shared_ptr<ABDPlugIn> plugIn = server().findPlugIn(*uuid);
    if (plugIn == nullptr) {
      fail(kABErrorRequest, "no such plugin (uuid not found)");
      return false;
    }
    if (!step(plugIn)) return false;
  }
  return true;
}

void Transaction::done() {
  if (!reply_) return;
  if (server().verbose() >= ABDServer::kVerboseMessages) server().debug("Replying %@", *reply_);
  if (trace::requestOutputIsEnabled()) trace::requestOutput(client_->pid(), reply_->description());
  if (connection_ != nullptr) connection_->send(*std::exchange(reply_, std::nullopt));
}

void Transaction::fail(int64_t code, std::string_view message) {
  setReply(key::errorCode, static_cast<uint64_t>(code));
  setReply(key::error, message);
  done();
}

void Transaction::fail(int64_t fallbackCode, const Error& error) {
  if (error.domain == AmbrelErrorDomain) return fail(error.code, error.text.value_or(""));
  fail(fallbackCode, error.localizedDescription());
}

void Transaction::setReply(const char* key, Value value) {
  if (reply_) reply_->body.set(key, std::move(value));
}

}  // namespace abd
