// What the system does for an answer, seen from outside: for an "annotate" the calls and their order, for a
// "match" how many there are.

#include <csignal>

#include "tests/support/DaemonTest.h"

namespace testsupport {
namespace {

/// strace(1) of a running daemon, with `options`, until the object is gone.
class SystemCalls {
 public:
  SystemCalls(const DeviceRoot& root, pid_t pid, std::vector<std::string> options)
      : file_(root.path() + "/calls") {
    fs::remove(file_);
    const std::string errors = root.path() + "/strace.log";
    fs::remove(errors);
    options.insert(options.begin(), {"/usr/bin/strace", "-f", "-y", "-o", file_, "-p", std::to_string(pid)});
    strace_ = std::make_unique<Process>(options, root.environment(), errors);
    isAttached_ =
        eventually([&] { return contains(readText(errors), " attached") || !strace_->isRunning(); }) &&
        strace_->isRunning();
  }
  ~SystemCalls() { lines(); }

  bool isAttached() const { return isAttached_; }
  /// Ends the trace; its lines without the numbers of threads.
  std::vector<std::string> lines() {
    strace_->signal(SIGINT);
    strace_->waitForExit();
    std::vector<std::string> lines = linesOf(readText(file_));
    for (std::string& each : lines) each.erase(0, each.find_first_not_of("0123456789 "));
    return lines;
  }

 private:
  std::string file_;
  std::unique_ptr<Process> strace_;
  bool isAttached_ = false;
};

using Durability = DaemonTest;

TEST_F(Durability, TheFileAndItsNameAreOnDiskBeforeTheReply) {
  root.install("A.app", {{.identifier = "a"}});
  start({.arguments = {}});
  const UUID a = uuid("a");
  const std::string directory = fs::path(root.annotationFile()).parent_path();
  SystemCalls calls(root, daemon->pid(), {"-e", "trace=write,fsync,rename,sendto"});
  if (!calls.isAttached()) GTEST_SKIP() << "processes cannot be traced here";
  EXPECT_EQ(elect(a, 1), "");
  const std::string temporary = directory + "/.Annotations.tmp-";
  std::vector<std::string> order;
  for (const std::string& line : calls.lines()) {
    const std::string call = line.substr(0, line.find('('));
    // The log's socket is written to by the same call, but may block.
    if (call == "sendto" && contains(line, "MSG_DONTWAIT")) order.push_back("reply");
    if (contains(line, temporary)) order.push_back(call + " file");
    if (contains(line, "<" + directory + ">")) order.push_back(call + " directory");
    if (contains(line, "annotation-change>")) order.push_back(call + " notification");
  }
  EXPECT_EQ(order, (std::vector<std::string>{"write file", "fsync file", "rename file", "fsync directory",
                                             "write notification", "reply"}));
}

using Discovery = DaemonTest;

TEST_F(Discovery, LooksUpNothingForEachPlugInThatAWarmMatchFinds) {
  for (int i = 0; i < 20; i++) {
    const std::string name = "p" + std::to_string(i);
    writePropertyList(root.dataUser() + "/Applications/" + name + "/ZintraMetadata.plist", Dictionary());
    root.install(name + "/A.app", {{.identifier = name, .point = i == 0 ? "one" : "many"}});
  }
  writePropertyList(root.configUser() + "/Restrictions.plist", Dictionary{{"maximumAppsRating", 5}});
  start({.arguments = {}, .environment = {"LC_ALL=de_AT.UTF-8"}});
  bool isTraceable = true;
  const auto looks = [&](const char* point, size_t found) {
    SystemCalls calls(root, daemon->pid(), {"-e", "trace=%file"});
    isTraceable = isTraceable && calls.isAttached();
    EXPECT_EQ(match(*client, Dictionary{{"ZQExtensionPointName", point}}).size(), found);
    return calls.lines().size();
  };
  EXPECT_TRUE(eventually([&] { return !isTraceable || looks("many", 19) == looks("one", 1); }));
  if (!isTraceable) GTEST_SKIP() << "processes cannot be traced here";
}

}  // namespace
}  // namespace testsupport
