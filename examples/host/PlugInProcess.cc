#include "examples/host/PlugInProcess.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

namespace {

struct Pipe {
  Pipe() {
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) != 0) throw std::system_error(errno, std::generic_category(), "pipe");
    from = platform::FileDescriptor(ends[0]);
    to = platform::FileDescriptor(ends[1]);
  }
  platform::FileDescriptor from, to;
};

}  // namespace

PlugInProcess::PlugInProcess(const ambrel::PlugInLaunch& launch) {
  Pipe input, output;
  pid_ = ambrel::startPlugIn(launch, input.from.get(), output.to.get());
  input_ = std::move(input.to);
  output_ = std::move(output.from);
}

PlugInProcess::~PlugInProcess() {
  input_ = {};
  output_ = {};
  if (pid_ > 0) ::waitpid(pid_, nullptr, 0);
}

void PlugInProcess::write(std::string_view text) {
  while (!text.empty()) {
    const ssize_t written = ::write(input_.get(), text.data(), text.size());
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) return;
    text.remove_prefix(static_cast<size_t>(written));
  }
}

std::pair<std::string, int> PlugInProcess::finish() {
  input_ = {};
  std::string answer;
  char buffer[4096];
  for (;;) {
    const ssize_t count = ::read(output_.get(), buffer, sizeof buffer);
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
