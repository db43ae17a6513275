#pragma once

// One search, candidate by candidate: what the database offers is filtered (visibility, holds, rules,
// exclusions, access), duplicates are resolved, replacements are marked. "match" takes what remains.
// "explain" has some plug-ins explained on the way, with every test that was made; the others cost no more
// than in a "match". A value of one request; only on the service queue.

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "abd/database/ABDatabase.h"
#include "abd/plugin/Explanation.h"
#include "abd/plugin/PlugInForm.h"
#include "abd/plugin/Rules.h"
#include "abd/requests/DuplicateResolver.h"
#include "platform/qmx/Encoding.h"

namespace abd {

class ABDServer;
class RequestHost;

/// What a search asks for.
struct SearchTerms {
  std::optional<Dictionary> rules;
  uint64_t flags = 0;
};

class Matching {
 public:
  /// By UUID, of the plug-ins that are to be explained.
  using Explanations = std::unordered_map<UUID, Explanation>;

  /// `explanations`, null when there are none, and the others live longer.
  Matching(ABDServer& server, RequestHost& host, const SearchTerms& terms,
           Explanations* explanations = nullptr);
  Matching(const Matching&) = delete;
  Matching& operator=(const Matching&) = delete;

  bool isOver() const { return found_.isOver() && next_ == candidates_.size(); }
  /// Goes on by one candidate. REQUIRES: not over.
  void step();
  /// REQUIRES: over. Once.
  void finish();
  /// The forms of what was found, for the reply.
  EncodedPropertyList encoded() const;

  // For explanations, after finish().

  /// Explains a plug-in that the search did not look at.
  void explainOther(const ABDPlugIn& plugIn, Explanation& why) const;
  /// Whether `other` would get as far as the test for duplicates, as things are or after `change`.
  bool competes(const ABDPlugIn& other, const std::optional<std::string>& change) const;
  /// Explains to which of those that compete with it the plug-in would lose, if to any.
  void explainRivals(const ABDPlugIn& plugIn, const ABDPlugInSet& rivals, Explanation& why) const;

 private:
  struct Accepted {
    PlugInForm form;
    bool isDisplaced = false;
  };

  Explanation* explanationOf(const UUID& uuid) const;
  void collect();
  std::shared_ptr<ABDPlugIn> nextExplained(Explanation& why);
  void beginTests();
  bool isPrivileged() const;
  bool isVisible(const ABDPlugIn& plugIn, Explanation* why) const;
  bool isFree(const ABDPlugIn& plugIn, Explanation* why) const;
  bool fitsRules(const ABDPlugIn& plugIn, Explanation* why) const;
  bool isExcluded(const ABDPlugIn& plugIn, Explanation* why) const;
  bool isAllowed(const ABDPlugIn& plugIn, Explanation* why) const;
  /// Every test but the one for duplicates. With `why` all are made.
  bool finds(const ABDPlugIn& plugIn, Explanation* why) const;
  void add(const ABDPlugIn& plugIn, Explanation* why);
  void noteReplacements(const ABDPlugIn& plugIn, size_t number);
  void markOverrides();

  ABDServer& server_;
  RequestHost& host_;
  const SearchTerms& terms_;
  const Rules rules_;
  const std::vector<std::unique_ptr<const Rules>> exclusions_;
  const std::optional<std::string> plugInsPath_;  // where the host's own plug-ins are
  Explanations* const explanations_;

  ABDPlugInSearch found_;
  ABDPlugInSet candidates_;
  size_t next_ = 0;  // of the candidates
  std::optional<DuplicateResolver> duplicates_;
  // Displaced duplicates stay in the list, marked, because the table of overrides may still name them.
  std::vector<Accepted> accepted_;
  size_t displacedCount_ = 0;
  std::unordered_map<std::string, size_t> overrides_;  // replaced identifier to the replacing form
};

}  // namespace abd
