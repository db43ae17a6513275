// A host for the end-to-end tests: connects to the daemon's socket and passes bytes on between it and its
// standard input and output (one stream socket), so that a test speaks as the process that runs this from
// its bundle. With "--confined" it first puts itself under a system call filter, as a sandbox does.

#include <linux/filter.h>
#include <linux/seccomp.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <string_view>

namespace {

bool confine() {
  sock_filter allowAll = {.code = BPF_RET | BPF_K, .jt = 0, .jf = 0, .k = SECCOMP_RET_ALLOW};
  const sock_fprog program = {.len = 1, .filter = &allowAll};
  return prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 &&
         prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) == 0;
}

/// Passes on one read; false at the end of either stream.
bool pass(int from, int to) {
  char buffer[65536];
  const ssize_t count = read(from, buffer, sizeof buffer);
  if (count <= 0) return false;
  for (ssize_t written = 0; written < count;) {
    const ssize_t more = write(to, buffer + written, static_cast<size_t>(count - written));
    if (more <= 0) return false;
    written += more;
  }
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) return 2;
  if (argc > 2 && std::string_view(argv[2]) == "--confined" && !confine()) return 3;
  const int service = socket(AF_UNIX, SOCK_STREAM, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strncpy(address.sun_path, argv[1], sizeof address.sun_path - 1);
  if (connect(service, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) return 4;
  for (;;) {
    pollfd ends[] = {{.fd = STDIN_FILENO, .events = POLLIN, .revents = 0},
                     {.fd = service, .events = POLLIN, .revents = 0}};
    if (poll(ends, 2, -1) < 0) return 5;
    if (ends[0].revents != 0 && !pass(STDIN_FILENO, service)) return 0;
    if (ends[1].revents != 0 && !pass(service, STDIN_FILENO)) return 0;
  }
}
