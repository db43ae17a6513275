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
  Group& group = groups_[candidate.identifier];
  if (keepsAllVersions_ && group.versions == nullptr) group.versions = std::make_unique<Versions>();
  const std::optional<size_t> rival =
      keepsAllVersions_ ? firstRival(*group.versions, candidate) : std::optional<size_t>(group.only);
  if (rival) {
    const Candidate& other = accepted_[*rival];
    const std::weak_ordering order = compareVersions(candidate, other);
    if (order < 0 || (order == 0 && !isPreferred(candidate, other))) return {};
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
  return {.accepted = true, .displaced = rival};
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
