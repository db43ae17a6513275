#include "tools/abctl/Daemon.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <iterator>
#include <utility>
#include <variant>

#include "Ambrel/ABCollections.h"
#include "Ambrel/ABDiagnostics.h"
#include "Ambrel/ABInfoKeys.h"
#include "platform/system/Directories.h"

namespace abctl {
namespace {

using platform::Array;
using platform::Dictionary;
using platform::UUID;
using platform::Value;
namespace key = ambrel::key;

const char* const kHowToStart =
    "start it with `abd`, or look at --service and at XDG_RUNTIME_DIR (the daemon and abctl must agree)";

/// Looks before connecting, so that the common mistakes get a clear answer.
void requireSocket(const std::string& service) {
  const std::string& runtime = platform::Directories::shared().runtime;
  if (runtime.empty())
    throw Failure(
        kUnreachable,
        "there is no private runtime directory: XDG_RUNTIME_DIR is not set, and what stands in for it "
        "is somebody else's",
        "set XDG_RUNTIME_DIR as it is set for the daemon");
  const std::string path = runtime + "/" + service;
  struct stat status {};
  if (::stat(path.c_str(), &status) != 0)
    throw Failure(kUnreachable, "no daemon at " + path + ": " + std::strerror(errno), kHowToStart);
  if (!S_ISSOCK(status.st_mode)) throw Failure(kUnreachable, path + " is not a socket", kHowToStart);
}

std::string hintFor(int64_t code) {
  switch (code) {
    case ambrel::kABErrorRegistration:
      return "a plug-in bundle is a directory with an Info.plist that has \"ZQExtension\"; abd's log says "
             "more";
    case ambrel::kABErrorVersion:
      return "abctl and abd are of different versions";
    case ambrel::kABErrorBusy:
      return "close what uses them and try again; single plug-ins can be held while they run (--plugin)";
    default:
      return {};
  }
}

/// Code 4 says many things; this text is the one that means "not found".
constexpr std::string_view kUnknownUUID = "no such plugin (uuid not found)";

Failure failureOf(const platform::Error& error) {
  const bool notFound = error.code == ambrel::kABErrorPath || error.text == kUnknownUUID;
  Failure failure(notFound ? kNothingFound : kRefused, error.localizedDescription(), hintFor(error.code));
  failure.daemonCode = error.code;
  return failure;
}

bool orderedBefore(const Dictionary& a, const Dictionary& b) {
  namespace form = ambrel::formkey;
  const std::string_view first = a[form::identifier].string().value_or("");
  const std::string_view second = b[form::identifier].string().value_or("");
  if (first != second) return first < second;
  const std::weak_ordering versions = ambrel::compareVersionString(a[form::version].string().value_or(""),
                                                                   b[form::version].string().value_or(""));
  if (versions != 0) return versions > 0;
  return a[form::path].string().value_or("") < b[form::path].string().value_or("");
}

}  // namespace

Daemon::Daemon(const Context& context, const char* suffix, int stopDescriptor)
    : service_(context.service + suffix),
      timeoutSeconds_(context.timeoutSeconds),
      stopDescriptor_(stopDescriptor) {
  requireSocket(service_);
  client_ = std::make_unique<ambrel::ABDaemonClient>(service_.c_str());
}

Daemon::~Daemon() = default;

Daemon::Slot::Slot() : arrived(::eventfd(0, EFD_CLOEXEC)) {
  if (arrived.get() < 0) throw Failure(kRefused, std::string("cannot wait: ") + std::strerror(errno));
}

Dictionary Daemon::wait(Slot& slot) {
  // A negative descriptor is left out.
  pollfd ready[] = {{slot.arrived.get(), POLLIN, 0}, {stopDescriptor_, POLLIN, 0}};
  const int limit = static_cast<int>(std::ceil(timeoutSeconds_ * 1000));
  while (::poll(ready, std::size(ready), limit) < 0)
    if (errno != EINTR) throw Failure(kRefused, std::string("cannot wait: ") + std::strerror(errno));
  if (ready[0].revents == 0 && ready[1].revents != 0) throw Stopped();
  if (ready[0].revents == 0)
    throw Failure(kUnreachable, "the daemon did not answer in time", "try again with a longer --timeout");
  const std::lock_guard lock(slot.mutex);
  if (const auto* const broken = std::get_if<platform::qmx::ConnectionError>(&*slot.reply))
    throw Failure(kUnreachable,
                  "no daemon answers at " + platform::Directories::shared().runtime + "/" + service_ + ": " +
                      platform::qmx::description(*broken),
                  kHowToStart);
  const Dictionary body = std::get<platform::qmx::Message>(*slot.reply).body;
  if (const auto error = ambrel::ABDaemonClient::errorInReply(*slot.reply)) {
    Failure failure = failureOf(*error);
    if (body.contains(key::conflicts)) failure.details.set(key::conflicts, body[key::conflicts]);
    throw failure;
  }
  return body;
}

template <typename Send>
Dictionary Daemon::ask(Send&& send, const char* pathHint) {
  const auto slot = std::make_shared<Slot>();
  send([slot](Reply&& reply) {
    const std::lock_guard lock(slot->mutex);
    slot->reply = std::move(reply);
    constexpr uint64_t kOne = 1;
    [[maybe_unused]] const ssize_t written = ::write(slot->arrived.get(), &kOne, sizeof kOne);
  });
  try {
    return wait(*slot);
  } catch (Failure& failure) {
    if (failure.daemonCode == ambrel::kABErrorPath) failure.hint = pathHint;
    throw;
  }
}

/// What is in a property-list message value of a reply.
std::vector<Dictionary> Daemon::dictionariesOf(const Value& list) const {
  const Value all = client_->convertFromQMX(list);
  if (all.array() == nullptr)
    throw Failure(kRefused, "the daemon's answer holds no list", hintFor(ambrel::kABErrorVersion));
  std::vector<Dictionary> dictionaries;
  for (const Value& each : *all.array())
    if (each.isDictionary()) dictionaries.push_back(*each.dictionary());
  return dictionaries;
}

std::vector<Dictionary> Daemon::explain(const Dictionary& request) {
  const Dictionary reply = ask(
      [&](auto done) {
        Dictionary message = client_->request(ambrel::diagnostics::explain);
        for (const Dictionary::Entry& entry : request) message.set(entry.key, entry.value);
        client_->send(std::move(message), std::move(done));
      },
      "--as takes a process that is connected, or the directory of a bundle");
  return dictionariesOf(reply[ambrel::explainkey::explanations]);
}

Dictionary Daemon::status() {
  const Dictionary reply =
      ask([&](auto done) { client_->send(client_->request(ambrel::diagnostics::status), std::move(done)); });
  const Dictionary* const status = reply[ambrel::statuskey::status].dictionary();
  if (status == nullptr)
    throw Failure(kRefused, "the daemon's answer tells nothing", hintFor(ambrel::kABErrorVersion));
  return *status;
}

std::vector<Dictionary> Daemon::match(const Dictionary& rules, uint64_t flags) {
  const Dictionary reply = ask([&](auto done) { client_->matchPlugIns(rules, flags, std::move(done)); });
  std::vector<Dictionary> forms = dictionariesOf(reply[key::matches]);
  std::stable_sort(forms.begin(), forms.end(), orderedBefore);
  return forms;
}

void Daemon::add(const std::vector<std::string>& paths) {
  ask([&](auto done) { client_->addPlugIns(paths, std::move(done)); },
      "name the directory of a plug-in bundle");
}

void Daemon::remove(const std::vector<std::string>& paths) {
  ask([&](auto done) { client_->removePlugIns(paths, std::move(done)); },
      "nothing is registered there, or it is part of the system volume and cannot be removed");
}

void Daemon::bulk(uint64_t flags) {
  ask([&](auto done) { client_->bulkPlugins(flags, std::move(done)); });
}

void Daemon::ready(const std::vector<UUID>& uuids) {
  ask([&](auto done) { client_->readyPlugIns(uuids, 0, std::move(done)); });
}

std::vector<std::string> Daemon::access(const std::vector<UUID>& uuids) {
  const Dictionary reply = ask([&](auto done) { client_->accessPlugIns(uuids, 0, std::move(done)); });
  std::vector<std::string> tokens;
  if (const Array* const list = reply[key::extensions].array())
    for (const Value& token : *list) tokens.emplace_back(token.string().value_or(""));
  if (tokens.size() != uuids.size()) throw Failure(kRefused, "the daemon answered too few tokens");
  return tokens;
}

void Daemon::annotate(const std::vector<UUID>& uuids, const Dictionary& annotations) {
  ask([&](auto done) { client_->setPluginAnnotations(uuids, annotations, std::move(done)); });
}

UUID Daemon::hold(const std::vector<std::string>& paths, uint64_t flags) {
  const Dictionary reply = ask(
      [&](auto done) { client_->holdPlugins(paths, flags, std::move(done)); },
      "--application takes an application's directory, --plugin a plug-in's; `abctl match --json` has both");
  const std::optional<UUID> token = reply[key::uuids].uuid();
  if (!token) throw Failure(kRefused, "the daemon granted the hold without a token");
  return *token;
}

void Daemon::release(const UUID& token) {
  ask([&](auto done) { client_->releaseHold(token, std::move(done)); });
}

}  // namespace abctl
