// abctl watch: repeats a search whenever plug-ins, annotations or holds have changed, and says what became
// different.

#include <CLI/CLI.hpp>
#include <cstdio>
#include <ctime>
#include <future>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "Ambrel/ABInfoKeys.h"
#include "Ambrel/ABProtocol.h"
#include "platform/queue/RunLoop.h"
#include "platform/system/Notifications.h"
#include "tools/abctl/Commands.h"
#include "tools/abctl/Json.h"
#include "tools/abctl/MatchOptions.h"
#include "tools/abctl/PlugIns.h"
#include "tools/abctl/Waiting.h"

namespace abctl {
namespace {

using platform::Array;
using platform::Dictionary;
using platform::Value;
namespace formkey = ambrel::formkey;

/// Matched plug-ins by UUID, without what differs in every answer.
using Snapshot = std::map<std::string, Dictionary>;

struct WatchOptions {
  MatchOptions match;
  std::optional<int64_t> count;  // none: until stopped
};

Snapshot snapshot(Daemon& daemon, const Dictionary& rules, uint64_t flags) {
  Snapshot result;
  for (Dictionary& form : daemon.match(rules, flags)) {
    form.remove(formkey::extensions);  // tokens are fresh each time
    result.emplace(text(form, formkey::uuid), std::move(form));
  }
  return result;
}

std::string title(const Dictionary& form) {
  return text(form, formkey::identifier) + " " + text(form, formkey::version);
}

/// What one plug-in's change consists of, for people.
std::string changeText(const Dictionary& before, const Dictionary& after) {
  std::string changes;
  const auto say = [&changes](const std::string& what) { changes += (changes.empty() ? "" : ", ") + what; };
  if (electionOf(before) != electionOf(after))
    say("election " + electionText(electionOf(before)) + " -> " + electionText(electionOf(after)));
  const auto extension = [](const Dictionary& form) -> const Value& {
    return form[formkey::annotations][ambrel::annotation::extension];
  };
  if (!(extension(before) == extension(after))) say("extension " + extension(after).description());
  for (const Dictionary::Entry& entry : after) {
    if (entry.key.view() != formkey::annotations && !(entry.value == before[entry.key.view()]))
      say(std::string(entry.key.view()));
  }
  for (const Dictionary::Entry& entry : before)
    if (!after.contains(entry.key.view())) say("no " + std::string(entry.key.view()));
  return changes.empty() ? "annotations" : changes;  // another entry of theirs, or the first record
}

class Difference {
 public:
  Difference(const Snapshot& before, const Snapshot& after) {
    for (const auto& [uuid, form] : after) {
      const auto earlier = before.find(uuid);
      if (earlier == before.end())
        added_.append(form);
      else if (!(earlier->second == form))
        changed_.append(Dictionary{{"before", earlier->second}, {"after", form}});
    }
    for (const auto& [uuid, form] : before)
      if (!after.contains(uuid)) removed_.append(form);
  }

  Dictionary json() const { return {{"added", added_}, {"removed", removed_}, {"changed", changed_}}; }

  void print(const Screen& screen) const {
    for (const Value& form : added_) printLine(screen, Style::good, "+ " + title(*form.dictionary()));
    for (const Value& form : removed_) printLine(screen, Style::bad, "- " + title(*form.dictionary()));
    for (const Value& change : changed_) {
      const Dictionary &before = *change["before"].dictionary(), &after = *change["after"].dictionary();
      printLine(screen, Style::plain, "~ " + title(after) + ": " + changeText(before, after));
    }
  }

