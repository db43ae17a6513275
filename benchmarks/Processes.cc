#include "benchmarks/Processes.h"

#include <dirent.h>
#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>

#include "benchmarks/BareLoop.h"
#include "benchmarks/Client.h"
#include "benchmarks/Pairs.h"

namespace bench {

namespace fs = std::filesystem;

void giveUp(const std::string& what) {
  fprintf(stderr, "abd_bench: %s\n", what.c_str());
  exit(1);
}

namespace {

class PrivateRoot {
 public:
  PrivateRoot() : owner_(getpid()) {
    const char* base = getenv("TMPDIR");
    // Not /tmp: that may be memory, where syncing a file costs nothing.
    std::string pattern = std::string(base != nullptr && *base != 0 ? base : "/var/tmp") + "/abdbench-XXXXXX";
    if (mkdtemp(pattern.data()) == nullptr) giveUp("cannot make " + pattern + ": " + strerror(errno));
    path_ = fs::canonical(pattern).string();
    setenv("XDG_DATA_HOME", (path_ + "/self/data").c_str(), 1);
    setenv("XDG_DATA_DIRS", (path_ + "/system").c_str(), 1);
    setenv("XDG_CONFIG_HOME", (path_ + "/config").c_str(), 1);
    setenv("XDG_CONFIG_DIRS", (path_ + "/device").c_str(), 1);
    setenv("XDG_STATE_HOME", (path_ + "/self/state").c_str(), 1);
    setenv("XDG_RUNTIME_DIR", (path_ + "/self/run").c_str(), 1);
    fs::create_directories(path_ + "/self/run");
  }
  ~PrivateRoot() {
    if (getpid() != owner_) return;
    std::error_code ignored;
    fs::remove_all(path_, ignored);
  }
  PrivateRoot(const PrivateRoot&) = delete;
  PrivateRoot& operator=(const PrivateRoot&) = delete;
  const std::string& path() const { return path_; }

 private:
  pid_t owner_;
  std::string path_;
};

/// What a child does first: it ends with its parent and writes nowhere.
void becomeChild(pid_t parent) {
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (getppid() != parent) _exit(1);
  const int null = open("/dev/null", O_RDWR | O_CLOEXEC);
  dup2(null, STDIN_FILENO);
  dup2(null, STDOUT_FILENO);
  if (getenv("ABD_BENCH_LOGS") == nullptr) dup2(null, STDERR_FILENO);
}

cpu_set_t& initialProcessors() {
  static cpu_set_t set = [] {
    cpu_set_t mask;
    CPU_ZERO(&mask);
    sched_getaffinity(0, sizeof mask, &mask);
    return mask;
  }();
  return set;
}

}  // namespace

const std::string& privateRoot() {
  static PrivateRoot root;
  return root.path();
}

void pin(pid_t process, bool toOneCore) {
  cpu_set_t set = initialProcessors();
  if (toOneCore) {
    // The last one: the first usually serves the machine's interrupts.
    int last = 0;
    for (int cpu = 0; cpu < CPU_SETSIZE; cpu++) {
      if (CPU_ISSET(cpu, &set)) last = cpu;
    }
    CPU_ZERO(&set);
    CPU_SET(last, &set);
  }
  const std::string tasks = "/proc/" + std::to_string(process == 0 ? getpid() : process) + "/task";
  std::error_code error;
  for (const auto& task : fs::directory_iterator(tasks, error))
    sched_setaffinity(atoi(task.path().filename().c_str()), sizeof set, &set);
}

Process Process::fork(const std::function<void()>& body) {
  const pid_t parent = getpid();
  fflush(nullptr);
  const pid_t child = ::fork();
  if (child < 0) giveUp(std::string("cannot fork: ") + strerror(errno));
  if (child == 0) {
    becomeChild(parent);
    body();
    _exit(0);
  }
  return Process(child);
}

Process Process::spawn(const std::string& program, const std::vector<std::string>& arguments,
                       const std::vector<std::pair<std::string, std::string>>& environment) {
  return fork([&] {
    for (const auto& [name, value] : environment) setenv(name.c_str(), value.c_str(), 1);
    std::vector<char*> argv{const_cast<char*>(program.c_str())};
    for (const std::string& argument : arguments) argv.push_back(const_cast<char*>(argument.c_str()));
    argv.push_back(nullptr);
    execv(program.c_str(), argv.data());
    _exit(127);
  });
}

Process::~Process() {
  if (pid_ <= 0) return;
  kill(pid_, SIGKILL);
  wait();
}

void Process::wait() {
  while (waitpid(pid_, nullptr, 0) < 0 && errno == EINTR) {
  }
  pid_ = 0;
}

double Process::anonymousMemory() const {
  std::ifstream file("/proc/" + std::to_string(pid_) + "/smaps_rollup");
  std::string line;
  while (std::getline(file, line)) {
    if (line.starts_with("Anonymous:")) return 1024.0 * atof(line.c_str() + strlen("Anonymous:"));
  }
  giveUp("cannot read the memory of a process");
}

Daemon::Daemon(const std::string& dataHome, const std::string& place, int cacheLimit) : place_(place) {
  fs::create_directories(place + "/state");
  fs::create_directories(place + "/run");
  fs::permissions(place + "/run", fs::perms::owner_all);
  socketPath_ = place + "/run/veltra/com.veltra.ambrel.abd";
  std::vector<std::string> arguments;
  if (cacheLimit >= 0) arguments = {"-c", std::to_string(cacheLimit)};
  const double begin = secondsNow();
  process_ = Process::spawn(ABD_PROGRAM, arguments,
                            {{"XDG_DATA_HOME", dataHome},
                             {"XDG_STATE_HOME", place + "/state"},
                             {"XDG_RUNTIME_DIR", place + "/run"},
                             {"ABD_LOG", "stderr"}});
  while (!Client::canConnect(socketPath_)) {
    if (waitpid(process_.pid(), nullptr, WNOHANG) != 0 || secondsNow() - begin > 120)
      giveUp("the daemon does not start; ABD_BENCH_LOGS=1 shows its log");
    usleep(200);
  }
  secondsToStart_ = secondsNow() - begin;
}

BareServer::BareServer(std::vector<BareAnswer> answers, bool joinsReplies) {
  static int number = 0;
  socketPath_ = privateRoot() + "/bare-" + std::to_string(number++);
  const int listener = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const sockaddr_un address = Client::address(socketPath_);
  if (listener < 0 || bind(listener, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
      listen(listener, 128) != 0)
    giveUp("cannot listen on " + socketPath_ + ": " + strerror(errno));
  process_ = Process::fork([&] { runBareLoop(listener, answers, joinsReplies); });
  close(listener);
}

std::string bareReply(size_t size) {
  if (size < 4) giveUp("a frame has at least four bytes");
  std::string frame(size, '\0');
  const size_t length = size - 4;
  for (size_t i = 0; i < 4; i++) frame[i] = static_cast<char>(length >> (8 * (3 - i)));
  return frame;
}

std::string bareRequest(size_t size, uint32_t number) {
  std::string frame = bareReply(std::max<size_t>(size, 8));
  for (size_t i = 0; i < 4; i++) frame[4 + i] = static_cast<char>(number >> (8 * (3 - i)));
  return frame;
}

}  // namespace bench
