// "explain": why a search finds some plug-ins, or does not. The whole search is made, by the code that
// answers "match", so that the outcome for each is that of a "match"; then those that it did not look at are
// judged one by one.

#include <sys/types.h>

#include "Ambrel/ABErrors.h"
#include "Ambrel/ABInfoKeys.h"
#include "Ambrel/ABProtocol.h"
#include "abd/ABDQmxClient.h"
#include "abd/ABDServer.h"
#include "abd/requests/MatchFindings.h"
#include "abd/requests/Matching.h"
#include "abd/requests/Transaction.h"
#include "platform/qmx/Encoding.h"
#include "platform/system/Directories.h"

namespace abd {

namespace {

/// Names of one request, and plug-ins that they mean.
constexpr size_t kMaximumExplained = 4096;

/// What one name of the request means.
struct Subject {
  std::string name;
  HLBundleStanding standing;  // `plugIns` are those that are meant
};

HLProxyList namedAs(ABDServer& server, std::string_view identifier) {
  const std::vector<std::string> identifiers = {std::string(identifier)};
  return server.workspace()
      .pluginsWithIdentifiers(&identifiers, nullptr, nullptr, {})
      .value_or(HLProxyList());
}

/// The plug-ins that a name means: an identifier's, a UUID's, or those of the bundle or application at a
/// path.
HLBundleStanding standingOf(ABDServer& server, const std::string& name) {
  if (name.starts_with('/')) {
    HLBundleStanding standing = server.workspace().standingOf(name);
    if (const auto application = HLApplicationProxy::applicationProxyForBundleURL(URL::file(name)))
      standing.plugIns = application->ambrelPlugins();
    return standing;
  }
  HLBundleStanding standing;
  if (const auto uuid = UUID::fromString(name)) {
    if (auto proxy = HLAmbrelProxy::ambrelProxyForUUID(*uuid)) standing.plugIns.push_back(std::move(proxy));
  } else {
    standing.plugIns = namedAs(server, name);
  }
  return standing;
}

Dictionary explanation(const Subject& subject, const std::string& plugIn, const Explanation& why,
                       const RequestHost& host) {
  Dictionary out = {{explanationkey::name, subject.name},
                    {explanationkey::host, host.name()},
                    {explanationkey::offered, why.isOffered()},
                    {explanationkey::summary, why.summary(plugIn, host.name())},
                    {explanationkey::findings, why.findings()}};
  if (const auto change = why.change()) out.set(explanationkey::change, *change);
  return out;
}

/// Of a name that means no plug-in.
Dictionary explainAbsence(const Subject& subject, const RequestHost& host) {
  Explanation why;
  if (subject.standing.path.empty())
    why.fail(stage::registration, format("nothing is registered as %@", subject.name),
             "name the path of its bundle to hear more");
  else
    explainStanding(subject.standing, why);
  return explanation(subject, subject.name, why, host);
}

Dictionary explainPlugIn(const Subject& subject, const HLAmbrelProxy& proxy, const ABDPlugIn* plugIn,
                         const Explanation& why, const RequestHost& host) {
  const String& identifier = proxy.pluginIdentifier();
  const auto version = plugIn != nullptr ? plugIn->version().string() : std::nullopt;
  const std::string name = version ? format("%@ %@", identifier, *version) : std::string(identifier.view());
  Dictionary out = explanation(subject, name, why, host);
  out.set(formkey::identifier, identifier);
  out.set(formkey::uuid, proxy.pluginUUID().string());
  if (version) out.set(formkey::version, *version);
  if (const auto url = proxy.bundleURL()) out.set(formkey::path, url->path());
  return out;
}

}  // namespace

std::optional<RequestHost> Transaction::explainedHost() {
  const Value& pid = request_.body[explainkey::pid];
  const String* const bundle = request_.string(explainkey::bundle);
  if (pid.isNumber()) {
    if (const auto client = server().clientOf(static_cast<pid_t>(pid.integerValue())))
      return RequestHost(*client);
    fail(kABErrorRequest, format("process %d is not connected", pid.integerValue()));
    return std::nullopt;
  }
  if (bundle == nullptr) return RequestHost(*client_);
  const std::string path = canonicalPath(std::string(bundle->view()));
  if (!path.empty() && bundle->view().starts_with('/')) return RequestHost(path);
  fail(kABErrorPath, format("invalid path: %@", *bundle));
  return std::nullopt;
}

Course Transaction::explainPlugIns() {
  const std::optional<SearchTerms> terms = searchTerms();
  if (!terms) co_return;
  std::optional<RequestHost> host = explainedHost();
  if (!host) co_return;
  const Array* const names = request_.body[explainkey::plugIns].array();
  if (names == nullptr || names->size() > kMaximumExplained)
    co_return fail(kABErrorRequest, "invalid request format (plug-ins)");

  std::vector<Subject> subjects;
  Matching::Explanations explanations;
  for (const Value& each : *names) {
    const auto name = each.string();
    if (!name) co_return fail(kABErrorRequest, "invalid request format (plug-ins)");
    subjects.push_back({std::string(*name), standingOf(server(), std::string(*name))});
    for (const auto& proxy : subjects.back().standing.plugIns) explanations.try_emplace(proxy->pluginUUID());
    if (explanations.size() > kMaximumExplained)
      co_return fail(kABErrorRequest, format("invalid request (more than %d plug-ins)", kMaximumExplained));
    co_await giveWay();
  }

  Matching matching(server(), *host, *terms, &explanations);
  while (!matching.isOver()) {
    matching.step();
    co_await giveWay();
  }
  matching.finish();

  Array all;
  for (const Subject& subject : subjects) {
    if (subject.standing.plugIns.empty()) all.append(explainAbsence(subject, *host));
    for (const auto& proxy : subject.standing.plugIns) {
      Explanation& why = explanations[proxy->pluginUUID()];
      ABRecordTrace trace;
      const std::shared_ptr<ABDPlugIn> plugIn = server().plugInForProxy(proxy, &trace);
      if (plugIn == nullptr && why.isEmpty()) explainMissingRecord(*proxy, trace, why);
      if (why.isEmpty()) matching.explainOther(*plugIn, why);
      // Where one test failed, somebody of the same identifier may still be preferred after the change.
      if (why.change() && !why.has(stage::duplicate)) {
        ABDPlugInSet rivals;
        for (const auto& other : namedAs(server(), proxy->pluginIdentifier())) {
          auto rival = other != proxy ? server().plugInForProxy(other) : nullptr;
          if (rival != nullptr && matching.competes(*rival, why.change())) rivals.push_back(std::move(rival));
          co_await giveWay();
        }
        matching.explainRivals(*plugIn, rivals, why);
      }
      all.append(explainPlugIn(subject, *proxy, plugIn.get(), why, *host));
      co_await giveWay();
    }
  }
  setReply(explainkey::explanations, qmx::encodePropertyList(all));
  done();
}

}  // namespace abd
