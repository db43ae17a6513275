// "match" over many plug-ins: with every record in the daemon's cache against a bare server that seals the
// same read tokens and sends the same bytes, and (as before, when the daemon did it, too) one that looks up
// the bundles; with the default cache limit against reading, parsing and merging the same files.

#include <signal.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <optional>
#include <sstream>

#include "Ambrel/ABInfoKeys.h"
#include "Ambrel/ABPlugInCore.h"
#include "benchmarks/Benches.h"
#include "benchmarks/Client.h"
#include "benchmarks/Frames.h"
#include "benchmarks/Pairs.h"
#include "benchmarks/Plugins.h"
#include "benchmarks/Processes.h"
#include "platform/propertylist/PropertyList.h"
#include "platform/security/Sandbox.h"

namespace bench {

namespace {

using platform::Dictionary;

constexpr size_t kSizes[] = {100, 1000, 10000};
constexpr int kUnlimited = 20000;

/// One question about one population, and who else can answer with the same bytes.
struct Question {
  Question(const Daemon& daemon, std::string request)
      : frame(std::move(request)), subject(daemon.socketPath()) {
    reply = subject.roundTrip(frame);
    for (const platform::Value& form : matches(reply)) {
      forms++;
      if (form["extensions"].dictionary() != nullptr && !form["extensions"].dictionary()->empty())
        sharedPaths.emplace_back(form["path"].string().value());
    }
  }

  std::string frame, reply;
  size_t forms = 0;
  std::vector<std::string> sharedPaths;
  Client subject;