 private:
  static void printLine(const Screen& screen, Style style, const std::string& line) {
    std::printf("  %s\n", screen.styled(style, safeText(line)).c_str());
  }
  Array added_, removed_, changed_;
};

std::string clockText() {
  const std::time_t now = std::time(nullptr);
  std::tm parts{};
  ::localtime_r(&now, &parts);
  char text[32];
  std::strftime(text, sizeof text, "%F %T", &parts);
  return text;
}

/// Says that from now on nothing is missed.
void announceStart(const Context& context, const Snapshot& known) {
  if (context.json) {
    Array matches;
    for (const auto& [uuid, form] : known) matches.append(form);
    std::printf("%s\n", jsonText(Dictionary{{"matches", matches}}, false).c_str());
    std::fflush(stdout);
  } else {
    std::fprintf(stderr, "watching %zu plug-in%s; Ctrl-C ends\n", known.size(), known.size() == 1 ? "" : "s");
  }
}

void announce(const Context& context, uint64_t posts, const Difference& difference) {
  if (context.json) {
    Dictionary line = difference.json();
    line.set("posts", posts);
    line.set("time", platform::Date::now());
    std::printf("%s\n", jsonText(line, false).c_str());
  } else {
    for (uint64_t post = 0; post < posts; ++post) std::printf("%s  change\n", clockText().c_str());
    difference.print(context.screen);
  }
  std::fflush(stdout);
}

/// Change notifications, handed to a Waiting while this lives.
class Observing {
 public:
  explicit Observing(Waiting& waiting)
      : annotations_(observe(ambrel::kAnnotationChangeNotification, waiting)),
        plugIns_(observe(platform::kPlugInsChangeNotification, waiting)) {}
  /// An observer is destroyed where its handler runs.
  ~Observing() {
    std::promise<void> gone;
    loop_.async([this, &gone] {
      annotations_.reset();
      plugIns_.reset();
      gone.set_value();
    });
    gone.get_future().wait();
  }
  Observing(const Observing&) = delete;
  Observing& operator=(const Observing&) = delete;
  bool isWatching() const { return annotations_->isWatching() && plugIns_->isWatching(); }

 private:
  using Observer = std::unique_ptr<platform::NotificationObserver>;
  Observer observe(const char* name, Waiting& waiting) {
    return std::make_unique<platform::NotificationObserver>(
        name, loop_, [&waiting](uint64_t posts) { waiting.reportPosts(posts); });
  }
  platform::RunLoop& loop_ = platform::RunLoop::background();
  Observer annotations_, plugIns_;
};

ExitCode watch(const Context& context, const WatchOptions& options) try {
  if (options.count && *options.count < 1) throw Failure(kUsage, "--count is at least 1");
  const Dictionary rules = options.match.ruleDictionary();
  Waiting waiting;  // before the first thread
  Daemon daemon(context, waiting.stopDescriptor());
  const Observing observing(waiting);
  if (!observing.isWatching())
    throw Failure(kRefused, "change notifications cannot be watched", "inotify may be out of watches");
  Snapshot known = snapshot(daemon, rules, options.match.flags());
  waiting.watchDaemon(context.service);
  announceStart(context, known);
  for (uint64_t seen = 0; !options.count || seen < static_cast<uint64_t>(*options.count);) {
    const Waiting::Result result = waiting.wait();
    if (result.event == Waiting::Event::stop) return kSuccess;
    if (result.event == Waiting::Event::lost) throw Failure(kUnreachable, "the daemon has gone");
    Snapshot now = snapshot(daemon, rules, options.match.flags());
    announce(context, result.posts, Difference(known, now));
    known = std::move(now);
    seen += result.posts;
  }
  return kSuccess;
} catch (const Stopped&) {
  return kSuccess;
}

}  // namespace

void addWatchCommand(CLI::App& app, Context& context) {
  const auto options = std::make_shared<WatchOptions>();
  CLI::App* const command = app.add_subcommand("watch", "Follow what changes in a match");
  options->match.declare(*command);
  command->add_option("--count", options->count, "End after so many change notifications")
      ->type_name("NUMBER");
  command->footer(
      "One line per change notification (plug-ins were installed, removed or changed; an annotation or a\n"
      "hold has changed), then what is different: + matches now, - matches no longer, ~ is changed. With\n"
      "--json the first line has the matches at the start, then every notification is a line.\n\n"
      "Example:\n  abctl watch --rule ZQUserElection=1");
  command->callback(
      [&context, options] { context.command = [&context, options] { return watch(context, *options); }; });
}

}  // namespace abctl
