#include "abd/requests/Transaction.h"

#include <algorithm>
#include <span>

#include "Ambrel/ABDiagnostics.h"
#include "Ambrel/ABErrors.h"
#include "Ambrel/ABProtocol.h"
#include "abd/ABDQmxClient.h"
#include "abd/ABDServer.h"
#include "abd/ABDTrace.h"

namespace abd {

namespace {

/// Versions 2 and 3 are served; they differ in the lowest bit.
constexpr uint64_t kOldestProtocolVersion = 2;

}  // namespace

struct Transaction::Request {
  std::string_view name;
  Course (Transaction::*handler)();
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

const Transaction::Request Transaction::kDiagnostics[] = {
    {diagnostics::explain, &Transaction::explainPlugIns},
};

/// Null when there is no such request.
const Transaction::Request* Transaction::find(std::string_view name) const {
  const bool isMain = client_->service() == ABDQmxClient::Service::main;
  const auto requests = isMain ? std::span<const Request>(kRequests) : std::span<const Request>(kDiagnostics);
  const auto found = std::ranges::find(requests, name, &Request::name);
  return found == requests.end() ? nullptr : &*found;
}

/// A diagnosis has none: it gives way wherever it can.
void Transaction::beginSlice() {
  if (client_->service() == ABDQmxClient::Service::main) slice_.begin();
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
  if (client_->service() == ABDQmxClient::Service::diagnostics && !client_->isManager())
    return fail(kABErrorAccess, "unauthorized request");
  const Request* const request = find(name->view());
  if (request == nullptr) return fail(kABErrorRequest, "unrecognized request");
  beginSlice();
  course_ = (this->*request->handler)();
  if (!course_.isOver()) goOnLater();
}

void Transaction::goOnLater() {
  if (connection_ == nullptr) return;
  connection_->goOnLater([transaction = shared_from_this()] {
    transaction->server().submitWork([transaction] {
      transaction->beginSlice();
      transaction->course_.goOn();
      if (!transaction->course_.isOver()) transaction->goOnLater();
    });
  });
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
