#include "abd/plugin/Explanation.h"

#include <algorithm>

#include "platform/log/Log.h"

namespace abd {

void Explanation::pass(std::string_view stage, std::string text, Dictionary details) {
  findings_.push_back({stage, true, std::move(text), {}, std::move(details)});
}

void Explanation::fail(std::string_view stage, std::string text, std::string change, Dictionary details) {
  const Value& key = details[findingkey::key];
  const bool isKnown = !key.isNone() && std::ranges::any_of(findings_, [&key](const Finding& each) {
    return !each.passed && each.details[findingkey::key] == key;
  });
  findings_.push_back({stage, false, std::move(text), std::move(change), std::move(details)});
  if (!isKnown) ++failures_;
}

bool Explanation::has(std::string_view stage) const {
  return std::ranges::find(findings_, stage, &Finding::stage) != findings_.end();
}

std::optional<std::string> Explanation::change() const {
  // Rules are told of wherever all tests were made.
  if (failures_ != 1 || !has(stage::rule)) return std::nullopt;
  const Finding& failure = *std::ranges::find(findings_, false, &Finding::passed);
  return failure.change.empty() ? std::nullopt : std::optional(failure.change);
}

std::string Explanation::summary(const std::string& plugIn, const std::string& host) const {
  if (isOffered_) return format("%@ is offered to %@.", plugIn, host);
  const Finding& first = *std::ranges::find(findings_, false, &Finding::passed);
  const std::string reason = format("%@ is not offered to %@: %@", plugIn, host, first.text);
  if (failures_ > 1) return format("%@; %d more failed.", reason, failures_ - 1);
  return reason + ".";
}

Array Explanation::findings() const {
  Array all;
  for (const Finding& finding : findings_) {
    Dictionary each = finding.details;
    each.set(findingkey::stage, finding.stage);
    each.set(findingkey::passed, finding.passed);
    each.set(findingkey::text, finding.text);
    if (!finding.change.empty()) each.set(findingkey::change, finding.change);
    all.append(std::move(each));
  }
  return all;
}

}  // namespace abd
