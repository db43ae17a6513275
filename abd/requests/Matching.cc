#include "abd/requests/Matching.h"

#include <utility>

#include "Ambrel/ABInfoKeys.h"
#include "Ambrel/ABProtocol.h"
#include "Ambrel/ABRecordTrace.h"
#include "abd/ABDServer.h"
#include "abd/ABDTrace.h"
#include "abd/RequestHost.h"
#include "abd/requests/MatchFindings.h"
#include "abd/requests/Transaction.h"
#include "platform/log/Log.h"

namespace abd {

namespace {

using Candidate = DuplicateResolver::Candidate;

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

Candidate candidateOf(const ABDPlugIn& plugIn) {
  return {.identifier = plugIn.identifier(),
          .version = plugIn.version().string(),
          .onSystemVolume = plugIn.onSystemVolume(),
          .lastModified = plugIn.lastModified()};
}

}  // namespace

Matching::Matching(ABDServer& server, RequestHost& host, const SearchTerms& terms, Explanations* explanations)
    : server_(server),
      host_(host),
      terms_(terms),
      rules_(terms.rules.value_or(Dictionary()), host.settings().types()),
      exclusions_(rulesInList(server.userPrefs().exclusions(), host.settings().types())),
      plugInsPath_(host.bundle() != nullptr ? host.bundle()->plugInsPath() : std::nullopt),
      explanations_(explanations),
      found_(server.search(Narrowing(terms.rules))) {
  candidates_.reserve(found_.size());
  if (found_.isOver()) beginTests();
}

Explanation* Matching::explanationOf(const UUID& uuid) const {
  if (explanations_ == nullptr) return nullptr;
  const auto found = explanations_->find(uuid);
  return found == explanations_->end() ? nullptr : &found->second;
}

// --- The tests ---

bool Matching::isPrivileged() const {
  return (terms_.flags & ABDiscoverAll) != 0;
}

bool Matching::isVisible(const ABDPlugIn& plugIn, Explanation* why) const {
  const bool isInPlace =
      plugIn.onSystemVolume() || (plugIn.containingUrl() && (terms_.flags & ABDiscoverSystemOnly) == 0);
  if (!isInPlace && why == nullptr) return false;
  const bool isOwn = !plugIn.isDedicated() || (plugInsPath_ && plugIn.path().starts_with(*plugInsPath_));
  if (why != nullptr) explainVisibility(plugIn, host_, isInPlace, isOwn, *why);
  return isInPlace && isOwn;
}

bool Matching::isFree(const ABDPlugIn& plugIn, Explanation* why) const {
  const bool isHeld = server_.holdOnPlugIn(plugIn);
  if (why != nullptr) explainHolds(server_, plugIn, isHeld, *why);
  return !isHeld;
}

bool Matching::fitsRules(const ABDPlugIn& plugIn, Explanation* why) const {
  if (why == nullptr) return plugIn.matchRules(rules_);
  std::vector<ABDPlugIn::TriedRule> tried;
  const bool fits = plugIn.matchRules(rules_, &tried);
  explainRules(tried, *why);
  return fits;
}

bool Matching::isExcluded(const ABDPlugIn& plugIn, Explanation* why) const {
  bool isOut = false;
  for (const std::unique_ptr<const Rules>& exclusion : exclusions_) {
    if (!plugIn.matchRules(*exclusion)) continue;
    isOut = true;
    if (why == nullptr) break;
    explainExclusion(exclusion->dictionary(), *why);
  }
  if (why == nullptr && isOut)
    server_.debug("client %d plugin %@ excluded", host_.pid(), plugIn.identifier());
  if (why != nullptr && !isOut) why->pass(stage::exclusion, "the user has not excluded it");
  return isOut;
}

bool Matching::isAllowed(const ABDPlugIn& plugIn, Explanation* why) const {
  const std::optional<std::string> reason = plugIn.allowForClient(host_, why);
  if (!reason) return true;
  if (why == nullptr)
    server_.debug("client %d cannot use plugin %@: %@", host_.pid(), plugIn.identifier(), *reason);
  return false;
}

bool Matching::finds(const ABDPlugIn& plugIn, Explanation* why) const {
  bool found = true;
  const auto goesOn = [&found, why](bool passed) {
    found = found && passed;
    return found || why != nullptr;
  };
  if (!isPrivileged()) {
    if (!goesOn(isVisible(plugIn, why)) || !goesOn(isFree(plugIn, why))) return false;
  } else if (why != nullptr) {
    why->pass(stage::visibility,
              "the search is for every plug-in: visibility, holds and access do not count");
  }
  if (!goesOn(fitsRules(plugIn, why)) || !goesOn(!isExcluded(plugIn, why))) return false;
  if (!isPrivileged()) goesOn(isAllowed(plugIn, why));
  return found;
}

// --- The search ---

void Matching::step() {
  if (!found_.isOver()) {
    collect();
    return;
  }
  const ABDPlugIn& plugIn = *candidates_[next_++];
  Explanation* const why = explanations_ != nullptr ? explanationOf(plugIn.uuid()) : nullptr;
  if (why != nullptr) explainCandidate(*plugIn.hlproxy(), *why);
  if (finds(plugIn, why)) add(plugIn, why);
}

void Matching::collect() {
  const HLAmbrelProxy& proxy = found_.upcoming();
  Explanation* const why = explanations_ != nullptr ? explanationOf(proxy.pluginUUID()) : nullptr;
  if (auto plugIn = why != nullptr ? nextExplained(*why) : found_.next())
    candidates_.push_back(std::move(plugIn));
  if (found_.isOver()) beginTests();
}

std::shared_ptr<ABDPlugIn> Matching::nextExplained(Explanation& why) {
  const HLAmbrelProxy& proxy = found_.upcoming();
  ABRecordTrace trace;
  auto plugIn = found_.next(&trace);
  if (plugIn == nullptr) explainMissingRecord(proxy, trace, why);
  return plugIn;
}

void Matching::beginTests() {
  if (explanations_ == nullptr) trace::discoverRaw(static_cast<uint32_t>(candidates_.size()));
  duplicates_.emplace(terms_.flags, candidates_.size());
  accepted_.reserve(candidates_.size());
}

void Matching::add(const ABDPlugIn& plugIn, Explanation* why) {
  std::optional<Error> error;
  PlugInForm exported = plugIn.requestForm(&error);
  if (error) systemLog("error matching %@: %@", plugIn.path(), *error);
  const DuplicateResolver::Verdict verdict = duplicates_->admit(candidateOf(plugIn));
  if (!verdict.accepted) {
    if (why != nullptr) explainRival(*accepted_[*verdict.rival].form.plugIn(), verdict.by, *why);
    return;
  }
  if (verdict.rival) {
    Accepted& displaced = accepted_[*verdict.rival];
    displaced.isDisplaced = true;
    ++displacedCount_;
    if (explanations_ != nullptr)
      if (Explanation* const its = explanationOf(displaced.form.plugIn()->uuid()))
        explainRival(plugIn, verdict.by, *its);
  }
  accepted_.push_back({.form = std::move(exported)});
  PlugInForm& form = accepted_.back().form;
  Transaction::addAnnotationForPlugIn(server_, plugIn, form);
  plugIn.augmentForm(form);
  noteReplacements(plugIn, accepted_.size() - 1);
}

void Matching::noteReplacements(const ABDPlugIn& plugIn, size_t number) {
  const Value& replaced = plugIn.valueForEntitlement(entitlement::replacePlugIn);
  if (const auto identifier = replaced.string()) {
    overrides_[std::string(*identifier)] = number;
  } else if (const Array* identifiers = replaced.array()) {
    for (const Value& each : *identifiers)
      if (const auto one = each.string()) overrides_[std::string(*one)] = number;
  }
}

void Matching::markOverrides() {
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

void Matching::finish() {
  markOverrides();
  if (explanations_ == nullptr) return;
  for (const Accepted& each : accepted_) {
    const ABDPlugIn& plugIn = *each.form.plugIn();
    Explanation* const why = each.isDisplaced ? nullptr : explanationOf(plugIn.uuid());
    if (why == nullptr) continue;
    why->setOffered();
    why->pass(stage::duplicate, "no other plug-in of its identifier is preferred");
    const auto replacing = overrides_.find(std::string(plugIn.identifier().view()));
    if (replacing != overrides_.end()) explainReplacement(*accepted_[replacing->second].form.plugIn(), *why);
  }
}

EncodedPropertyList Matching::encoded() const {
  qmx::EncodedListBuilder builder;
  builder.beginArray(accepted_.size() - displacedCount_);
  for (const Accepted& each : accepted_)
    if (!each.isDisplaced) each.form.encodeInto(builder);
  return builder.finish();
}

// --- What was not looked at ---

void Matching::explainOther(const ABDPlugIn& plugIn, Explanation& why) const {
  const Narrowing narrowing(terms_.rules);
  const auto leavesOut = [&](Narrowing::Literals Narrowing::*part) {
    if (!(narrowing.*part)) return false;
    Narrowing alone;
    alone.*part = narrowing.*part;
    return !server_.search(alone).contains(plugIn.uuid());
  };
  const bool hasOtherIdentifier = leavesOut(&Narrowing::identifiers);
  const bool hasOtherPoint = leavesOut(&Narrowing::points);
  explainNarrowing(*plugIn.hlproxy(), narrowing, hasOtherIdentifier, hasOtherPoint, why);
  finds(plugIn, &why);
}

bool Matching::competes(const ABDPlugIn& other, const std::optional<std::string>& change) const {
  Explanation theirs;
  explainOther(other, theirs);
  return !theirs.hasFailed() || theirs.change() == change;
}

void Matching::explainRivals(const ABDPlugIn& plugIn, const ABDPlugInSet& rivals, Explanation& why) const {
  DuplicateResolver resolver(terms_.flags);
  ABDPlugInSet accepted;
  for (const std::shared_ptr<ABDPlugIn>& rival : rivals)
    if (resolver.admit(candidateOf(*rival)).accepted) accepted.push_back(rival);
  const DuplicateResolver::Verdict verdict = resolver.admit(candidateOf(plugIn));
  if (!verdict.accepted) explainRival(*accepted[*verdict.rival], verdict.by, why);
}

}  // namespace abd
