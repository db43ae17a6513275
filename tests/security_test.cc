#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <algorithm>

#include "platform/security/CodeSigning.h"
#include "platform/security/Sandbox.h"
#include "tests/support/Child.h"
#include "tests/support/Daemon.h"
#include "tests/support/ThisProcess.h"

namespace {

using namespace platform;
using namespace testsupport;

const DeviceRoot& ownDevice = thisDevice();

using Token = std::optional<std::string>;

/// The error number that goes with no answer; 0 with an answer.
int failure(const Token& answer) {
  return answer ? 0 : errno;
}

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

TEST_F(ReadTokenTest, ATokenForABundlesResourceSaysItsCanonicalPathAndNeverLeadsOut) {
  const auto inside = [this](const std::string& path) {
    const auto found = findReadableInside(bundle_, path);
    return found ? issueReadToken(found->path, found->place) : Token();
  };
  fs::create_symlink("Shared/picture", bundle_ + "/inner");
  for (const std::string& path : {picture_, std::string("Shared/picture"), bundle_ + "/inner",
                                  bundle_ + "//Shared/./picture", bundle_ + "/../P.appex/Shared/picture"}) {
    const Token token = inside(path);
    ASSERT_TRUE(token) << path;
    EXPECT_EQ(verifyReadToken(*token), picture_) << path;
    EXPECT_TRUE(std::ranges::all_of(*token, [](char c) { return c > ' ' && c < 0x7F; }));
  }
  EXPECT_TRUE(inside(bundle_) && inside("."));
  fs::create_symlink("../secret", bundle_ + "/escape");
  fs::create_directory(bundle_ + "-more");
  for (const std::string& path : {bundle_ + "/../secret", bundle_ + "/escape", std::string("../secret"),
                                  std::string("/etc/passwd"), bundle_ + "/..", bundle_ + "-more"})
    EXPECT_EQ(failure(inside(path)), EACCES) << path;
}

TEST_F(ReadTokenTest, WhatDoesNotExistOrCannotBeReadGetsTheSystemsError) {
  EXPECT_EQ(failure(issueReadToken(picture_ + "/below")), ENOTDIR);
  EXPECT_EQ(failure(issueReadToken("")), ENOENT);
  ASSERT_TRUE(issueReadToken(picture_)) << "the key is there";
  chmod(picture_.c_str(), 0);
  chmod(ownDevice.path().c_str(), 0755);
  EXPECT_TRUE(holdsInProcess([this] {
    if (geteuid() == 0 && seteuid(65534) != 0) return false;
    return failure(issueReadToken(picture_)) == EACCES && issueReadToken(bundle_);
  }));
}

TEST_F(ReadTokenTest, NoChangedTokenIsAuthentic) {
  const std::string token = *issueReadToken(picture_);
  for (size_t i = 0; i < token.size(); ++i) {
    std::string changed = token;
    changed[i] = changed[i] == 'A' ? 'B' : 'A';
    ASSERT_EQ(failure(verifyReadToken(changed)), EBADMSG) << i;
  }
  for (const std::string& wrong :
       {std::string(), std::string("v1."), token.substr(0, token.size() - 1), token + "A", token + "=",
        token + std::string(1, '\0'), "v2" + token.substr(2), std::string(100'000, 'A')})
    EXPECT_EQ(failure(verifyReadToken(wrong)), EBADMSG);
}

TEST_F(ReadTokenTest, ATokenIsForOneFileAndNotForItsName) {
  const std::string token = *issueReadToken(picture_);
  fs::rename(picture_, picture_ + ".old");
  EXPECT_EQ(failure(verifyReadToken(token)), ENOENT);
  writeText(picture_, "others");
  EXPECT_EQ(failure(verifyReadToken(token)), ESTALE);
  fs::remove(picture_);
  fs::create_symlink(picture_ + ".old", picture_);
  EXPECT_EQ(failure(verifyReadToken(token)), ELOOP) << "the same file, but not there";
  EXPECT_EQ(failure(issueReadToken(picture_)), ELOOP);
  EXPECT_EQ(failure(issueReadToken(bundle_ + "/../P.appex")), ELOOP);
}

/// Runs `isGood` in a fresh process on a fresh device, since a process reads the key once.
#define EXPECT_IN_FRESH_PROCESS(isGood)                                         \
  do {                                                                          \
    testing::FLAGS_gtest_death_test_style = "threadsafe";                       \
    EXPECT_EXIT(std::exit((isGood)() ? 0 : 1), testing::ExitedWithCode(0), ""); \
  } while (false)

bool isRefusedWith(int number) {
  return failure(issueReadToken("/")) == number && failure(verifyReadToken("v1.x")) == number;
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
    return good && token && verifyReadToken(*token) == "/" && fs::file_size(key) == 32 &&
           fs::status(key).permissions() == fs::perms(0600);
  };
  EXPECT_IN_FRESH_PROCESS(isGood);
}

TEST(TokenKey, ProcessesThatMakeTheKeyAtTheSameTimeAgreeOnOne) {
  const auto isGood = [] {
    fs::remove_all(ownDevice.state());
    const std::string file = ownDevice.runtime() + "/token";
    for (const char c : std::string("abcdefg")) {
      if (fork() != 0) continue;
      writeText(file + c, issueReadToken("/").value_or("none"));
      _exit(0);
    }
    while (wait(nullptr) > 0) continue;
    const auto files = fs::directory_iterator(ownDevice.state());
    return std::distance(begin(files), end(files)) == 1 &&
           std::ranges::all_of(std::string("abcdefg"),
                               [&](char c) { return verifyReadToken(readText(file + c)) == "/"; });
  };
  EXPECT_IN_FRESH_PROCESS(isGood);
}

/// What isSandboxed() says of a process that first does `prepare`; none when that fails.
std::optional<bool> isSandboxedAfter(const std::function<bool()>& prepare) {
  Child child(prepare);
  const pid_t pid = child.pid();
  const auto out = child.isReady() ? std::optional(isSandboxed(pid)) : std::nullopt;
  child.kill();
  EXPECT_TRUE(isSandboxed(pid)) << "a process that is gone is in doubt";
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
  /// The error of reading them; 0 when they were read.
  int64_t failureToRead() const {
    const auto answer = bundleEntitlements(bundle_);
    const Error* error = std::get_if<Error>(&answer);
    return error != nullptr ? error->code : 0;
  }
  const std::string bundle_ = ownDevice.dataUser() + "/Applications/A.app";
  const std::string file_ = bundle_ + "/Entitlements.plist";
};

TEST_F(EntitlementsTest, AFileThatOthersMayHaveWrittenIsNotHonoured) {
  EXPECT_EQ(failureToRead(), 0) << "no file";
  grant(Dictionary{{"a", true}});
  for (const auto& [mode, code] : {std::pair(0444, 0), {0664, EPERM}, {0646, EPERM}, {0600, 0}}) {
    chmod(file_.c_str(), static_cast<mode_t>(mode));
    EXPECT_EQ(failureToRead(), code) << mode;
  }
  fs::rename(file_, bundle_ + "/real");
  fs::create_symlink("real", file_);
  EXPECT_EQ(failureToRead(), EPERM) << "a symbolic link";
  fs::remove(file_);
  ASSERT_EQ(mkfifo(file_.c_str(), 0600), 0);
  EXPECT_EQ(failureToRead(), EPERM) << "a pipe, which must not block either";
  fs::remove(file_);
  grant(Array{"a"});
  EXPECT_EQ(failureToRead(), kFileReadCorrupt) << "an error and not an empty dictionary";
  if (geteuid() != 0) GTEST_SKIP() << "only root can give a file away";
  grant(Dictionary{{"a", true}});
  ASSERT_EQ(chown(file_.c_str(), 12345, 12345), 0);
  EXPECT_EQ(failureToRead(), EPERM) << "someone else's";
}

TEST_F(EntitlementsTest, AProcessHasThoseOfItsExecutablesBundleWhileItRunsThatExecutable) {
  grant(Dictionary{{"allowed", "share"}});
  // A shell that runs from the bundle and has connected to a socket of ours before.
  const std::string program = bundle_ + "/main", path = ownDevice.runtime() + "/peer";
  fs::copy_file(fs::canonical("/bin/sh"), program);
  const FileDescriptor listener = listeningSocket(path);
  Child process([&] {
    WireClient::connect(path);
    execl(program.c_str(), program.c_str(), "-c", "kill -STOP $$; exec sleep 1000", nullptr);
    return false;
  });
  const FileDescriptor connection(accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC));
  const auto task = CodeSigningTask::create(qmx::PeerIdentity::ofSocket(connection.get()));
  EXPECT_EQ(task->valueForEntitlement("allowed").value, Value("share"));

  // It runs another program, which lies in no bundle.
  ASSERT_TRUE(eventually([&] {
    process.signal(SIGCONT);
    return fs::read_symlink("/proc/" + std::to_string(process.pid()) + "/exe") != program;
  }));
  const auto expectLost = [&task] {
    const auto answer = task->valueForEntitlement("allowed");
    EXPECT_TRUE(answer.value.isNone());
    EXPECT_EQ(answer.error->code, ESRCH);
  };
  expectLost();
  process.kill();
  expectLost();
  EXPECT_EQ(CodeSigningTask::create(nullptr), nullptr);
}

}  // namespace
