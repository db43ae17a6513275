// "match": discovery. What remains of the candidates (Matching.h) is joined into the reply from the records'
// kept encodings.

#include "Ambrel/ABProtocol.h"
#include "abd/ABDQmxClient.h"
#include "abd/ABDServer.h"
#include "abd/requests/Matching.h"
#include "abd/requests/Transaction.h"

namespace abd {

std::optional<SearchTerms> Transaction::searchTerms() {
  const auto refuse = [this](std::string_view text) {
    fail(kABErrorRequest, text);
    return std::nullopt;
  };
  SearchTerms terms{.rules = {}, .flags = request_.unsignedValue(key::flags)};
  const Value& rules = request_.body[key::rules];
  if (rules.isNone()) return terms;
  if (!rules.isDictionary()) return refuse("invalid request format (bad rules dictionary)");
  terms.rules = *rules.dictionary();
  if (Rules::sizeOf(*terms.rules) > kMaximumPatterns)
    return refuse(format("invalid request format (more than %d patterns)", kMaximumPatterns));
  return terms;
}

Course Transaction::matchPlugIns() {
  const std::optional<SearchTerms> terms = searchTerms();
  if (!terms) co_return;
  if ((terms->flags & ABDiscoverAll) != 0 && !client_->isManager())
    co_return fail(kABErrorAccess, "unauthorized discovery flag (ABDiscoverAll)");

  Matching matching(server(), *client_, *terms);
  while (!matching.isOver()) {
    matching.step();
    co_await giveWay();
  }
  matching.finish();
  if (version_ == static_cast<uint64_t>(kProtocolVersion)) setReply(key::matches, matching.encoded());
  done();
}

}  // namespace abd