  /// Seals the same tokens; with `looking`, of what is at the paths now.
  BareAnswer answer(bool looking) const {
    std::vector<platform::FilePlace> places;
    for (const std::string& path : sharedPaths) {
      const auto place = platform::readablePlace(path);
      if (!place) giveUp("nothing can be read at " + path);
      places.push_back(*place);
    }
    return {reply, [paths = sharedPaths, places, looking] {
              for (size_t i = 0; i < paths.size(); i++) {
                const auto token = looking ? platform::issueReadToken(paths[i])
                                           : platform::issueReadToken(paths[i], places[i]);
                if (!token) giveUp("no token for " + paths[i]);
              }
            }};
  }
};

std::string plugInsText(size_t count) {
  std::string text = std::to_string(count);
  if (text.size() > 4) text.insert(text.size() - 3, ",");
  return text;
}

/// Seconds of one question, asked `repeats` times.
double ask(Client& client, std::string_view frame, size_t repeats) {
  return secondsOf([&] {
           for (size_t i = 0; i < repeats; i++) client.roundTrip(frame);
         }) /
         static_cast<double>(repeats);
}

void benchAgainstBare(Question& question, const std::string& name, size_t repeats, size_t pairs) {
  for (const bool looking : {false, true}) {
    const BareServer bare({question.answer(looking)});
    pin(bare.pid(), true);
    Client baseline(bare.socketPath());
    const std::string bareFrame = bareRequest(question.frame.size());
    report(name + (looking ? ", warm, against looking up+sending" : ", warm, against sealing+sending"),
           measurePairs(
               pairs, [&] { return ask(baseline, bareFrame, repeats); },
               [&] { return ask(question.subject, question.frame, repeats); }),
           looking ? std::nullopt : std::optional(2.0));
  }
}

/// System calls that the daemon makes for one question, as strace(1) counts them; none when it may not.
std::optional<double> systemCalls(const Daemon& daemon, Question& question) {
  constexpr size_t kRepeats = 20;
  const std::string pid = std::to_string(daemon.pid()), counts = daemon.place() + "/calls";
  Process tracer = Process::spawn("/usr/bin/strace", {"-f", "-c", "-o", counts, "-p", pid}, {});
  const auto isTraced = [&pid] {
    for (const auto& thread : std::filesystem::directory_iterator("/proc/" + pid + "/task")) {
      std::ifstream status(thread.path() / "status");
      std::string word;
      while (status >> word && word != "TracerPid:") continue;
      if (!(status >> word) || word == "0") return false;
    }
    return true;
  };
  for (int i = 0; !isTraced(); i++) {
    if (i == 100) return std::nullopt;
    usleep(20'000);
  }
  ask(question.subject, question.frame, kRepeats);
  kill(tracer.pid(), SIGINT);
  tracer.wait();
  std::ifstream table(counts);
  for (std::string line; std::getline(table, line);) {
    std::istringstream columns(line);
    double percent, seconds, average, calls;
    if (line.ends_with(" total") && columns >> percent >> seconds >> average >> calls)
      return calls / kRepeats;
  }
  return std::nullopt;
}

void benchSystemCalls(const Daemon& daemon, Question& few, Question& many) {
  const auto least = systemCalls(daemon, few), most = systemCalls(daemon, many);
  const std::string name = "(b) system calls per plug-in found";
  if (!least || !most) return report({name, "not shown", "no strace(1) here", 0, 0, 0, {}});
  const double each = (*most - *least) / static_cast<double>(many.forms - few.forms);
  const auto text = [](double calls, size_t found) {
    return std::to_string(static_cast<int>(calls)) + " for " + plugInsText(found);
  };
  report({name, text(*most, many.forms), text(*least, few.forms), each, each, each, 0.05});
}

/// A device whose daemon has every record in its cache, and the questions put to it.
struct WarmDevice {
  explicit WarmDevice(size_t count)
      : device(population(count)),
        daemon(device.dataHome, device.place + "/warm", kUnlimited),
        all(daemon, matchFrame({})),
        byIdentifier(daemon, matchFrame(identifierRules(count / 2, 10))),
        byPoint(daemon, matchFrame(pointRules(kNarrowPoint))) {
    if (all.forms != count || byIdentifier.forms != 10 || byPoint.forms != 10)
      giveUp("match over " + std::to_string(count) + " plug-ins answered " + std::to_string(all.forms) +
             ", " + std::to_string(byIdentifier.forms) + " and " + std::to_string(byPoint.forms) + " forms");
    pin(daemon.pid(), true);
  }

  const Population& device;
  Daemon daemon;
  Question all, byIdentifier, byPoint;
};

/// What building the records of a whole population cannot do without.
double readParseAndMerge(const Population& device) {
  return secondsOf([&] {
    std::map<std::string, Dictionary, std::less<>> sdks;
    for (const std::string& name : sdkNames()) {
      auto sdk = platform::readDictionaryFile(device.dataHome + "/veltra/SDKs/" + name + ".plist");
      if (sdk) sdks.emplace(name, std::move(*sdk));
    }
    for (const std::string& bundle : device.plugInPaths) {
      const auto info = platform::readDictionaryFile(bundle + "/Info.plist");
      if (!info) giveUp("an Info file cannot be read");
      const platform::Value& point = (*info)[ambrel::bundlekey::plugIn][ambrel::plugInkey::pointIdentifier];
      const auto sdk = sdks.find(point.string().value_or(""));
      if (sdk == sdks.end()) continue;
      if (ambrel::ABPlugInCore::mergeDictionary(sdk->second, *info).empty()) giveUp("nothing merged");
    }
  });
}

void benchDefaultLimit(size_t count, size_t repeats) {
  const Population& device = population(count);
  const Daemon daemon(device.dataHome, device.place + "/default", -1);
  Question question(daemon, matchFrame({}));
  BareAnswer answer = question.answer(false);
  answer.work = [&device, tokens = std::move(answer.work)] {
    readParseAndMerge(device);
    tokens();
  };
  const BareServer bare({answer});
  pin(daemon.pid(), true);
  pin(bare.pid(), true);
  const auto match = [&] { return ask(question.subject, question.frame, repeats); };
  const std::string name = "(b) all of " + plugInsText(count) + ", default cache, against read+parse+merge";
  report(name,
         measurePairs(
             5,
             [&] {
               double spent = 0;
               for (size_t i = 0; i < repeats; i++) spent += readParseAndMerge(device);
               return spent / static_cast<double>(repeats);
             },
             match),
         2.0);
  // How much of the rest is the tokens and the bytes, which the files alone do not pay for.
  Client baseline(bare.socketPath());
  const std::string bareFrame = bareRequest(question.frame.size());
  report(name + "+tokens+sending",
         measurePairs(
             5, [&] { return ask(baseline, bareFrame, repeats); }, match),
         std::nullopt);
}

}  // namespace

void benchMatch() {
  pin(0, true);
  std::map<size_t, std::unique_ptr<WarmDevice>> warm;
  for (const size_t count : kSizes) {
    WarmDevice& device = *warm.emplace(count, std::make_unique<WarmDevice>(count)).first->second;
    const std::string text = plugInsText(count);
    benchAgainstBare(device.all, "(b) all of " + text, 10000 / count, 5);
    benchAgainstBare(device.byIdentifier, "(b) 10 of " + text + " by identifier", 100, 7);
    benchAgainstBare(device.byPoint, "(b) 10 of " + text + " by point", 100, 7);
    if (count == 1000) benchSystemCalls(device.daemon, device.byPoint, device.all);
  }
  // Narrowed searches cost the same whatever is installed; 1.2 leaves room for caches of the processor.
  for (const size_t count : {kSizes[1], kSizes[2]}) {
    for (const bool byPoint : {false, true}) {
      const auto question = [&](size_t size) -> Question& {
        return byPoint ? warm[size]->byPoint : warm[size]->byIdentifier;
      };
      report("(b) 10 of " + plugInsText(count) + (byPoint ? " by point" : " by identifier") +
                 ", against 10 of 100",
             measurePairs(
                 7, [&] { return ask(question(100).subject, question(100).frame, 100); },
                 [&] { return ask(question(count).subject, question(count).frame, 100); }),
             1.2);
    }
  }
  warm.clear();
  benchDefaultLimit(1000, 4);
  benchDefaultLimit(10000, 1);
}

}  // namespace bench
