#pragma once

// Decides which plug-ins of one identifier a "match" request returns. Candidates are admitted one by one, and
// the outcome is that of scanning the accepted ones in order of acceptance: the scan ends at the first one
// that the candidate displaces or is dropped for. Finding that one takes no scan. A value of one request.

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <memory_resource>
#include <optional>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace abd {

class DuplicateResolver {
 public:
  /// Its texts are kept by the caller as long as the resolver lives.
  struct Candidate {
    std::string_view identifier;
    std::optional<std::string_view> version;
    bool onSystemVolume = false;
    int64_t lastModified = 0;
  };
  /// What makes the difference between two of one identifier.
  enum class Preference : uint8_t { version, systemVolume, registration };
  struct Verdict {
    bool accepted = false;
    /// The accepted candidate that this one displaces, or else loses to, by its number in order of
    /// acceptance.
    std::optional<size_t> rival;
    Preference by{};  // where there is a rival
  };

  /// `flags` are the discovery flags of the request; about `expected` candidates will be accepted.
  explicit DuplicateResolver(uint64_t flags, size_t expected = 0);

  Verdict admit(Candidate candidate);

 private:
  struct VersionOrder {
    bool operator()(std::string_view a, std::string_view b) const;
  };
  /// Where all versions are wanted: the accepted candidates of one identifier, by their numbers in order of
  /// acceptance.
  struct Versions {
    std::vector<size_t> members;  // those before `first` were displaced
    size_t first = 0;
    // Those that were not displaced.
    std::map<std::string_view, std::vector<size_t>, VersionOrder> byVersion;
    std::vector<size_t> withoutVersion;
  };
  /// What is accepted of one identifier. Few bytes: there are mostly as many groups as candidates.
  struct Group {
    std::optional<uint32_t> only;        // the number of the one that was not displaced
    std::unique_ptr<Versions> versions;  // instead of it when all versions are wanted
  };

  std::optional<size_t> firstRival(Versions& versions, const Candidate& candidate) const;
  static std::vector<size_t>& sameVersion(Versions& versions, const Candidate& candidate);

  const bool keepsAllVersions_;
  const bool keepsEverything_;
  std::vector<Candidate> accepted_;
  std::vector<bool> isDisplaced_;
  std::pmr::monotonic_buffer_resource memory_;
  std::pmr::unordered_map<std::string_view, Group> groups_{&memory_};
};

}  // namespace abd
