// Process entry: command line, server, run loop.

#include <unistd.h>

#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <string>

#include "Ambrel/ABProtocol.h"
#include "abd/ABDServer.h"
#include "platform/log/Failure.h"
#include "platform/log/Log.h"
#include "platform/system/ServiceManager.h"

namespace {

constexpr char kUsage[] = "Usage: abd [-S servicename] [-v]\n";
constexpr uint32_t kDefaultCacheLimit = 150;
constexpr int kUsageStatus = 2;
constexpr int kConstructionFailureStatus = 1;

struct Options {
  uint32_t verbose = 0;
  uint32_t cacheLimit = kDefaultCacheLimit;
  std::optional<std::string> database;
  std::string service = ambrel::kDefaultServiceName;
};

/// None for a command line that is not understood.
std::optional<Options> parseCommandLine(int argc, char** argv) {
  Options options;
  opterr = 0;
  for (int option; (option = getopt(argc, argv, "+c:d:S:v")) != -1;) {
    switch (option) {
      case 'c':
        options.cacheLimit = static_cast<uint32_t>(std::strtol(optarg, nullptr, 10));
        break;
      case 'd':
        options.database = optarg;
        break;
      case 'S':
        options.service = optarg;
        break;
      case 'v':
        ++options.verbose;
        break;
      default:
        return std::nullopt;
    }
  }
  if (optind != argc) return std::nullopt;
  return options;
}

}  // namespace

/// How the allocator, jemalloc(3), is set: what a burst of large replies left goes back to the system within
/// seconds, whether anybody asks for something or not, and few arenas keep what is freed close together.
extern "C" __attribute__((visibility("default"))) const char* malloc_conf;
const char* malloc_conf = "background_thread:true,dirty_decay_ms:2000,muzzy_decay_ms:0,narenas:2";

int main(int argc, char** argv) {
  platform::installTerminateHandler();
  std::signal(SIGPIPE, SIG_IGN);  // a peer that went away shows as a write error

  const std::optional<Options> options = parseCommandLine(argc, argv);
  if (!options) {
    std::fputs(kUsage, stderr);
    return kUsageStatus;
  }
  platform::meetServiceManager();
  platform::tellServiceManager("STATUS=looking for plug-ins");
  const auto server = abd::ABDServer::initForService(options->service, options->database);
  if (server == nullptr) {
    platform::systemLog("unable to construct server");
    return kConstructionFailureStatus;
  }
  server->setVerbose(options->verbose);
  server->setCacheLimit(options->cacheLimit);
  server->run();
  abd::ABDServer::releaseServer();
  return EXIT_SUCCESS;
}
