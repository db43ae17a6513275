// The ten static probes, as a tracer sees them in the built daemon: names, and the arguments they carry.

#include <gtest/gtest.h>

#include <algorithm>

#include "tests/support/Daemon.h"

namespace testsupport {
namespace {

constexpr const char* kDebugger = "/usr/bin/gdb";

/// Names, and of each argument the letter of its format.
constexpr const char* kProbes[] = {
    "client__new d", "client__done d",    "request__input ds", "request ds",      "request__output ds",
    "plugin__add s", "plugin__remove sd", "plugin__ready s",   "discover__raw d", "db__load sd"};

/// Commands for gdb(1): one line to `output` whenever a probe fires; then the program runs.
std::string debuggerCommands(const std::string& output) {
  std::string commands =
      "set pagination off\nset confirm off\nset startup-with-shell off\nset disable-randomization off\n"
      "set print elements 0\nset logging redirect on\nset logging file " +
      output + "\n";
  for (const std::string probe : kProbes) {
    const std::string name = probe.substr(0, probe.find(' '));
    std::string format = name + ":", arguments;
    for (const char letter : probe.substr(name.size() + 1)) {
      arguments += std::string(letter == 's' ? ", (char*)" : ", ") + "$_probe_arg" +
                   std::to_string(std::ranges::count(format, '%'));
      format += std::string(" %") + letter;
    }
    commands += "break -probe-stap abd:" + name + "\ncommands\nsilent\nprintf \"" + format + "\\n\"" +
                arguments + "\ncontinue\nend\n";
  }
  return commands + "set logging enabled on\nrun\n";
}

TEST(Probes, FireWithTheirArguments) {
  if (!fs::exists(kDebugger)) GTEST_SKIP() << "no debugger here";
  const DeviceRoot root;
  const std::string application = root.install("A.app", {{.identifier = "a"}, {.identifier = "b"}});
  const std::string bundle = DeviceRoot::plugInPath(application, "a");
  writePropertyList(root.annotationFile(), Dictionary{{"version", 15}});
  const std::string output = root.path() + "/probes";
  const std::string script = root.path() + "/commands";
  writeText(script, debuggerCommands(output));
  Process debugger({kDebugger, "--batch", "-nx", "-x", script, "--args", ABD_PROGRAM, "-S", "abd.test"},
                   root.environment(), root.path() + "/log");
  const std::string socket = root.runtime() + "/abd.test";
  ASSERT_TRUE(eventually([&] { return WireClient::connect(socket).fd() >= 0 || !debugger.isRunning(); }));
  if (!debugger.isRunning())
    GTEST_SKIP() << "programs cannot be debugged here: " << readText(root.path() + "/log");

  std::vector<std::string> expected = {"db__load: Ambrel 7"};
  {
    WireClient client = WireClient::connect(socket);
    const UUID a = uuidOf(client, "a");
    const std::string pid = " " + std::to_string(getpid());
    EXPECT_EQ(errorOf(client.call(message("ready", {{"uuids", uuidArray({a})}}))), "");
    EXPECT_EQ(errorOf(client.call(message("add", {{"paths", Array{bundle + "/../a.appex"}}}))), "");
    client.call(message("remove", {{"paths", Array{bundle, "/nowhere"}}}));
    client.call(Dictionary{{"version", 3}});
    expected.insert(
        expected.end(),
        {"client__new:" + pid, "client__done:" + pid, "request:" + pid + " match",
         "request:" + pid + " (null)", "discover__raw: 1", "plugin__ready: " + a.string(),
         "plugin__add: " + bundle, "plugin__remove: " + bundle + " 1", "plugin__remove: /nowhere 0",
         "request__input:" + pid + " {request = \"ready\"; uuids = (" + a.string() + "); version = 3}",
         "request__output:" + pid + " {}"});
  }
  for (const std::string& line : expected)
    EXPECT_TRUE(eventually([&] { return contains("\n" + readText(output), "\n" + line + "\n"); })) << line;
}

}  // namespace
}  // namespace testsupport
