#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <functional>
#include <memory>
#include <set>
#include <string>
#include <utility>
#include <variant>
#include <vector>

#include "platform/qmx/PeerIdentity.h"
#include "platform/security/CodeSigning.h"
#include "platform/security/Sandbox.h"
#include "platform/system/FileDescriptor.h"
#include "tests/support/OwnDevice.h"

namespace {

using namespace platform;
using namespace testsupport;
namespace fs = std::filesystem;

class ReadTokenTest : public testing::Test {
 protected:
  ReadTokenTest() {
    clearOwnDevice();
    writeText(bundle_ + "/Shared/picture", "pixels");
    writeText(ownDevice.dataUser() + "/secret", "secret");
  }
  const std::string bundle_ = ownDevice.dataUser() + "/P.appex";
  const std::string picture_ = bundle_ + "/Shared/picture";
};

TEST_F(ReadTokenTest, AnAuthenticTokenSaysThePathThatItIsFor) {
  for (const std::string& path : {picture_, bundle_}) {
    const auto token = issueReadToken(path);
    ASSERT_TRUE(token);
    EXPECT_EQ(verifyReadToken(*token), path);
    EXPECT_TRUE(std::all_of(token->begin(), token->end(), [](char c) { return c > ' ' && c < 0x7F; }));
    EXPECT_NE(issueReadToken(path), token) << "fresh each time";
  }
}

TEST_F(ReadTokenTest, ATokenNamesItsFileInCanonicalForm) {
  fs::create_symlink("Shared", bundle_ + "/link");
  for (const std::string& path : {bundle_ + "/link/picture", bundle_ + "//Shared/picture",
                                  bundle_ + "/Shared/./picture", bundle_ + "/Shared/../Shared/picture"}) {
    const auto token = issueReadToken(path);
    ASSERT_TRUE(token) << path;
    EXPECT_EQ(verifyReadToken(*token), picture_) << path;
  }
  EXPECT_EQ(verifyReadToken(*issueReadToken(bundle_ + "/link/")), bundle_ + "/Shared");
}

TEST_F(ReadTokenTest, WhatDoesNotExistOrCannotBeReadGetsTheSystemsError) {
  EXPECT_EQ(issueReadToken(bundle_ + "/missing"), std::nullopt);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_EQ(issueReadToken(picture_ + "/below"), std::nullopt);
  EXPECT_EQ(errno, ENOTDIR);
  EXPECT_EQ(issueReadToken(""), std::nullopt);
  EXPECT_EQ(errno, ENOENT);
  ASSERT_TRUE(issueReadToken(picture_)) << "the key is there";
  chmod(picture_.c_str(), 0);
  chmod(ownDevice.path().c_str(), 0755);
  const pid_t child = fork();
  if (child == 0) {
    if (geteuid() == 0 && seteuid(65534) != 0) _exit(1);
    const bool isRefused = !issueReadToken(picture_) && errno == EACCES;
    _exit(isRefused && issueReadToken(bundle_) ? 0 : 2);
  }
  int status = 0;
  waitpid(child, &status, 0);
  EXPECT_EQ(WEXITSTATUS(status), 0);
}

TEST_F(ReadTokenTest, ATokenForABundlesResourceNeverLeadsOutOfTheBundle) {
  const auto inside = [this](const std::string& path) { return issueReadTokenInside(bundle_, path); };
  fs::create_symlink("Shared/picture", bundle_ + "/inner");
  for (const std::string& path : {picture_, std::string("Shared/picture"), bundle_ + "/inner",
                                  bundle_ + "/../P.appex/Shared/picture"}) {
    const auto token = inside(path);
    ASSERT_TRUE(token) << path;
    EXPECT_EQ(verifyReadToken(*token), picture_);
  }
  EXPECT_TRUE(inside(bundle_));
  EXPECT_TRUE(inside("."));
  fs::create_symlink("../secret", bundle_ + "/escape");
  fs::create_directory(bundle_ + "-more");
  for (const std::string& path : {bundle_ + "/../secret", bundle_ + "/escape", std::string("../secret"),
                                  std::string("/etc/passwd"), bundle_ + "/..", bundle_ + "-more"}) {
    EXPECT_EQ(inside(path), std::nullopt) << path;
    EXPECT_EQ(errno, EACCES) << path;
  }
  fs::create_directory_symlink(bundle_, ownDevice.dataUser() + "/other-name");
  EXPECT_TRUE(issueReadTokenInside(ownDevice.dataUser() + "/other-name", picture_));
}

TEST_F(ReadTokenTest, NoChangedTokenIsAuthentic) {
  const std::string token = *issueReadToken(picture_);
  for (size_t i = 0; i < token.size(); ++i) {
    std::string changed = token;
    changed[i] = changed[i] == 'A' ? 'B' : 'A';
    ASSERT_EQ(verifyReadToken(changed), std::nullopt) << i;
    ASSERT_EQ(errno, EBADMSG) << i;
  }
  for (const std::string& wrong :
       {std::string(), std::string("v1."), token.substr(0, token.size() - 1), token + "A", token + "=",
        token + std::string(1, '\0'), "v2" + token.substr(2), std::string(100'000, 'A')}) {
    EXPECT_EQ(verifyReadToken(wrong), std::nullopt);
    EXPECT_EQ(errno, EBADMSG);
  }
}

TEST_F(ReadTokenTest, ATokenIsForOneFileAndNotForItsName) {
  const std::string token = *issueReadToken(picture_);
  fs::rename(picture_, picture_ + ".old");
  EXPECT_EQ(verifyReadToken(token), std::nullopt);
  EXPECT_EQ(errno, ENOENT);
  fs::create_symlink(ownDevice.dataUser() + "/secret", picture_);
  EXPECT_EQ(verifyReadToken(token), std::nullopt);
  EXPECT_EQ(errno, ESTALE);
}

/// Runs `isGood` in a fresh process on a fresh device, since a process reads the key once.
#define EXPECT_IN_FRESH_PROCESS(isGood)                                         \
  do {                                                                          \
    testing::FLAGS_gtest_death_test_style = "threadsafe";                       \
    EXPECT_EXIT(std::exit((isGood)() ? 0 : 1), testing::ExitedWithCode(0), ""); \
  } while (false)

bool isRefusedWith(int number) {
  return !issueReadToken("/") && errno == number && !verifyReadToken("v1.x") && errno == number;
}

TEST(TokenKey, AKeyFileThatIsNotThisUsersAloneOrNoKeyIsRefusedUntilItIsMended) {
  const auto isGood = [] {
    const std::string key = ownDevice.state() + "/Sandbox.key";
    writeText(key, std::string(32, 'k'), 0640);
    bool good = isRefusedWith(EPERM);
    writeText(key, std::string(31, 'k'), 0600);
    good = good && isRefusedWith(EINVAL);
    fs::rename(key, key + ".real");
    fs::create_symlink(key + ".real", key);
    good = good && isRefusedWith(ELOOP);
    fs::remove(key);
    if (geteuid() == 0) {
      writeText(key, std::string(32, 'k'), 0600);
      good = good && chown(key.c_str(), 12345, 12345) == 0 && isRefusedWith(EPERM);
    }
    fs::remove(key);
    const auto token = issueReadToken("/");
    struct stat status {};
    return good && token && verifyReadToken(*token) == "/" && stat(key.c_str(), &status) == 0 &&
           status.st_size == 32 && (status.st_mode & 0777) == 0600;
  };
  EXPECT_IN_FRESH_PROCESS(isGood);
}

TEST(TokenKey, ProcessesThatMakeTheKeyAtTheSameTimeAgreeOnOne) {
  const auto isGood = [] {
    fs::remove_all(ownDevice.state());
    int ends[2];
    if (pipe(ends) != 0) return false;
    constexpr int kProcesses = 8;
    for (int i = 0; i < kProcesses; ++i) {
      if (fork() != 0) continue;
      std::string token = issueReadToken("/").value_or("none");
      token.resize(256, ' ');
      _exit(write(ends[1], token.data(), token.size()) == 256 ? 0 : 1);
    }
    std::set<std::string> tokens;
    for (int i = 0; i < kProcesses; ++i) {
      char text[256];
      if (read(ends[0], text, sizeof text) != sizeof text) return false;
      const std::string token(text, sizeof text);
      if (verifyReadToken(token.substr(0, token.find(' '))) != "/") return false;
      tokens.insert(token);
    }
    while (wait(nullptr) > 0) continue;
    const auto files = fs::directory_iterator(ownDevice.state());
    return tokens.size() == kProcesses && std::distance(begin(files), end(files)) == 1;
  };
  EXPECT_IN_FRESH_PROCESS(isGood);
}

/// What isSandboxed() says of a process that first does `prepare`; none when that fails.
std::optional<bool> isSandboxedAfter(const std::function<bool()>& prepare) {
  int ready[2];
  EXPECT_EQ(pipe(ready), 0);
  const pid_t child = fork();
  if (child == 0) {
    const bool isPrepared = prepare();
    if (write(ready[1], isPrepared ? "y" : "n", 1) == 1 && isPrepared) pause();
    _exit(0);
  }
  char answer = 'n';
  EXPECT_EQ(read(ready[0], &answer, 1), 1);
  const std::optional<bool> out = answer == 'y' ? std::optional(isSandboxed(child)) : std::nullopt;
  kill(child, SIGKILL);
  waitpid(child, nullptr, 0);
  EXPECT_TRUE(isSandboxed(child)) << "a process that is gone is in doubt";
  close(ready[0]);
  close(ready[1]);
  return out;
}

TEST(Confinement, ProcessesWithMoreFiltersOrOtherNamespacesAreSandboxed) {
  EXPECT_EQ(isSandboxedAfter([] { return true; }), false);
  EXPECT_EQ(isSandboxedAfter([] {
              sock_filter allowAll = {.code = BPF_RET | BPF_K, .jt = 0, .jf = 0, .k = SECCOMP_RET_ALLOW};
              const sock_fprog program = {.len = 1, .filter = &allowAll};
              return prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 &&
                     prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) == 0;
            }),
            true);
  // A system may forbid new namespaces; where it does nothing can be seen of them.
  for (const int kind : {CLONE_NEWUSER, CLONE_NEWNS})
    EXPECT_NE(isSandboxedAfter([kind] { return unshare(kind) == 0; }), false);
  // Another network is no confinement that counts.
  EXPECT_NE(isSandboxedAfter([] { return unshare(CLONE_NEWNET) == 0; }), true);
  EXPECT_TRUE(isSandboxed(0));
  EXPECT_TRUE(isSandboxed(-1));
  EXPECT_FALSE(isSandboxed(getpid()));
}

class EntitlementsTest : public testing::Test {
 protected:
  EntitlementsTest() {
    clearOwnDevice();
    writePropertyList(bundle_ + "/Info.plist", Dictionary{{"BWBundleIdentifier", "com.example.p"}});
  }
  void grant(const Value& entitlements) { writePropertyList(file_, entitlements); }
  /// The entitlements, or none with the error's code in `error`.
  std::optional<Dictionary> entitlements(int64_t* code = nullptr) const {
    const auto answer = bundleEntitlements(bundle_);
    const Error* error = std::get_if<Error>(&answer);
    if (code != nullptr) *code = error != nullptr ? error->code : 0;
    return error != nullptr ? std::nullopt : std::optional(std::get<Dictionary>(answer));
  }
  void expectRefused(int64_t code, const char* what) const {
    int64_t actual = 0;
    EXPECT_EQ(entitlements(&actual), std::nullopt) << what;
    EXPECT_EQ(actual, code) << what;
  }
  const std::string bundle_ = ownDevice.dataUser() + "/Applications/A.app";
  const std::string file_ = bundle_ + "/Entitlements.plist";
};

TEST_F(EntitlementsTest, ABundlesFileIsSeenAsItIsNowAndParsedOnce) {
  EXPECT_EQ(entitlements(), Dictionary()) << "no file";
  grant(Dictionary{{"a", true}});
  ASSERT_EQ(entitlements(), (Dictionary{{"a", true}}));
  letFilesSettle();
  ASSERT_TRUE(entitlements());
  EXPECT_TRUE(entitlements()->isSameObject(*entitlements()));
  grant(Dictionary{{"b", 1}});
  EXPECT_EQ(entitlements(), (Dictionary{{"b", 1}}));
  fs::remove(file_);
  EXPECT_EQ(entitlements(), Dictionary());
}

TEST_F(EntitlementsTest, AFileThatOthersMayHaveWrittenIsNotHonoured) {
  grant(Dictionary{{"a", true}});
  ASSERT_TRUE(entitlements());
  chmod(file_.c_str(), 0664);
  expectRefused(EPERM, "writable by its group");
  chmod(file_.c_str(), 0646);
  expectRefused(EPERM, "writable by others");
  chmod(file_.c_str(), 0444);
  EXPECT_TRUE(entitlements());
  fs::rename(file_, bundle_ + "/real");
  fs::create_symlink("real", file_);
  expectRefused(EPERM, "a symbolic link");
  fs::remove(file_);
  ASSERT_EQ(mkfifo(file_.c_str(), 0600), 0);
  expectRefused(EPERM, "a pipe, which must not block either");
  fs::remove(file_);
  fs::create_directory(file_);
  expectRefused(EPERM, "a directory");
  fs::remove(file_);
  if (geteuid() != 0) GTEST_SKIP() << "only root can give a file away";
  grant(Dictionary{{"a", true}});
  ASSERT_EQ(chown(file_.c_str(), 12345, 12345), 0);
  expectRefused(EPERM, "someone else's");
}

TEST_F(EntitlementsTest, WhatIsNoDictionaryIsAnErrorAndNotAnEmptyOne) {
  writeText(file_, "<plist><dict>");
  expectRefused(kFileReadCorrupt, "damaged");
  grant(Array{"a"});
  expectRefused(kFileReadCorrupt, "an array");
  writeText(file_, "");
  expectRefused(kFileReadCorrupt, "empty");
  ASSERT_EQ(truncate(file_.c_str(), (16 << 20) + 1), 0);
  expectRefused(EFBIG, "too large");
}

/// A shell that runs from `bundle` and has connected to a socket of ours before; it does what it is told.
class BundledPeer {
 public:
  explicit BundledPeer(const std::string& bundle) {
    const std::string program = bundle + "/main";
    fs::copy_file(fs::canonical("/bin/sh"), program, fs::copy_options::overwrite_existing);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, (ownDevice.runtime() + "/peer").c_str(), sizeof address.sun_path - 1);
    const auto* name = reinterpret_cast<const sockaddr*>(&address);
    const FileDescriptor listener(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    EXPECT_EQ(bind(listener.get(), name, sizeof address) + listen(listener.get(), 1), 0);
    int commands[2];
    EXPECT_EQ(pipe2(commands, O_CLOEXEC), 0);
    pid_ = fork();
    if (pid_ == 0) {
      const int connection = socket(AF_UNIX, SOCK_STREAM, 0);
      if (connect(connection, name, sizeof address) != 0) _exit(1);
      dup2(commands[0], STDIN_FILENO);
      execl(program.c_str(), program.c_str(), nullptr);
      _exit(1);
    }
    close(commands[0]);
    commands_ = FileDescriptor(commands[1]);
    EXPECT_TRUE(waitForImage(program));
    connection_ = FileDescriptor(accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC));
    identity_ = qmx::PeerIdentity::ofSocket(connection_.get());
  }
  ~BundledPeer() { kill(); }

  const std::shared_ptr<const qmx::PeerIdentity>& identity() const { return identity_; }
  void tell(const std::string& command) const {
    EXPECT_EQ(write(commands_.get(), command.data(), command.size()), static_cast<ssize_t>(command.size()));
  }
  bool waitForImage(const std::string& path) const {
    std::error_code gone;
    for (int i = 0; i < 1000; ++i) {
      if (fs::read_symlink("/proc/" + std::to_string(pid_) + "/exe", gone) == path) return true;
      usleep(2000);
    }
    return false;
  }
  void kill() {
    if (pid_ <= 0) return;
    ::kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
    pid_ = -1;
  }

 private:
  pid_t pid_ = -1;
  FileDescriptor commands_, connection_;
  std::shared_ptr<const qmx::PeerIdentity> identity_;
};

TEST_F(EntitlementsTest, AProcessHasThoseOfItsExecutablesBundleWhileItRunsThatExecutable) {
  grant(Dictionary{{"allowed", "share"}});
  BundledPeer peer(bundle_);
  const auto task = CodeSigningTask::create(peer.identity());
  ASSERT_NE(task, nullptr);
  EXPECT_EQ(task->valueForEntitlement("allowed").value, Value("share"));
  const auto absent = task->valueForEntitlement("other");
  EXPECT_TRUE(absent.value.isNone() && !absent.error);
  grant(Dictionary{{"other", true}});
  EXPECT_EQ(task->valueForEntitlement("other").value, Value(true)) << "asked anew each time";
  chmod(file_.c_str(), 0666);
  EXPECT_EQ(task->valueForEntitlement("other").error->code, EPERM);
  chmod(file_.c_str(), 0600);

  const std::string cat = fs::canonical("/bin/cat").string();
  peer.tell("exec " + cat + "\n");
  ASSERT_TRUE(peer.waitForImage(cat));
  const auto changed = task->valueForEntitlement("other");
  EXPECT_TRUE(changed.value.isNone());
  EXPECT_EQ(changed.error->code, ESRCH);
}

TEST_F(EntitlementsTest, AProcessThatIsGoneHasNoneAndOneOutsideOfBundlesHasNoneWithoutAnError) {
  grant(Dictionary{{"allowed", true}});
  {
    BundledPeer peer(bundle_);
    const auto task = CodeSigningTask::create(peer.identity());
    ASSERT_NE(task, nullptr);
    peer.kill();
    const auto gone = task->valueForEntitlement("allowed");
    EXPECT_TRUE(gone.value.isNone());
    EXPECT_EQ(gone.error->code, ESRCH);
    EXPECT_EQ(CodeSigningTask::create(nullptr), nullptr);
  }
  int ends[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
  const auto task = CodeSigningTask::create(qmx::PeerIdentity::ofSocket(ends[0]));
  ASSERT_NE(task, nullptr);
  const auto answer = task->valueForEntitlement("allowed");
  EXPECT_TRUE(answer.value.isNone() && !answer.error);
  close(ends[0]);
  close(ends[1]);
}

}  // namespace
