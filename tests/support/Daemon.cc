#include "tests/support/Daemon.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include "tests/support/ThisProcess.h"

namespace testsupport {

static std::vector<char*> pointers(const std::vector<std::string>& strings) {
  std::vector<char*> result;
  for (const std::string& each : strings) result.push_back(const_cast<char*>(each.c_str()));
  result.push_back(nullptr);
  return result;
}

Process::Process(const std::vector<std::string>& arguments, const std::vector<std::string>& environment,
                 const std::string& errorFile, int standardInput, const std::string& directory,
                 int standardOutput) {
  const std::vector<char*> argv = pointers(arguments);
  const std::vector<char*> envp = pointers(environment);
  const FileDescriptor errors(open(errorFile.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644));
  const FileDescriptor nothing(open("/dev/null", O_RDWR | O_CLOEXEC));
  const int input = standardInput >= 0 ? standardInput : nothing.get();
  pid_ = fork();
  if (pid_ != 0) return;
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  ::signal(SIGINT, SIG_DFL);  // a shell's background jobs ignore it
  dup2(input, STDIN_FILENO);
  dup2(standardOutput >= 0 ? standardOutput : input, STDOUT_FILENO);
  dup2(errors.get(), STDERR_FILENO);
  if (!directory.empty() && chdir(directory.c_str()) != 0) _exit(126);
  execve(argv[0], argv.data(), envp.data());
  _exit(127);
}

Process::~Process() {
  kill();
}

bool Process::isRunning() {
  return waitForExit(std::chrono::milliseconds(0)) == -1;
}

void Process::signal(int number) const {
  if (pid_ > 0 && status_ == -1) ::kill(pid_, number);
}

void Process::kill() {
  signal(SIGKILL);
  waitForExit();
}

int Process::waitForExit(std::chrono::milliseconds timeout) {
  if (status_ != -1) return status_;
  eventually(
      [&] {
        int status = 0;
        if (waitpid(pid_, &status, WNOHANG) != pid_) return false;
        status_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
        return true;
      },
      timeout);
  return status_;
}

Daemon::Daemon(const DeviceRoot& root, Options options) : root_(root), options_(std::move(options)) {
  start();
}

Daemon::~Daemon() {
  if (process_ != nullptr) kill();
}

void Daemon::start() {
  logFile_ = root_.path() + "/abd." + options_.service + "." + std::to_string(starts_++) + ".log";
  std::vector<std::string> arguments = {ABD_PROGRAM, "-S", options_.service};
  arguments.insert(arguments.end(), options_.arguments.begin(), options_.arguments.end());
  std::vector<std::string> environment = options_.environment;
  if (!options_.home.empty())
    environment.insert(environment.end(), {"XDG_STATE_HOME=" + options_.home + "/state",
                                           "XDG_RUNTIME_DIR=" + options_.home + "/run"});
  process_ = std::make_unique<Process>(arguments, root_.environment(environment), logFile_);
  const bool isServing = eventually([&] { return connect().fd() >= 0 || !process_->isRunning(); });
  if (!isServing || !process_->isRunning())
    ADD_FAILURE() << "the daemon did not start:\n" << readText(logFile_);
}

void Daemon::pause() {
  process_->signal(SIGSTOP);
  siginfo_t stop{};
  waitid(P_PID, static_cast<id_t>(pid()), &stop, WSTOPPED);
}

void Daemon::kill() {
  const bool wasRunning = process_->isRunning();
  process_->kill();
  const std::string text = readText(logFile_);
  EXPECT_TRUE(wasRunning) << "it ended by itself with " << process_->waitForExit() << ":\n" << text;
  EXPECT_FALSE(contains(text, "Sanitizer") || contains(text, "runtime error:")) << text;
}

std::string Daemon::launchFile(pid_t host, const UUID& plugIn) const {
  return runtime() + "/Launcher/" + std::to_string(host) + "/" + plugIn.string() + ".plist";
}

std::vector<std::string> Daemon::log() const {
  return logEntries(readText(logFile_));
}

size_t Daemon::logCount(std::string_view text) const {
  return entriesWith(log(), text);
}

bool Daemon::waitForLog(std::string_view text, size_t count, std::chrono::milliseconds timeout) const {
  return eventually([&] { return logCount(text) >= count; }, timeout);
}

Host::Host(const DeviceRoot& root, const Daemon& daemon, const std::string& bundle, bool isConfined,
           const std::string& suffix) {
  const std::string program = bundle + "/main";
  fs::create_directories(bundle);
  if (!fs::exists(program)) fs::copy_file(TEST_HOST_PROGRAM, program);
  if (!fs::exists(bundle + "/Info.plist"))
    writePropertyList(bundle + "/Info.plist",
                      Dictionary{{"BWBundleIdentifier", "host." + fs::path(bundle).stem().string()},
                                 {"BWBundleExecutable", "main"}});
  int pair[2];
  if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair) != 0) throw std::runtime_error("socketpair");
  client_.emplace(FileDescriptor(pair[0]));
  const FileDescriptor childEnd(pair[1]);
  std::vector<std::string> arguments = {program, daemon.socketPath() + suffix};
  if (isConfined) arguments.emplace_back("--confined");
  process_ =
      std::make_unique<Process>(arguments, root.environment(), root.path() + "/host.log", childEnd.get());
}

}  // namespace testsupport
