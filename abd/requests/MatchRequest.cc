// "match": discovery. Candidates from the database are filtered one by one (visibility, rules, exclusions,
// access, duplicates); what remains is joined into the reply from the records' kept encodings.

#include <memory>
#include <unordered_map>
#include <vector>

#include "Ambrel/ABBundle.h"
#include "Ambrel/ABInfoKeys.h"
#include "Ambrel/ABProtocol.h"
#include "abd/ABDQmxClient.h"
#include "abd/ABDServer.h"
#include "abd/ABDTrace.h"
#include "abd/plugin/ABDPlugIn.h"
#include "abd/plugin/Rules.h"
#include "abd/requests/DuplicateResolver.h"
#include "abd/requests/Transaction.h"
#include "platform/log/Log.h"

namespace abd {

namespace {

/// What one request asks for, and who asks.
struct Search {
  ABDServer& server;
  ABDQmxClient& client;
  const Rules& rules;
  const uint64_t flags;
  const std::vector<std::unique_ptr<const Rules>> exclusions;
  const std::optional<std::string> plugInsPath;  // where the client's own plug-ins are

  bool isPrivileged() const { return (flags & ABDiscoverAll) != 0; }
  bool isVisible(const ABDPlugIn& plugIn) const;
  bool isExcluded(const ABDPlugIn& plugIn) const;
  bool isAllowed(const ABDPlugIn& plugIn) const;
  /// Every test but the one for duplicates.
  bool finds(const ABDPlugIn& plugIn) const;
};

/// The rule dictionaries of a list that may be anything.
std::vector<std::unique_ptr<const Rules>> rulesInList(const Value& value, TypeConformances& types) {
  std::vector<std::unique_ptr<const Rules>> all;
  const Array* list = value.array();
  if (list == nullptr) return all;
  for (const Value& each : *list)
    if (const Dictionary* rules = each.dictionary())
      all.push_back(std::make_unique<const Rules>(*rules, types));
  return all;
}

bool Search::isVisible(const ABDPlugIn& plugIn) const {
  if (!plugIn.onSystemVolume() && (!plugIn.containingUrl() || (flags & ABDiscoverSystemOnly) != 0))
    return false;
  if (plugIn.isDedicated() && (!plugInsPath || !plugIn.path().starts_with(*plugInsPath))) return false;
  return !server.holdOnPlugIn(plugIn);
}

bool Search::isExcluded(const ABDPlugIn& plugIn) const {
  for (const std::unique_ptr<const Rules>& exclusion : exclusions) {
    if (!plugIn.matchRules(*exclusion)) continue;
    server.debug("client %d plugin %@ excluded", client.pid(), plugIn.identifier());
    return true;
  }
  return false;
}

bool Search::isAllowed(const ABDPlugIn& plugIn) const {
  const std::optional<std::string> reason = plugIn.allowForClient(client);
  if (!reason) return true;
  server.debug("client %d cannot use plugin %@: %@", client.pid(), plugIn.identifier(), *reason);
  return false;
}

bool Search::finds(const ABDPlugIn& plugIn) const {
  if (!isPrivileged() && !isVisible(plugIn)) return false;
  if (!plugIn.matchRules(rules)) return false;
  return !isExcluded(plugIn) && (isPrivileged() || isAllowed(plugIn));
}

/// The forms that the reply will carry. Displaced duplicates stay in the list, marked, because the table of
/// overrides may still name them.
class Matches {
 public:
  /// At most `candidates` will be added.
  Matches(ABDServer& server, uint64_t flags, size_t candidates)
      : server_(server), duplicates_(flags, candidates) {
    accepted_.reserve(candidates);
  }

  void add(const ABDPlugIn& plugIn);
  void markOverrides();
  EncodedPropertyList encoded() const;

 private:
  struct Accepted {
    PlugInForm form;
    bool isDisplaced = false;
  };
  void noteReplacements(const ABDPlugIn& plugIn, size_t number);

