#pragma once

// What the tests of a search have found about one plug-in, in words. Nothing is decided here.

#include <vector>

#include "Ambrel/ABRecordTrace.h"
#include "abd/database/ABDatabase.h"
#include "abd/plugin/ABDPlugIn.h"
#include "abd/plugin/Explanation.h"
#include "abd/requests/DuplicateResolver.h"

namespace abd {

class ABDServer;
class RequestHost;

/// A bundle in which nothing is registered.
void explainStanding(const HLBundleStanding& standing, Explanation& why);
/// A registered plug-in with a record, or without one, because of what its making told `trace`.
void explainCandidate(const HLAmbrelProxy& proxy, Explanation& why);
void explainMissingRecord(const HLAmbrelProxy& proxy, const ABRecordTrace& trace, Explanation& why);
/// A plug-in that was not looked at: because of the literals that are named, or else of the elections.
void explainNarrowing(const HLAmbrelProxy& proxy, const Narrowing& narrowing, bool byIdentifier, bool byPoint,
                      Explanation& why);
void explainVisibility(const ABDPlugIn& plugIn, const RequestHost& host, bool isInPlace, bool isOwn,
                       Explanation& why);
void explainHolds(ABDServer& server, const ABDPlugIn& plugIn, bool isHeld, Explanation& why);
void explainRules(const std::vector<ABDPlugIn::TriedRule>& tried, Explanation& why);
void explainExclusion(const Dictionary& exclusion, Explanation& why);
/// `rival` is returned instead.
void explainRival(const ABDPlugIn& rival, DuplicateResolver::Preference by, Explanation& why);
void explainReplacement(const ABDPlugIn& replacing, Explanation& why);

}  // namespace abd
