#include "examples/host/PlugInProcess.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <system_error>
#include <vector>

namespace {

std::vector<std::string> environmentOf(const platform::Value& given) {
  std::vector<std::string> variables;
  const platform::Dictionary* const entries = given.dictionary();
  for (const char* name : {"XDG_RUNTIME_DIR", "PATH", "LANG"}) {
    const char* const value = std::getenv(name);
    if (value != nullptr && (entries == nullptr || !entries->contains(name)))
      variables.push_back(std::string(name) + '=' + value);
  }
  if (entries == nullptr) return variables;
  for (const platform::Dictionary::Entry& entry : *entries) {
    if (const auto value = entry.value.string())
      variables.push_back(std::string(entry.key.view()) + '=' + std::string(*value));
  }
  return variables;
}

[[noreturn]] void fail(int number, const std::string& what) {
  throw std::system_error(number, std::generic_category(), what);
}

}  // namespace

PlugInProcess::PlugInProcess(const std::string& executable, const platform::Value& environment) {
  int input[2], output[2];
  if (::pipe2(input, O_CLOEXEC) != 0) fail(errno, "pipe");
  if (::pipe2(output, O_CLOEXEC) != 0) {
    const int number = errno;
    ::close(input[0]);
    ::close(input[1]);
    fail(number, "pipe");
  }
  std::vector<std::string> variables = environmentOf(environment);
  std::vector<char*> pointers;
  for (std::string& variable : variables) pointers.push_back(variable.data());
  pointers.push_back(nullptr);
  std::string name = executable;
  char* const arguments[] = {name.data(), nullptr};

  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, input[0], STDIN_FILENO);
  posix_spawn_file_actions_adddup2(&actions, output[1], STDOUT_FILENO);
  const int error = ::posix_spawn(&pid_, executable.c_str(), &actions, nullptr, arguments, pointers.data());
  posix_spawn_file_actions_destroy(&actions);
  ::close(input[0]);
  ::close(output[1]);
  input_ = input[1];
  output_ = output[0];
  if (error == 0) return;
  closeInput();
  ::close(output_);
  fail(error, executable);
}

PlugInProcess::~PlugInProcess() {
  closeInput();
  ::close(output_);
  if (pid_ > 0) ::waitpid(pid_, nullptr, 0);
}

void PlugInProcess::closeInput() {
  if (input_ >= 0) ::close(std::exchange(input_, -1));
}

void PlugInProcess::write(std::string_view text) {
  while (!text.empty()) {
    const ssize_t written = ::write(input_, text.data(), text.size());
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) return;
    text.remove_prefix(static_cast<size_t>(written));
  }
}

std::pair<std::string, int> PlugInProcess::finish() {
  closeInput();
  std::string answer;
  char buffer[4096];
  for (;;) {
    const ssize_t count = ::read(output_, buffer, sizeof buffer);
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) break;
    answer.append(buffer, static_cast<size_t>(count));
  }
  int status = 0;
  while (::waitpid(pid_, &status, 0) < 0 && errno == EINTR) {
  }
  pid_ = -1;
  return {answer, WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status)};
}