  ABDServer& server_;
  DuplicateResolver duplicates_;
  std::vector<Accepted> accepted_;
  size_t displacedCount_ = 0;
  std::unordered_map<std::string, size_t> overrides_;  // replaced identifier to the replacing form
};

void Matches::add(const ABDPlugIn& plugIn) {
  std::optional<Error> error;
  PlugInForm exported = plugIn.requestForm(&error);
  if (error) systemLog("error matching %@: %@", plugIn.path(), *error);
  const DuplicateResolver::Verdict verdict = duplicates_.admit({.identifier = plugIn.identifier(),
                                                                .version = plugIn.version().string(),
                                                                .onSystemVolume = plugIn.onSystemVolume(),
                                                                .lastModified = plugIn.lastModified()});
  if (!verdict.accepted) return;
  if (verdict.displaced) {
    accepted_[*verdict.displaced].isDisplaced = true;
    ++displacedCount_;
  }
  accepted_.push_back({.form = std::move(exported)});
  PlugInForm& form = accepted_.back().form;
  Transaction::addAnnotationForPlugIn(server_, plugIn, form);
  plugIn.augmentForm(form);
  noteReplacements(plugIn, accepted_.size() - 1);
}

void Matches::noteReplacements(const ABDPlugIn& plugIn, size_t number) {
  const Value& replaced = plugIn.valueForEntitlement(entitlement::replacePlugIn);
  if (const auto identifier = replaced.string()) {
    overrides_[std::string(*identifier)] = number;
  } else if (const Array* identifiers = replaced.array()) {
    for (const Value& each : *identifiers)
      if (const auto one = each.string()) overrides_[std::string(*one)] = number;
  }
}

void Matches::markOverrides() {
  if (overrides_.empty()) return;
  for (Accepted& each : accepted_) {
    if (each.isDisplaced) continue;
    const String& identifier = each.form.plugIn()->identifier();
    const auto entry = overrides_.find(std::string(identifier.view()));
    if (entry == overrides_.end()) continue;
    PlugInForm& replacing = accepted_[entry->second].form;
    each.form.set(PlugInForm::overrider, replacing[formkey::uuid]);
    replacing.set(PlugInForm::overriding, identifier);
  }
}

EncodedPropertyList Matches::encoded() const {
  qmx::EncodedListBuilder builder;
  builder.beginArray(accepted_.size() - displacedCount_);
  for (const Accepted& each : accepted_)
    if (!each.isDisplaced) each.form.encodeInto(builder);
  return builder.finish();
}

}  // namespace

Course Transaction::matchPlugIns() {
  const Value& requestedRules = request_.body[key::rules];
  if (!requestedRules.isNone() && !requestedRules.isDictionary())
    co_return fail(kABErrorRequest, "invalid request format (bad rules dictionary)");
  std::optional<Dictionary> rules;
  if (const Dictionary* dictionary = requestedRules.dictionary()) rules = *dictionary;
  if (rules && Rules::sizeOf(*rules) > kMaximumPatterns)
    co_return fail(kABErrorRequest,
                   format("invalid request format (more than %d patterns)", kMaximumPatterns));
  const uint64_t flags = request_.unsignedValue(key::flags);
  if ((flags & ABDiscoverAll) != 0 &&
      !(client_->hasEntitlement(entitlement::manager) && client_->isUnsandboxed()))
    co_return fail(kABErrorAccess, "unauthorized discovery flag (ABDiscoverAll)");

  TypeConformances& types = client_->settings().types();
  const Rules compiled(rules.value_or(Dictionary()), types);
  const Search search{
      .server = server(),
      .client = *client_,
      .rules = compiled,
      .flags = flags,
      .exclusions = rulesInList(server().userPrefs().exclusions(), types),
      .plugInsPath = client_->bundle() != nullptr ? client_->bundle()->plugInsPath() : std::nullopt};
  ABDPlugInSearch found = server().search(rules);
  ABDPlugInSet candidates;
  candidates.reserve(found.size());
  while (!found.isOver()) {
    if (auto plugIn = found.next()) candidates.push_back(std::move(plugIn));
    co_await giveWay();
  }
  trace::discoverRaw(static_cast<uint32_t>(candidates.size()));

  Matches matches(server(), flags, candidates.size());
  for (const std::shared_ptr<ABDPlugIn>& plugIn : candidates) {
    if (search.finds(*plugIn)) matches.add(*plugIn);
    co_await giveWay();
  }
  matches.markOverrides();
  if (version_ == static_cast<uint64_t>(kProtocolVersion)) setReply(key::matches, matches.encoded());
  done();
}

}  // namespace abd
