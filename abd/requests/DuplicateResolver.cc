#include "abd/requests/DuplicateResolver.h"

#include <algorithm>

#include "Ambrel/ABCollections.h"
#include "Ambrel/ABProtocol.h"

namespace abd {

namespace {

using Candidate = DuplicateResolver::Candidate;

/// A missing version is the same as any other.
std::weak_ordering compareVersions(const Candidate& candidate, const Candidate& rival) {
  if (!candidate.version || !rival.version) return std::weak_ordering::equivalent;
  return ambrel::compareVersionString(*candidate.version, *rival.version);
}

using Preference = DuplicateResolver::Preference;

struct Order {
  bool isPreferred;
  Preference by;
};

Order weigh(const Candidate& candidate, const Candidate& rival) {
  const std::weak_ordering versions = compareVersions(candidate, rival);
  if (versions != 0) return {versions > 0, Preference::version};
  if (candidate.onSystemVolume && !rival.onSystemVolume) return {true, Preference::systemVolume};
  return {candidate.lastModified > rival.lastModified, Preference::registration};
}

}  // namespace

bool DuplicateResolver::VersionOrder::operator()(std::string_view a, std::string_view b) const {
  return ambrel::compareVersionString(a, b) < 0;
}

DuplicateResolver::DuplicateResolver(uint64_t flags, size_t expected)
    : keepsAllVersions_((flags & ambrel::ABDiscoverAllVersions) != 0),
      keepsEverything_(keepsAllVersions_ && (flags & ambrel::ABDiscoverDuplicates) != 0) {
  if (keepsEverything_) return;
  accepted_.reserve(expected);
  isDisplaced_.reserve(expected);
  groups_.reserve(expected);
}

DuplicateResolver::Verdict DuplicateResolver::admit(Candidate candidate) {
  if (keepsEverything_) return {.accepted = true, .rival = {}};
  Group& group = groups_[candidate.identifier];
  if (keepsAllVersions_ && group.versions == nullptr) group.versions = std::make_unique<Versions>();
  const std::optional<size_t> rival =
      keepsAllVersions_ ? firstRival(*group.versions, candidate) : std::optional<size_t>(group.only);
  Preference by{};
  if (rival) {
    const Candidate& other = accepted_[*rival];
    const Order order = weigh(candidate, other);
    by = order.by;
    if (!order.isPreferred) return {.accepted = false, .rival = rival, .by = by};
    isDisplaced_[*rival] = true;
    if (keepsAllVersions_) std::erase(sameVersion(*group.versions, other), *rival);
  }
  const size_t number = accepted_.size();
  if (keepsAllVersions_) {
    group.versions->members.push_back(number);
    sameVersion(*group.versions, candidate).push_back(number);
  } else {
    group.only = static_cast<uint32_t>(number);
  }
  accepted_.push_back(std::move(candidate));
  isDisplaced_.push_back(false);
  return {.accepted = true, .rival = rival, .by = by};
}

/// The first of the accepted ones at which the scan would end.
std::optional<size_t> DuplicateResolver::firstRival(Versions& versions, const Candidate& candidate) const {
  if (candidate.version) {
    std::optional<size_t> rival;
    if (const auto same = versions.byVersion.find(*candidate.version);
        same != versions.byVersion.end() && !same->second.empty())
      rival = same->second.front();
    if (!versions.withoutVersion.empty())
      rival = rival ? std::min(*rival, versions.withoutVersion.front()) : versions.withoutVersion.front();
    return rival;
  }
  const std::vector<size_t>& members = versions.members;
  while (versions.first < members.size() && isDisplaced_[members[versions.first]]) ++versions.first;
  if (versions.first == members.size()) return std::nullopt;
  return members[versions.first];
}

std::vector<size_t>& DuplicateResolver::sameVersion(Versions& versions, const Candidate& candidate) {
  return candidate.version ? versions.byVersion[*candidate.version] : versions.withoutVersion;
}

}  // namespace abd
