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

/// Between two of the same version.
bool isPreferred(const Candidate& candidate, const Candidate& rival) {
  if (candidate.onSystemVolume && !rival.onSystemVolume) return true;
  return candidate.lastModified > rival.lastModified;
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
  if (keepsEverything_) return {.accepted = true, .displaced = {}};
  Group& group = groups_[candidate.identifier.view()];
  if (keepsAllVersions_ && group.versions == nullptr) group.versions = std::make_unique<Versions>();
  const std::optional<size_t> rival = firstRival(group, candidate);
  if (rival) {
    const Candidate& other = accepted_[*rival];
    const std::weak_ordering order = compareVersions(candidate, other);
    if (order < 0 || (order == 0 && !isPreferred(candidate, other))) return {};
    isDisplaced_[*rival] = true;
    if (keepsAllVersions_) std::erase(sameVersion(group, other), *rival);
  }
  const size_t number = accepted_.size();
  group.members.push_back(number);
  if (keepsAllVersions_) sameVersion(group, candidate).push_back(number);
  accepted_.push_back(std::move(candidate));
  isDisplaced_.push_back(false);
  return {.accepted = true, .displaced = rival};
}

/// The first of the accepted ones at which the scan would end.
std::optional<size_t> DuplicateResolver::firstRival(Group& group, const Candidate& candidate) {
  if (keepsAllVersions_ && candidate.version) {
    const Versions& versions = *group.versions;
    std::optional<size_t> rival;
    if (const auto same = versions.byVersion.find(candidate.version->view());
        same != versions.byVersion.end() && !same->second.empty())
      rival = same->second.front();
    if (!versions.withoutVersion.empty())
      rival = rival ? std::min(*rival, versions.withoutVersion.front()) : versions.withoutVersion.front();
    return rival;
  }
  while (group.first < group.members.size() && isDisplaced_[group.members[group.first]]) ++group.first;
  if (group.first == group.members.size()) return std::nullopt;
  return group.members[group.first];
}

std::vector<size_t>& DuplicateResolver::sameVersion(Group& group, const Candidate& candidate) {
  Versions& versions = *group.versions;
  return candidate.version ? versions.byVersion[candidate.version->view()] : versions.withoutVersion;
}

}  // namespace abd
