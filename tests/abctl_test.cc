// abctl as people and programs use it: the real program against the real daemon.

#include <poll.h>
#include <pty.h>

#include <nlohmann/json.hpp>
#include <regex>
#include <set>

#include "tests/support/Child.h"
#include "tests/support/DaemonTest.h"

namespace {

using namespace testsupport;
using Json = nlohmann::json;
using namespace std::literals;
using Words = std::vector<std::string>;

/// One run of abctl. Its standard input is empty, or what it is given.
class Invocation {
 public:
  struct Options {
    std::string program = ABCTL_PROGRAM;
    std::string input = {};
    Words environment = {};
    std::string directory = {};
    unsigned short columns = 0;  // of the terminal that it writes to, if any
  };
  Invocation(const DeviceRoot& root, const Words& words) : Invocation(root, words, Options()) {}
  Invocation(const DeviceRoot& root, const Words& words, const Options& options) {
    static int count = 0;
    files_ = root.path() + "/abctl." + std::to_string(count++);
    for (const char* suffix : {".in", ".out"}) writeText(files_ + suffix, options.input);
    const FileDescriptor input(open((files_ + ".in").c_str(), O_RDONLY | O_CLOEXEC));
    FileDescriptor output(open((files_ + ".out").c_str(), O_WRONLY | O_TRUNC | O_CLOEXEC));
    if (options.columns != 0) {
      const winsize size{.ws_row = 0, .ws_col = options.columns, .ws_xpixel = 0, .ws_ypixel = 0};
      int ends[2];
      EXPECT_EQ(openpty(&ends[0], &ends[1], nullptr, nullptr, &size), 0);
      terminal_ = FileDescriptor(ends[0]);
      output = FileDescriptor(ends[1]);
    }
    Words arguments = {options.program};
    arguments.insert(arguments.end(), words.begin(), words.end());
    process_.emplace(arguments, root.environment(options.environment), files_ + ".err", input.get(),
                     options.directory, output.get());
  }

  /// Waits until `text` was written to standard output (or to standard error).
  bool waitFor(std::string_view text, bool onError = false) {
    return eventually([&] { return contains(written(onError), text); });
  }
  void signal(int number) const { process_->signal(number); }
  /// Waits for the end; 128 and more for a signal, -1 when it does not end.
  int status() { return process_->waitForExit(); }
  std::string out() { return status(), written(false); }
  std::string err() { return status(), written(true); }
  Json json() { return Json::parse(out()); }
  std::string firstLine() const { return linesOf(written(false)).at(0); }

 private:
  std::string written(bool onError) const {
    if (onError || !terminal_) return readText(files_ + (onError ? ".err" : ".out"));
    char buffer[65536];  // more than such a terminal holds
    const ssize_t size = read(terminal_.get(), buffer, sizeof buffer);
    return {buffer, static_cast<size_t>(std::max<ssize_t>(size, 0))};
  }

  std::string files_;
  FileDescriptor terminal_;
  std::optional<Process> process_;
};

/// Two applications: Notes with org.notes.share (two versions elsewhere), Paint with filters.
class Abctl : public DaemonTest {
 protected:
  Abctl() {
    notes_ =
        root.install("Notes.app", {{.identifier = "org.notes.share", .version = "1.10"},
                                   {.identifier = "org.notes.private", .plugIn = {{"Dedicated", true}}}});
    root.install("OldNotes.app", {{.identifier = "org.notes.share", .version = "1.9"}});
    paint_ = root.install(
        "Paint.app",
        {{.identifier = "org.paint.blur",
          .point = "com.example.filter",
          .attributes = {{"Rule", Dictionary{{"image/png", 1}}}, {"Fast", true}}},
         {.identifier = "org.paint.sealed", .plugIn = {{"ZQExtensionHostEntitlement", "org.paint.seal"}}}});
    start({.service = "com.veltra.ambrel.abd"});
  }

