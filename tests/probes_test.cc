// The ten static probes, as a tracer sees them in the built daemon: names, and the arguments they carry.

#include <gtest/gtest.h>

#include "tests/support/Daemon.h"

namespace testsupport {
namespace {

constexpr const char* kDebugger = "/usr/bin/gdb";

struct Probe {
  const char* name;
  const char* format;     // of printf
  const char* arguments;  // in gdb's language
};

constexpr Probe kProbes[] = {
    {"client__new", "%d", "$_probe_arg0"},
    {"client__done", "%d", "$_probe_arg0"},
    {"request__input", "%d %s", "$_probe_arg0, (char*)$_probe_arg1"},
    {"request", "%d %s", "$_probe_arg0, (char*)$_probe_arg1"},
    {"request__output", "%d %s", "$_probe_arg0, (char*)$_probe_arg1"},
    {"plugin__add", "%s", "(char*)$_probe_arg0"},
    {"plugin__remove", "%s %d", "(char*)$_probe_arg0, $_probe_arg1"},
    {"plugin__ready", "%s", "(char*)$_probe_arg0"},
    {"discover__raw", "%d", "$_probe_arg0"},
    {"db__load", "%s %d", "(char*)$_probe_arg0, $_probe_arg1"},
};

/// Commands for gdb(1): one line to `output` whenever a probe fires; then the program runs.
std::string debuggerCommands(const std::string& output) {
  std::string commands =
      "set pagination off\nset confirm off\nset startup-with-shell off\nset disable-randomization off\n"
      "set print elements 0\nset logging redirect on\nset logging file " +
      output + "\n";
  for (const Probe& probe : kProbes)
    commands += std::string("break -probe-stap abd:") + probe.name + "\ncommands\nsilent\nprintf \"" +
                probe.name + ": " + probe.format + "\\n\", " + probe.arguments + "\ncontinue\nend\n";
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

  const auto fired = [&](const std::string& probe, const std::string& arguments) {
    const std::string line = probe + ": " + arguments + "\n";
    return eventually([&] { return ("\n" + readText(output)).find("\n" + line) != std::string::npos; });
  };
  const std::string pid = std::to_string(getpid());
  {
    WireClient client = WireClient::connect(socket);
    EXPECT_TRUE(fired("db__load", "Ambrel 7"));
    EXPECT_TRUE(fired("client__new", pid));
    const UUID a = uuidOf(client, "a");
    EXPECT_TRUE(fired("request", pid + " match"));
    EXPECT_TRUE(fired("discover__raw", "1")) << readText(output);
    EXPECT_EQ(errorOf(client.call(message("ready", {{"uuids", uuidArray({a})}}))), "");
    EXPECT_TRUE(fired("plugin__ready", a.string()));
    EXPECT_EQ(errorOf(client.call(message("add", {{"paths", Array{bundle + "/../a.appex"}}}))), "");
    EXPECT_TRUE(fired("plugin__add", bundle));
    client.call(message("remove", {{"paths", Array{bundle, "/nowhere"}}}));
    EXPECT_TRUE(fired("plugin__remove", bundle + " 1"));
    EXPECT_TRUE(fired("plugin__remove", "/nowhere 0"));
    client.call(Dictionary{{"version", 3}});
    EXPECT_TRUE(fired("request", pid + " (null)"));
    client.call(message("bulk", {{"flags", 77}}));
    const std::string text = readText(output);
    EXPECT_NE(text.find("request__input: " + pid + " "), std::string::npos);
    EXPECT_NE(text.find("flags"), std::string::npos);
    EXPECT_NE(text.find("request__output: " + pid + " "), std::string::npos);
  }
  EXPECT_TRUE(fired("client__done", pid));
}

}  // namespace
}  // namespace testsupport
