#include "tests/support/Child.h"

#include <gtest/gtest.h>
#include <sys/wait.h>

namespace testsupport {

Child::Child(const std::function<bool()>& prepare) {
  int ready[2];
  EXPECT_EQ(pipe2(ready, O_CLOEXEC), 0);
  const FileDescriptor reader(ready[0]);
  FileDescriptor writer(ready[1]);
  pid_ = fork();
  if (pid_ == 0) {
    const bool isGood = prepare();
    if (write(ready[1], isGood ? "y" : "n", 1) != 1 || !isGood) _exit(1);
    for (;;) pause();
  }
  writer = FileDescriptor();
  char answer = 'n';
  isReady_ = read(ready[0], &answer, 1) == 1 && answer == 'y';
}

void Child::kill() {
  if (pid_ <= 0) return;
  signal(SIGKILL);
  waitpid(pid_, nullptr, 0);
  pid_ = -1;
}

Child connectedByAChild(const std::string& path, const FileDescriptor& socket) {
  const sockaddr_un address = socketAddress(path);
  return Child([&] {
    return connect(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
  });
}

std::string answerOfProcess(const std::function<std::string()>& work) {
  int ends[2];
  EXPECT_EQ(pipe2(ends, O_CLOEXEC), 0);
  const FileDescriptor reader(ends[0]);
  const FileDescriptor writer(ends[1]);
  const Child child([&] {
    const std::string text = work();
    return write(ends[1], text.data(), text.size()) == static_cast<ssize_t>(text.size());
  });
  char text[4096];
  const ssize_t length = child.isReady() ? read(ends[0], text, sizeof text) : 0;
  return {text, static_cast<size_t>(length)};
}

sockaddr_un socketAddress(const std::string& path) {
  sockaddr_un address{.sun_family = AF_UNIX, .sun_path = {}};
  path.copy(address.sun_path, sizeof address.sun_path - 1);
  return address;
}

FileDescriptor listeningSocket(const std::string& path) {
  FileDescriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  const sockaddr_un address = socketAddress(path);
  unlink(path.c_str());
  EXPECT_EQ(bind(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
  EXPECT_EQ(listen(socket.get(), 16), 0);
  return socket;
}

FileDescriptor lockedFile(const std::string& path, short type) {
  FileDescriptor file(open(path.c_str(), O_RDWR | O_CLOEXEC));
  struct flock lock = {};
  lock.l_type = type;
  lock.l_whence = SEEK_SET;
  return fcntl(file.get(), F_OFD_SETLK, &lock) == 0 ? std::move(file) : FileDescriptor();
}

}  // namespace testsupport
