// share-desk: a host program in its simplest form, on libambrel. It asks the daemon which share plug-ins
// accept two items, makes one of them ready, reads the launch registration that this made, starts the plug-in
// with the environment it was given, hands it the items and prints what it answers.
//
//   share-desk [--service NAME] [--plugin IDENTIFIER] [--keep SECONDS] [TYPE=TEXT...]

#include <unistd.h>

#include <charconv>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "Ambrel/ABHost.h"
#include "examples/host/PlugInProcess.h"

namespace {

using ambrel::ABDaemonClient;
using ambrel::PlugIn;
using namespace platform;

struct Item {
  std::string type, text;
};

struct Options {
  std::string service = ambrel::kDefaultServiceName;
  std::string plugIn;
  unsigned keepSeconds = 0;
  std::vector<Item> items;
};

constexpr const char* kUsage =
    "usage: share-desk [--service NAME] [--plugin IDENTIFIER] [--keep SECONDS] [TYPE=TEXT...]";

unsigned seconds(const std::string& word) {
  unsigned number = 0;
  const char* const end = word.data() + word.size();
  if (const auto parsed = std::from_chars(word.data(), end, number);
      parsed.ec != std::errc() || parsed.ptr != end)
    throw std::invalid_argument("\"" + word + "\" is no number of seconds");
  return number;
}

/// Throws std::invalid_argument for a wrong command line.
Options parse(int argc, char** argv) {
  Options options;
  for (int index = 1; index < argc; ++index) {
    const std::string word = argv[index];
    const auto next = [&] {
      if (++index == argc) throw std::invalid_argument(word + " needs a value");
      return std::string(argv[index]);
    };
    if (word == "--service") {
      options.service = next();
    } else if (word == "--plugin") {
      options.plugIn = next();
    } else if (word == "--keep") {
      options.keepSeconds = seconds(next());
    } else if (const size_t separator = word.find('='); separator != std::string::npos) {
      options.items.push_back({word.substr(0, separator), word.substr(separator + 1)});
    } else {
      throw std::invalid_argument(kUsage);
    }
  }
  if (options.items.empty())
    options.items = {{"image/png", "sunset.png"}, {"text/plain", "Greetings from the coast"}};
  return options;
}

/// Share plug-ins whose activation rule accepts all the items.
ambrel::PlugIns discover(ABDaemonClient& client, const std::vector<Item>& items) {
  Array types;
  for (const Item& item : items) types.append(Dictionary{{"types", Array{item.type}}});
  return ambrel::findPlugIns(client, Dictionary{{"ZQExtensionPointName", "com.veltra.share-service"},
                                                {"ZQExtensionActivationRule", Dictionary{{"items", types}}}});
}

int64_t election(const ambrel::ABPlugInCore& plugIn) {
  return plugIn.annotations()[ambrel::annotation::election].integerValue();
}

/// The one asked for; else one that the user chose; else any that the user does not want ignored.
PlugIn choose(const ambrel::PlugIns& plugIns, const std::string& wanted) {
  PlugIn best;
  for (const PlugIn& plugIn : plugIns) {
    std::printf("  found %s %s (%s)%s\n", std::string(plugIn->identifier()).c_str(),
                std::string(plugIn->version().string().value_or("")).c_str(),
                std::string(plugIn->localizedName().value_or("")).c_str(),
                election(*plugIn) == ambrel::ABElectionUse      ? ", chosen by the user"
                : election(*plugIn) == ambrel::ABElectionIgnore ? ", ignored by the user"
                                                                : "");
    if (!wanted.empty()) {
      if (plugIn->identifier().view() == wanted) best = plugIn;
    } else if (election(*plugIn) != ambrel::ABElectionIgnore &&
               (best == nullptr || election(*plugIn) == ambrel::ABElectionUse)) {
      best = plugIn;
    }
  }
  return best;
}

void share(const Options& options, const ambrel::PlugInLaunch& launch) {
  std::printf("  launch registration: %s in sandbox \"%s\"\n", launch.executable.c_str(),
              launch.sandboxProfile.c_str());
  PlugInProcess process(launch);
  for (const Item& item : options.items) process.write(item.type + '\t' + item.text + '\n');
  if (options.keepSeconds > 0) {
    std::printf("  keeping the plug-in running for %u s\n", options.keepSeconds);
    std::fflush(stdout);
    std::this_thread::sleep_for(std::chrono::seconds(options.keepSeconds));
  }
  const auto [answer, status] = process.finish();
  std::printf("  answer, exit status %d:\n%s", status, answer.c_str());
}

int run(int argc, char** argv) {
  const Options options = parse(argc, argv);
  ABDaemonClient client(options.service.c_str());
  std::printf("share-desk (process %d): who can take %zu item(s)?\n", static_cast<int>(::getpid()),
              options.items.size());
  const PlugIn plugIn = choose(discover(client, options.items), options.plugIn);
  if (plugIn == nullptr) {
    std::printf("  nobody\n");
    return 1;
  }
  std::printf("  making %s ready\n", std::string(plugIn->identifier()).c_str());
  share(options, ambrel::readyPlugIn(client, *plugIn));
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  std::signal(SIGPIPE, SIG_IGN);  // a plug-in may end before it has read everything
  try {
    return run(argc, argv);
  } catch (const std::invalid_argument& wrong) {
    std::fprintf(stderr, "share-desk: %s\n", wrong.what());
    return 2;
  } catch (const std::exception& error) {
    std::fflush(stdout);
    std::fprintf(stderr, "share-desk: %s\n", error.what());
    return 5;
  }
}