  std::string identifiers(Words words, int status = 0) {
    words.insert(words.begin(), {"match", "--json"});
    Invocation run(root, words);
    EXPECT_EQ(run.status(), status) << run.err();
    std::string result;
    for (const Json& form : run.json())
      result +=
          (result.empty() ? "" : " ") + std::string(form["identifier"]) + ":" + std::string(form["version"]);
    return result;
  }
  Invocation run(const Words& words, const Invocation::Options& options = {}) const {
    return Invocation(root, words, options);
  }
  int status(const Words& words, const Invocation::Options& options = {}) const {
    return run(words, options).status();
  }
  std::string uuid(const std::string& identifier) const {
    return run({"show", identifier, "--json"}).json().at(0).at("uuid");
  }
  /// Runs it and expects that it ends with this status and says this on standard error.
  void expectFailure(const Words& words, int status, std::string_view text,
                     const Invocation::Options& options = {}) const {
    Invocation failed(root, words, options);
    EXPECT_EQ(failed.status(), status) << testing::PrintToString(words) << failed.err();
    EXPECT_TRUE(contains(failed.err(), text)) << failed.err();
  }

  std::string notes_, paint_;
};

TEST_F(Abctl, PrintsTablesForPeopleAndWholeFormsForPrograms) {
  Invocation table(root, {"match"});
  EXPECT_EQ(table.status(), 0);
  const Words rows = linesOf(table.out());
  ASSERT_EQ(rows.size(), 3u) << table.out();
  for (const char* cell : {"org.notes.share", "1.10", "Notes", "com.example.share"})
    EXPECT_NE(rows[1].find(cell), std::string::npos) << rows[1];
  EXPECT_EQ(table.out().find('\x1b'), std::string::npos) << "no colours without a terminal";
  const Json forms = run({"match", "--json"}).json();
  ASSERT_EQ(forms.size(), 2u);
  EXPECT_EQ(forms[0]["bundleInfo"]["ZQExtension"]["ZQExtensionAttributes"]["ZQExtensionPointName"],
            "com.example.share");
  const std::string shown = run({"show", "org.paint.blur"}).out();
  for (const char* part : {"org.paint.blur\n", "com.example.filter", "Paint", "Fast: true", "image/png: 1"})
    EXPECT_TRUE(contains(shown, part)) << part << "\n" << shown;
  const Json tokens = run({"access", "--json", "org.notes.share", "org.paint.blur"}).json()["access"];
  EXPECT_EQ(tokens.at(1)["uuid"], uuid("org.paint.blur"));
  EXPECT_NE(tokens[0]["extension"], tokens[1]["extension"]);
}

TEST_F(Abctl, RulesSelectAsTheyAreWritten) {
  const std::string rules = root.path() + "/rules.plist", blur = "org.paint.blur:1.0";
  writePropertyList(rules, Dictionary{{"Fast", true}, {"ZQExtensionVersion", "7"}});
  EXPECT_EQ(identifiers({"--all-versions", "--rule", "ZQExtensionIdentifier=org.notes.share"}),
            "org.notes.share:1.10 org.notes.share:1.9");
  EXPECT_EQ(identifiers({"--all-versions", "--rule", "ZQExtensionVersion=<1.10"}),
            "org.notes.share:1.9 " + blur);
  EXPECT_EQ(identifiers({"--rule", "ZQExtensionVersion=1.10", "--rule", "ZQExtensionVersion=1.0"}),
            "org.notes.share:1.10 " + blur);
  EXPECT_EQ(identifiers({"--rule", "Fast=false"}), "org.notes.share:1.10");
  for (const Words& each : {Words{"--rule", "Fast=true"},
                            {"--rule", R"(Rule={"items":[{"types":["image/png"]}]})"},
                            {"--rule", "ZQExtensionContainingApp=" + paint_},
                            {"--rules", rules, "--rule", "ZQExtensionVersion=1.0"}})
    EXPECT_EQ(identifiers(each), blur) << each[1];
  EXPECT_EQ(identifiers({"--system-only"}, 1), "");
  EXPECT_EQ(identifiers({"--rules", rules}, 1), "");
  Invocation fromInput(root, {"match", "--rules", "-"},
                       {.input = R"( {"ZQExtensionVersion": ["5", ">=1.10"]} )"});
  EXPECT_EQ(linesOf(fromInput.out()).size(), 2u) << fromInput.out();
}

TEST_F(Abctl, ExitStatusesAndErrorsSayWhatHappenedAndWhatToDo) {
  expectFailure({"match", "--rule", "ZQExtensionIdentifier=org.nobody"}, 1, "abctl: no plug-in matches\n");
  const std::string unknown = "6C0F2A7E-0B7B-4B43-9E0C-6C6E7F1D2A55";
  for (const std::string& name : {"org.nobody"s, unknown, "/nowhere/X.appex"s, "?odd"s})
    expectFailure({"show", name}, 1, "no plug-in ");
  expectFailure({"ready", unknown}, 1, "abctl: no such plugin (uuid not found)\n");
  const Json error = run({"--json", "ready", "org.paint.sealed"}).json()["error"];
  EXPECT_EQ(error["code"], 11);
  EXPECT_EQ(error["exit"], 5);
}

TEST_F(Abctl, WrongUsageIsExplainedWithoutAskingTheDaemon) {
  const DeviceRoot empty;
  writeText(empty.path() + "/no.plist", "<plist><dict>");
  writePropertyList(empty.path() + "/array.plist", Array{"x"});
  const std::string files = "match --rules " + empty.path();
  const std::vector<std::string> wrong = {
      "", "frobnicate", "match --frobnicate", "match org.notes.share",
      // rules
      "match --rule no-pattern", "match --rule =x", "match --rule a=true --rule a=b",
      "match --rule a={\"items\"", "match --rule a={\"items\":null}", files + "/no.plist",
      files + "/array.plist", files,
      // options of all commands, and what the others need
      "match --service a/b", "match --timeout 0", "show", "elect org.notes.share maybe",
      "annotate org.notes.share --election 1x", "annotate org.notes.share --extension [1]", "hold",
      "hold --application a --plugin b", "release not-a-token", "watch --count 0"};
  for (const std::string& command : wrong) {
    std::istringstream text(command);
    Invocation run(empty, Words{std::istream_iterator<std::string>(text), {}});
    EXPECT_EQ(run.status(), 2) << command << run.err();
    EXPECT_TRUE(run.err().starts_with("abctl: ")) << command << run.err();
    EXPECT_EQ(run.out(), "") << command;
  }
  EXPECT_EQ(run({"show", "--json"}).json()["error"]["exit"], 2);
}

TEST_F(Abctl, AnUnreachableDaemonIsToldApartFromARefusal) {
  const DeviceRoot empty;
  EXPECT_EQ(Invocation(empty, {"match"}).status(), 4);
  daemon.reset();
  // The socket's file without a daemon behind it, and somebody who takes connections and never answers.
  expectFailure({"match"}, 4, "abctl: no daemon answers at " + root.runtime());
  const FileDescriptor deaf = listeningSocket(root.runtime() + "/deaf");
  expectFailure({"--service", "deaf", "--timeout", "0.2", "match"}, 4, "--timeout");
  const FileDescriptor mute = listeningSocket(root.runtime() + "/mute");
  Invocation hold(root, {"--service", "mute", "hold", "--application", paint_});
  pollfd asked{mute.get(), POLLIN, 0};
  ASSERT_EQ(poll(&asked, 1, 10'000), 1);
  hold.signal(SIGINT);
  EXPECT_EQ(hold.status(), 4) << "Ctrl-C is heard while it waits for the answer";
}

TEST_F(Abctl, InItsBundleItMaySeeEverythingAndACopyElsewhereMayNot) {
  EXPECT_EQ(identifiers({"--all"}),
            "org.notes.private:1.0 org.notes.share:1.10 org.paint.blur:1.0 org.paint.sealed:1.0");
  const std::string copy = root.path() + "/abctl-copy";
  fs::copy_file(ABCTL_PROGRAM, copy);
  expectFailure({"match", "--all"}, 5, "abctl: unauthorized discovery flag (ABDiscoverAll)\n",
                {.program = copy});
  expectFailure({"status"}, 5, "abctl: unauthorized request\n", {.program = copy});
  EXPECT_EQ(status({"show", "org.notes.private"}, {.program = copy}), 1);
}

TEST_F(Abctl, PlugInsAreNamedByIdentifierUuidAndPath) {
  const std::string path = notes_ + "/PlugIns/org.notes.share.appex", known = uuid("org.notes.share");
  std::string lower = known;
  for (char& digit : lower) digit = static_cast<char>(tolower(digit));
  for (const std::string& name : {known, lower, notes_ + "/../Notes.app/PlugIns/org.notes.share.appex/"})
    EXPECT_EQ(uuid(name), known) << name;
  Invocation relative(root, {"show", "--json", "org.notes.share.appex"}, {.directory = notes_ + "/PlugIns"});
  EXPECT_EQ(relative.json().at(0)["uuid"], known);

  const Value one = infoDictionary({"x"})["ZQExtension"];
  const std::string application = root.install(
      "Several.app", {{.identifier = "org.several",
                       .plugIn = {{"Multiple", Dictionary{{"org.one", one}, {"org.two", one}}}}}});
  ASSERT_TRUE(eventually([&] { return status({"show", "org.two"}) == 0; }));
  EXPECT_EQ(run({"show", "--json", DeviceRoot::plugInPath(application, "org.several")}).json().size(), 2u)
      << "a path means the whole bundle";
}

TEST_F(Abctl, ElectionsAndAnnotationsAreStoredAndShown) {
  EXPECT_EQ(status({"elect", "org.notes.share", uuid("org.paint.blur"), "use"}), 0);
  EXPECT_EQ(identifiers({"--rule", "ZQUserElection=1"}), "org.notes.share:1.10 org.paint.blur:1.0");
  EXPECT_EQ(status({"elect", paint_ + "/PlugIns/org.paint.blur.appex", "ignore"}), 0);
  EXPECT_TRUE(contains(run({"match"}).out(), "ignore"));
  EXPECT_EQ(status({"annotate", "org.paint.blur", "--extension", R"({"position": 3})"}), 0);
  EXPECT_EQ(root.storedAnnotations()["org.paint.blur"],
            Value(Dictionary{{"election", 2}, {"extension", Dictionary{{"position", 3}}}}))
      << "what was not given stays";
  EXPECT_EQ(status({"elect", "org.notes.share", "org.nobody", "ignore"}), 1);
  EXPECT_EQ(root.storedAnnotations()["org.notes.share"]["election"], Value(1))
      << "nothing is elected when a name is wrong";
}

TEST_F(Abctl, ElectionsGoToAFileAndComeBackExactly) {
  const std::string file = root.path() + "/saved.plist", values = root.path() + "/values.plist";
  root.install("Better.app", {{.identifier = "org.better",
                               .entitlements = {{"com.veltra.developer.replace-plugin", "org.paint.blur"}}},
                              {.identifier = "org.odd.<&", .plugIn = {{"Dedicated", true}}}});
  writePropertyList(values, Dictionary{{"real", 1.0},
                                       {"yes", true},
                                       {"large", UINT64_MAX},
                                       {"date", Date{1e9}},
                                       {"data", Data(std::string_view("\0\xff", 2))},
                                       {"text", " \r\n"}});
  ASSERT_TRUE(eventually([&] { return status({"elect", "org.better", "org.notes.private", "use"}) == 0; }));
  EXPECT_EQ(status({"annotate", "org.odd.<&", "--extension-file", values}), 0);
  EXPECT_EQ(status({"elections", "export", file}), 0);
  const std::string exported = run({"elections", "export"}).out(), kept = readText(root.annotationFile());
  EXPECT_EQ(exported, readText(file));
  EXPECT_TRUE(contains(exported, "org.paint.blur")) << "both share one choice";
  EXPECT_EQ(status({"annotate", "org.odd.<&", "--extension", R"({"real": 1})"}), 0);
  EXPECT_EQ(status({"elect", "org.paint.blur", "ignore"}), 0);
  const std::string imported = run({"elections", "import", file}).out();
  EXPECT_TRUE(contains(imported, "election ignore -> use")) << imported;
  EXPECT_TRUE(contains(imported, "2 changed, 1 the same, 0 not")) << imported;
  EXPECT_EQ(readText(root.annotationFile()), kept);
  const size_t posts = root.changeNotifications();
  fs::remove_all(notes_);
  ASSERT_TRUE(eventually([&] { return status({"show", "org.notes.private"}) == 1; }));
  const Json again = run({"elections", "import", "--json"}, {.input = exported}).json();
  EXPECT_EQ(again["same"].size(), 2u);
  EXPECT_EQ(again["notInstalled"][0]["plugin"], "org.notes.private");
  EXPECT_EQ(root.changeNotifications(), posts) << "who hears of no change need not look";

  const std::string large(300'000, 'x'), good = R"("org.paint.blur": {"election": 2}, )";
  for (const std::string& records :
       {R"("b": 1)"s, R"("b": {})"s, R"("b": {"election": "use"})"s, R"("b": {"extension": [1]})"s,
        R"("b": {"elction": 1})"s, R"("b": {"extension": {"x": ")" + large + "\"}}"})
    expectFailure({"elections", "import"}, 2, "standard input: b ",
                  {.input = R"({"version": 1, "elections": {)" + good + records + "}}"});
  for (const char* document : {"{}", R"({"version": 2, "elections": {}})", R"({"version": 1})", "<plist>"})
    expectFailure({"elections", "import"}, 2, "standard input", {.input = document});
  EXPECT_EQ(readText(root.annotationFile()), kept);
}

TEST_F(Abctl, ReadyShowsTheLaunchAndHandsItToTheProgramThatFollows) {
  Invocation ready(root,
                   {"ready", "org.notes.share", "--run", "ls $XDG_RUNTIME_DIR/veltra/Launcher/$$; exit 7"});
  EXPECT_EQ(ready.status(), 7) << ready.err();
  for (const std::string& part : {notes_ + "/PlugIns/org.notes.share.appex/run", "sandbox     plugin"s,
                                  "HOME="s, uuid("org.notes.share") + ".plist"})
    EXPECT_TRUE(contains(ready.out(), part)) << part << '\n' << ready.out();
  const Json json = run({"ready", "org.notes.share", "--json"}).json();
  EXPECT_EQ(json["ready"][0]["registration"]["PlugInIdentifier"], "org.notes.share");
}

TEST_F(Abctl, AHoldLastsUntilItsProcessEndsOrItIsReleased) {
  for (const Words& what : {Words{"--application", paint_}, Words{"--plugin", "org.paint.blur"}}) {
    Invocation hold(root, {"hold", what[0], what[1]});
    ASSERT_TRUE(hold.waitFor("\n"));
    EXPECT_EQ(identifiers({}), "org.notes.share:1.10");
    expectFailure({"ready", "org.paint.blur"}, 5, "the plug-in is on hold");  // found by name
    hold.signal(SIGINT);
    EXPECT_EQ(hold.status(), 0);
    EXPECT_TRUE(eventually([&] { return identifiers({}) == "org.notes.share:1.10 org.paint.blur:1.0"; }));
  }
  const std::string plugIn = paint_ + "/PlugIns/org.paint.blur.appex";
  Invocation misnamed(root, {"hold", "--application", plugIn});
  EXPECT_TRUE(misnamed.waitFor("note: " + plugIn + " has no registered plug-in", true)) << misnamed.err();
  misnamed.signal(SIGTERM);
  Invocation hold(root, {"hold", "--json", "--application", paint_});
  ASSERT_TRUE(hold.waitFor("\n"));
  EXPECT_EQ(status({"release", Json::parse(hold.firstLine())["token"]}), 0);
  EXPECT_EQ(identifiers({}), "org.notes.share:1.10 org.paint.blur:1.0");
  daemon.reset();
  EXPECT_EQ(hold.status(), 4) << "it notices that the daemon has gone";
}

TEST_F(Abctl, ARefusedHoldShowsWhatIsInTheWay) {
  const std::string mark = root.runtime() + "/Assertions/org.notes.share/1";
  writePropertyList(mark, Dictionary{{"BundleIdentifier", "org.notes.share"}});
  const FileDescriptor busy = lockedFile(mark);
  expectFailure({"hold", "--application", notes_}, 5, "abctl: plug-ins are busy\n");
  const Json error = run({"hold", "--json", "--application", notes_}).json()["error"];
  EXPECT_EQ(error["code"], 14);
  EXPECT_EQ(error["conflicts"][0]["BundleIdentifier"], "org.notes.share");
}

TEST_F(Abctl, WatchSaysThatAndWhatChanged) {
  Invocation watch(root, {"watch"}), json(root, {"watch", "--json"});
  ASSERT_TRUE(watch.waitFor("watching 2 plug-ins", true)) << watch.err();
  ASSERT_TRUE(json.waitFor("\n"));
  EXPECT_EQ(Json::parse(json.firstLine())["matches"].size(), 2u);
  EXPECT_EQ(status({"elect", "org.paint.blur", "use"}), 0);
  EXPECT_TRUE(watch.waitFor("~ org.paint.blur 1.0: election - -> use\n"));
  Invocation hold(root, {"hold", "--plugin", "org.notes.share"});
  EXPECT_TRUE(watch.waitFor("- org.notes.share 1.10\n")) << watch.out();
  EXPECT_TRUE(watch.waitFor("+ org.notes.share 1.9\n")) << "the older one steps in";
  watch.signal(SIGTERM);
  EXPECT_EQ(watch.status(), 0);
  ASSERT_TRUE(json.waitFor("\"1.9\""));
  root.install("Sketch.app", {{.identifier = "org.sketch"}});
  EXPECT_TRUE(json.waitFor("\"org.sketch\""));
  json.signal(SIGTERM);
  EXPECT_EQ(json.status(), 0);
  EXPECT_EQ(Json::parse(linesOf(json.out()).back())["added"][0]["identifier"], "org.sketch");
}

TEST_F(Abctl, StatusCountsWhatHappened) {
  const auto told = [this] { return run({"status", "--json"}).json(); };
  const auto requests = [](const Json& all, std::string_view name) {
    for (const Json& row : all["requests"])
      if (row["name"] == name) return row;
    return Json();
  };
  const auto counts = [&](const Json& all, std::string_view name) {
    return requests(all, name)["count"].dump() + " " + requests(all, name)["failed"].dump();
  };
  ASSERT_TRUE(eventually([&] { return told()["registry"].contains("scanned"); }));
  const Json before = told()["registry"];
  EXPECT_EQ(before["bundles"], 5);
  EXPECT_GT(before["watches"], 0);

  EXPECT_EQ(error("lock", {{"paths", Array{notes_}}, {"flags", 1}}), "");
  EXPECT_EQ(elect(DaemonTest::uuid("org.paint.blur"), 1), "");
  for (int i = 0; i < 40; ++i) call("match");
  EXPECT_EQ(error("match", {{"rules", 3}}).substr(0, 2), "4:");
  EXPECT_EQ(error("no such thing").substr(0, 2), "4:");
  root.install("Late.app", {{.identifier = "late"}, {.identifier = "later"}});
  ASSERT_TRUE(eventually([&] { return told()["registry"]["announcements"] != before["announcements"]; }));

  const Json after = told(), match = requests(after, "match");
  EXPECT_EQ(after["registry"]["announcements"], before["announcements"].get<int>() + 1);
  EXPECT_GT(after["registry"]["watches"], before["watches"]);
  // One of the matches told the UUID.
  for (const auto& [path, value] : {std::pair("registry/bundles", 7),
                                    {"registry/plugins", 7},
                                    {"clients/0/pid", getpid()},
                                    {"clients/0/requests", 45},
                                    {"holds/0/pid", getpid()},
                                    {"holds/0/plugins", 2},
                                    {"annotations/records", 1},
                                    {"records/limit", 150}})
    EXPECT_EQ(after.at(Json::json_pointer("/"s + path)), value) << path;
  EXPECT_EQ(counts(after, "match"), "42 1");
  EXPECT_EQ(counts(after, "other"), "1 1");
  EXPECT_TRUE(0 <= match["p50"] && match["p50"] <= match["p99"]) << match;
  EXPECT_LE(match["seconds"], 42 * match["p99"].get<double>() + 1);
  EXPECT_FALSE(requests(after, "bulk").contains("p50"));
  EXPECT_EQ(after["clients"].size() + after["holds"].size(), 2u);
  EXPECT_EQ(after["annotations"]["bytes"], fs::file_size(root.annotationFile()));
  EXPECT_TRUE(after["annotations"].contains("saved") && !after["annotations"].contains("error"));
  EXPECT_GT(after["records"]["kept"], 0);
}

/// Each metric is told in one piece, its samples have names and labels of their own, and numbers.
TEST_F(Abctl, StatusForCollectorsIsWellFormed) {
  const WireClient other = daemon->connect();
  EXPECT_EQ(error("lock", {{"paths", Array{notes_}}, {"flags", 1}}), "");
  const std::string text = run({"status", "--openmetrics"}).out();
  EXPECT_TRUE(text.ends_with("\n# EOF\n")) << text;
  const std::regex form(
      R"((?:# (TYPE|UNIT|HELP) )?([a-z_]+)(?:\{(?:[a-z]+="(?:[^"\\]|\\[\\"n])*",?)+\})? (.+))"),
      number("-?[0-9.]+(?:e[-+][0-9]+)?");
  std::set<std::string> seen;
  std::string metric;
  Words all = linesOf(text);
  all.pop_back();
  for (const std::string& line : all) {
    std::smatch found;
    ASSERT_TRUE(std::regex_match(line, found, form)) << line;
    if (found[1] == "TYPE") metric = found[2];
    EXPECT_TRUE(found[2].str().starts_with(metric)) << line;
    EXPECT_TRUE(found[1].matched || std::regex_match(found[3].str(), number)) << line;
    EXPECT_TRUE(seen.insert(line.substr(0, line.rfind(' '))).second) << line;
  }
  EXPECT_TRUE(seen.contains(R"(abd_request_duration_seconds{request="lock",quantile="0.99"})")) << text;
  EXPECT_TRUE(contains(text, "\nabd_clients 1\n")) << "one process";
}

TEST_F(Abctl, BundlesAreRegisteredByPathAndRemovedEvenWhenGone) {
  const std::string loose = root.path() + "/loose/Ruler.appex";
  root.writeBundle(loose, {.identifier = "org.ruler"});
  EXPECT_EQ(status({"add", "./Ruler.appex"}, {.directory = root.path() + "/loose"}), 0);
  EXPECT_EQ(identifiers({"--rule", "ZQExtensionIdentifier=org.ruler"}, 1), "") << "no application, no offer";
  EXPECT_EQ(identifiers({"--all", "--rule", "ZQExtensionIdentifier=org.ruler"}), "org.ruler:1.0");
  fs::remove_all(loose);
  EXPECT_EQ(status({"remove", loose}), 0);
  EXPECT_EQ(status({"remove", loose}), 1) << "not there any more";
  EXPECT_EQ(status({"remove", "org.paint.blur"}), 0) << "by identifier";
  EXPECT_EQ(status({"show", "org.paint.blur"}), 1);
  EXPECT_EQ(status({"add", root.path()}), 5) << "no plug-in bundle";
  EXPECT_EQ(status({"bulk", "--flags", "255"}), 0);
  EXPECT_TRUE(daemon->logs("bulk options 0xff not supported"));
}

TEST_F(Abctl, TablesFitTheTerminalAndNothingInThemCommandsIt) {
  // A control sequence introducer, a direction override, a line break; and characters two columns wide.
  root.install("Evil.app",
               {{.identifier = "org.evil", .info = {{"BWBundleDisplayName", "a\u009b31m\u202eb\nc"}}},
                {.identifier = "org.wide", .info = {{"BWBundleDisplayName", "写真"}}}});
  ASSERT_TRUE(eventually([&] { return status({"show", "org.wide"}) == 0; }));
  const std::string table = run({"match"}).out();
  EXPECT_TRUE(contains(table, "a\\u{9B}31m\\u{202E}b\\nc")) << table;
  const Words rows = linesOf(table);
  for (const std::string& row : rows)
    EXPECT_TRUE(!row.starts_with("org.wide") || row.find("Evil") == rows[0].find("APPLICATION") - 4 + 6)
        << "six bytes, four columns";

  const Invocation::Options terminal{.environment = {"TERM=xterm"}, .columns = 60};
  const std::string narrow = run({"match"}, terminal).out();
  EXPECT_TRUE(contains(narrow, "\x1b[1m")) << "a heading in bold";
  EXPECT_TRUE(contains(narrow, "…"));
  const std::string plain =
      run({"match"}, {.environment = {"TERM=xterm", "NO_COLOR=1"}, .columns = 60}).out();
  EXPECT_EQ(plain.find('\x1b'), std::string::npos) << plain;
  for (const std::string& row : linesOf(plain)) EXPECT_LE(row.find('\r'), 60u + 20u) << row;
  EXPECT_TRUE(contains(plain, "cells cut; --json")) << plain;
  EXPECT_TRUE(contains(plain, "…s.share")) << "identifiers differ at their ends: " << plain;
  const std::string tiny = run({"match"}, {.environment = {"TERM=dumb"}, .columns = 30}).out();
  for (const std::string& row : Words{linesOf(tiny)[0], linesOf(tiny)[1]})
    EXPECT_LE(row.find('\r'), 30u + 4u);
  EXPECT_TRUE(contains(tiny, "and 3 columns cut")) << tiny;
}

/// What bash is told may stand at the end of a line.
TEST_F(Abctl, ShellsCompleteCommandsOptionsAndWhatTheDaemonKnows) {
  const UUID token = *call("lock", {{"paths", Array{notes_}}, {"flags", 1}})["uuids"].uuid();
  const std::string script = "source " SOURCE_ROOT
                             "/packaging/completions/abctl; COMP_LINE=$0; "
                             "COMP_POINT=${#0}; _abctl; echo ${COMPREPLY[@]}";
  const auto completed = [&](const std::string& line) {
    Invocation bash(root, {"-c", script, ABCTL_PROGRAM " " + line}, {.program = "/bin/bash"});
    return bash.out() + bash.err();
  };
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"el", "elect elections"},
      {"elections ", "export import"},
      {"match --d", "--duplicates"},
      {"--json match --ser", "--service"},
      {"check --as p", "plug-in"},
      {"show org.p", "org.paint.blur org.paint.sealed"},
      {"show org.paint.blur org.p", ""},
      {"elect u", ""},
      {"elect org.paint.blur u", "use"},
      {"annotate --election=u", "use"},
      {"match --rule ZQUs", "ZQUserElection="},
      {"match --rule 'Fa", "Fast="},
      {"match --rule Fast=", "true"},
      {"match --rule ZQExtensionPointName=com.example.f", "com.example.filter"},
      {"match --rule=ZQExtensionContainingApp=" + paint_.substr(0, paint_.size() - 5), paint_},
      {"release ", token.string()},
      {"explain org.paint.blur --as ", std::to_string(getpid())},
      {"--service nobody show org.p", ""},
      {"check -- ", ""}};
  for (const auto& [line, expected] : cases) EXPECT_EQ(completed(line), expected + "\n") << line;
  EXPECT_EQ(run({"complete", "check", ""}).out(), "/\n") << "a path is for the shell";
  daemon.reset();
  EXPECT_EQ(completed("show org.p"), "\n");
}

TEST_F(Abctl, TheClientInPythonListsAndFollows) {
  const Invocation::Options python{.program = SOURCE_ROOT "/examples/python/plugins.py"};
  Invocation list(root, {"ZQExtensionPointName=com.example.filter"}, python);
  EXPECT_EQ(list.out(), "+ org.paint.blur  1.0  org.paint.blur\n") << list.err();
  Invocation follow(root, {"--follow"}, python);
  ASSERT_TRUE(follow.waitFor("+ org.notes.share"));
  EXPECT_EQ(status({"elect", "org.paint.blur", "use"}), 0);
  EXPECT_TRUE(follow.waitFor("~ org.paint.blur"));
  fs::remove_all(paint_);
  EXPECT_TRUE(follow.waitFor("- org.paint.blur"));
  follow.signal(SIGINT);
  EXPECT_EQ(follow.status(), 0) << follow.err();
}

}  // namespace
