#include "abd/requests/Transaction.h"

#include <algorithm>
#include <iterator>
#include <new>

#include "Ambrel/ABDiagnostics.h"
#include "Ambrel/ABErrors.h"
#include "Ambrel/ABProtocol.h"
#include "abd/ABDQmxClient.h"
#include "abd/ABDServer.h"
#include "abd/ABDTrace.h"
#include "platform/log/Log.h"

namespace abd {

namespace {

/// Versions 2 and 3 are served; they differ in the lowest bit.
constexpr uint64_t kOldestProtocolVersion = 2;

/// What is no request, or none of the service that it was sent to.
constexpr std::string_view kOtherRequests = "other";

}  // namespace

struct Transaction::Request {
  std::string_view name;
  Course (Transaction::*handler)();
  ABDQmxClient::Service service = ABDQmxClient::Service::main;
};

const Transaction::Request Transaction::kRequests[] = {
    {request::add, &Transaction::addPlugIns},
    {request::remove, &Transaction::removePlugIns},
    {request::bulk, &Transaction::bulkPlugIns},
    {request::match, &Transaction::matchPlugIns},
    {request::ready, &Transaction::readyPlugIns},
    {request::access, &Transaction::accessPlugIns},
    {request::annotate, &Transaction::annotatePlugIns},
    {request::lock, &Transaction::lockDownPlugIns},
    {diagnostics::explain, &Transaction::explainPlugIns, ABDQmxClient::Service::diagnostics},
    {diagnostics::status, &Transaction::reportStatus, ABDQmxClient::Service::diagnostics},
};
const size_t Transaction::kRequestCount = std::size(kRequests);

Transaction::Transaction(qmx::Message request, std::shared_ptr<ABDQmxClient> client)
    : client_(std::move(client)), connection_(client_->connection()), request_(std::move(request)) {
  if (request_.wantsReply()) reply_ = request_.createReply();
}

ABDServer& Transaction::server() const {
  return client_->server();
}

size_t Transaction::find(std::string_view name) const {
  const auto found = std::ranges::find_if(kRequests, [this, name](const Request& each) {
    return each.name == name && each.service == client_->service();
  });
  return static_cast<size_t>(found - std::begin(kRequests));
}

/// A diagnosis has none: it gives way wherever it can.
void Transaction::beginSlice(Slice::Clock::time_point now) {
  if (client_->service() == ABDQmxClient::Service::main) slice_.begin(now);
}

void Transaction::dispatch() {
  began_ = Slice::Clock::now();
  goThrough([this] { begin(); });
}

/// What memory is lacking for is refused; entries of lists that were done keep their effects.
template <typename Part>
void Transaction::goThrough(Part part) {
  try {
    part();
    course_.throwIfFailed();
    return goOnOrEnd();
  } catch (const std::bad_alloc&) {
    systemLog("out of memory for a request of client %d", client_->pid());
  }
  course_ = Course();
  fail(kABErrorRequest, "out of memory");
  goOnOrEnd();
}

void Transaction::begin() {
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
  kind_ = find(name->view());
  if (kind_ == kRequestCount) return fail(kABErrorRequest, "unrecognized request");
  beginSlice(began_);
  course_ = (this->*kRequests[kind_].handler)();
}

void Transaction::goOnOrEnd() {
  if (course_.isOver())
    end();
  else
    goOnLater();
}

void Transaction::setNext(std::shared_ptr<Transaction> next) {
  Transaction* last = this;
  while (last->next_ != nullptr) last = last->next_.get();
  last->next_ = std::move(next);
}

void Transaction::end() {
  // What is no request of the table is counted behind it.
  static_assert(std::size(kRequests) < Statistics::kMostNames);
  Statistics::Requests& requests = server().statistics().requests[kind_];
  requests.latencies.add(Slice::Clock::now() - began_);
  if (hasFailed_) ++requests.failed;
  client_->setUnfinished({});
  if (next_ != nullptr) client_->serve(std::exchange(next_, nullptr));
}

Array Transaction::requestFigures() const {
  const auto seconds = [](std::chrono::nanoseconds time) {
    return std::chrono::duration<double>(time).count();
  };
  Array all;
  for (size_t kind = 0; kind <= kRequestCount; ++kind) {
    const auto& [latencies, failed] = server().statistics().requests[kind];
    Dictionary row = {{statuskey::name, kind < kRequestCount ? kRequests[kind].name : kOtherRequests},
                      {statuskey::count, latencies.count()},
                      {statuskey::failed, failed},
                      {statuskey::seconds, seconds(latencies.total())}};
    if (latencies.count() > 0) {
      row.set(statuskey::p50, seconds(latencies.quantile(0.5)));
      row.set(statuskey::p99, seconds(latencies.quantile(0.99)));
    }
    all.append(std::move(row));
  }
  return all;
}

void Transaction::goOnLater() {
  if (connection_ == nullptr) return;
  client_->setUnfinished(weak_from_this());
  connection_->goOnLater([transaction = shared_from_this()] {
    transaction->server().submitWork([transaction] {
      transaction->beginSlice(Slice::Clock::now());
      transaction->goThrough([&] { transaction->course_.goOn(); });
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
  hasFailed_ = true;
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
