// abctl check, doctor and show --origin: what they find, that the daemon does what they say, and that the
// commands of docs/abctl.md print what stands there.

#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cstdio>
#include <regex>
#include <set>

#include "platform/system/Preferences.h"
#include "tests/support/Daemon.h"

namespace {

using namespace testsupport;
using namespace std::literals;

struct Outcome {
  std::string output;
  int status;
};

/// What the shell command prints on the device, in its directory.
Outcome shell(const DeviceRoot& root, const std::string& command) {
  std::string line =
      "cd " + root.path() + " && PATH=" + fs::path(ABCTL_PROGRAM).parent_path().string() + ":$PATH";
  for (const std::string& variable : root.environment())
    if (!variable.starts_with("PATH=")) line += " " + variable;
  Outcome run;
  FILE* const pipe = popen((line + " sh -c '" + command + "' 2>&1").c_str(), "r");
  char buffer[4096];
  while (const size_t size = fread(buffer, 1, sizeof buffer, pipe)) run.output.append(buffer, size);
  run.status = WEXITSTATUS(pclose(pipe));
  return run;
}

/// Paths as seen from the device's directory, and all times the same.
std::string withoutWhereAndWhen(const DeviceRoot& root, const std::string& output) {
  static const std::regex time(R"(since \d+-\d+-\d+ [\d:]+ \w+)");
  const std::string text = std::regex_replace(output, std::regex(root.path() + "/"), "");
  const std::string timeless = std::regex_replace(text, time, "since 2026-11-23 19:00:00 UTC");
  return std::regex_replace(timeless, std::regex(R"(\d+-\d+-\d+ [\d:]+  change)"),
                            "2026-11-23 19:00:00  change");
}

/// Without owners, modes and paths of directories, times and numbers: what a block that is "masked" has to
/// show.
std::string masked(std::string output) {
  for (const auto& [pattern, instead] : {std::pair(R"(  +\S+ +(\d{4}|-) +\S+\n)", "\n"),
                                         {R"(up .*\n)", "up\n"},
                                         {R"([\d.]+ (us|ms|s)\b)", "0 s"},
                                         {R"(\d+-\d+-\d+ [\d:]+ \w+)", "DATE"},
                                         {R"(\d+)", "0"},
                                         {"announcements", "announcement"},
                                         {" +", " "}})
    output = std::regex_replace(output, std::regex(pattern), instead);
  return output;
}

void installSDKs(const DeviceRoot& root) {
  fs::copy(SOURCE_ROOT "/examples/system/SDKs", root.dataSystem() + "/SDKs");
}

/// A bundle, what is done to it, and what is found then.
struct Case {
  PlugInBundle bundle;
  std::vector<std::string> findings;  // "level: key: what"
  bool isIgnored = false;
  std::string command = {};  // in the bundle
};

const Dictionary kShare{{"ZQExtensionPointIdentifier", "com.veltra.share-service"}};

const std::vector<Case> kCases = {
    {{.identifier = "good", .plugIn = kShare}, {}},
    {{.identifier = "class", .plugIn = {{"PrincipalClass", "X"}}},
     {R"(error: ZQExtension.PrincipalClass: Application Extensions may not use the "PrincipalClass" key)"},
     true},
    {{.identifier = "section", .info = {{"ZQExtension", 1}}},
     {"error: ZQExtension: the plug-in section is no"},
     true},
    {{.identifier = "attributes", .plugIn = {{"ZQExtensionAttributes", Array()}}},
     {R"(error: ZQExtension.ZQExtensionAttributes: missing "ZQExtensionAttributes" key)"},
     true},
    {{.identifier = "none"},
     {R"(warning: ZQExtention: did you mean "ZQExtension"?)", "error: it is not a plug-in"},
     true,
     "sed -i \"s/>ZQExtension</>ZQExtention</\" Info.plist"},
    {{.identifier = "unread"},
     {"Info.plist:2: error: not a property list"},
     true,
     "printf \"<plist>\\n<x/>\" > Info.plist"},
    {{.identifier = "gone"}, {"error: the file is missing"}, true, "rm Info.plist"},
    {{.identifier = "point", .plugIn = {{"ZQExtensionPointIdentifier", "com.veltra.share-servce"}}},
     {R"(SDK is not installed: did you mean "com.veltra.share-service"?)"}},
    {{.identifier = "keys",
      .attributes = {{"Dedicated", true}, {"requestsOpenAcces", true}, {"mine", 1}},
      .plugIn = {{"ZQExtensionHostEntitlement", 4}}},
     {"Attributes.Dedicated: the key is out of place", R"(did you mean "RequestsOpenAccess"?)",
      "warning: ZQExtension.ZQExtensionHostEntitlement: the value is not a string"}},
    {{.identifier = "decided",
      .attributes = {{"com.veltra.format", "x"}},
      .plugIn = {{"ZQExtensionPointIdentifier", "com.veltra.share-service"}, {"CleanTimeout", 1}}},
     {"CleanTimeout: the extension point decides this", "com.veltra.format: the daemon sets this itself"}},
    {{.identifier = "rule", .attributes = {{"ZQExtensionActivationRule", Dictionary{{"a", 0}}}}},
     {"ActivationRule: the activation rule allows not one item"}},
    {{.identifier = "several",
      .plugIn = {{"Dedicated", true}, {"Multiple", Dictionary{{"one", Dictionary()}}}}},
     {R"(ZQExtension.Dedicated: stands beside "Multiple")"}},
    {{.identifier = "missing"}, {"error: BWBundleExecutable: the executable is missing"}, false, "rm run"},
    {{.identifier = "plain"}, {"error: BWBundleExecutable: cannot be executed"}, false, "chmod 644 run"},
    {{.identifier = "outside", .info = {{"BWBundleExecutable", "../x"}}},
     {"the executable lies outside the bundle"}},
    {{.identifier = "shared", .plugIn = {{"Shared", Array{"run", "../x"}}}},
     {"hint: ZQExtension.Shared.1: \"../x\": No such file"}},
    {{.identifier = "granted", .entitlements = {{"com.veltra.developer.replace-plugin", 1}}},
     {"replace-plugin: the value is not a string"}},
    {{.identifier = "open", .entitlements = {{"a", 1}}},
     {"error: is writable by group"},
     false,
     "chmod 666 Entitlements.plist"},
    {{.identifier = "words"},
     {"Localizations/de.plist:1: error: not a property list",
      "Localizations/fr.plist:1: warning: BWBundleNam: did you mean \"BWBundleName\"?"},
     false,
     "mkdir Localizations; cd Localizations; echo \"<plist><a/></plist>\" > de.plist;"
     "echo \"<plist><dict><key>BWBundleNam</key><string>x</string></dict></plist>\" > fr.plist"},
    {{.identifier = "variables",
      .info = {{"QMXService", Dictionary{{"EnvironmentVariables", Dictionary{{"A", 1}}}}}}},
     {"QMXService.EnvironmentVariables.A: the value is not a string"}},
    {{.identifier = "json"}, {"error: not a property list"}, true, "echo {} > Info.plist"},
    {{.identifier = "twin", .info = {{"BWBundleIdentifier", "good"}}}, {"0 errors"}},
    {{.identifier = "service", .info = {{"QMXService", Dictionary{{"Timeout", 0.5}}}}},
     {"error: QMXService: no launch registration can hold what it says at \"Timeout\""},
     false,
     "sed -i s/0.5/nan/ Info.plist"},
};

TEST(Check, FindsWhatTheDaemonIgnoresOrChanges) {
  DeviceRoot root;
  installSDKs(root);
  std::vector<PlugInBundle> bundles;
  for (const Case& each : kCases) bundles.push_back(each.bundle);
  const std::string application = root.install("Cases.app", bundles);
  std::string ignored, offered;
  for (const Case& each : kCases) {
    const std::string bundle = DeviceRoot::plugInPath(application, each.bundle.identifier);
    shell(root, "cd " + bundle + "; " + each.command);
    const Outcome run = shell(root, "abctl check " + bundle);
    for (const std::string& finding : each.findings)
      EXPECT_NE(run.output.find(finding), std::string::npos) << bundle << "\n"
                                                             << finding << "\n"
                                                             << run.output;
    const bool saysIgnored = run.output.find("the daemon ignores the plug-in") != std::string::npos;
    EXPECT_EQ(saysIgnored, each.isIgnored) << run.output;
    EXPECT_EQ(run.status, run.output.find(": error: ") != std::string::npos ? 1 : 0);
    EXPECT_TRUE(!each.findings.empty() || run.output.find(": 0 errors, 0 warn") != std::string::npos)
        << run.output;
  }
  EXPECT_NE(
      shell(root, "abctl check data/veltra/Applications").output.find("warning: has the identifier of "),
      std::string::npos);
  EXPECT_FALSE(fs::exists(root.dataUser() + "/Containers")) << "nothing is left behind";
  const Daemon daemon(root, {.service = "com.veltra.ambrel.abd"});
  const std::string all = shell(root, "abctl match --all --all-versions --duplicates --json").output;
  for (const Case& each : kCases) {
    const std::string path = DeviceRoot::plugInPath(application, each.bundle.identifier);
    EXPECT_EQ(all.find("\"path\": \"" + path + "\"") == std::string::npos, each.isIgnored) << path;
  }
  EXPECT_EQ(shell(root, "abctl show --origin org.nobody").status, 1);
  const Outcome origins = shell(root, "abctl show --origin decided");
  EXPECT_TRUE(std::regex_search(origins.output, std::regex("CleanTimeout +30 +SDK.s last word, not 1\n")));
}

TEST(Check, RulesAndSDKsThatHaveNoEffectAreFound) {
  const DeviceRoot root;
  installSDKs(root);
  const std::string sdk = root.dataUser() + "/SDKs/com.veltra.preview.plist",
                    rules = root.path() + "/rules.plist";
  const Dictionary section{{"PassProxy", true}, {"Shared", Array{"x"}}, {"ZQExtensionProtcol", "p"}};
  writePropertyList(sdk, Dictionary{{"ZQExtension", section}});
  writePropertyList(rules, Dictionary{{"a", "?X:1"},
                                      {"b", Array{"ok", 3}},
                                      {"c", Array()},
                                      {"com.veltra.uuid", "x"},
                                      {"ZQUserElection", "01"},
                                      {"ZQExtensionContainingApp", false},
                                      {"d", Dictionary{{"items", Array()}}},
                                      {"ZQExtensionPointNme", true},
                                      {"ENTITLMENT:x", true},
                                      {"e", ">1"}});
  const std::string found =
      shell(root, "abctl check " + sdk + " rules.plist; abctl check none || echo $?").output;
  for (const char* finding :
       {"hint: hides /", R"(error: ZQExtension.PassProxy: the "PassProxy" key is not)",
        "hint: ZQExtension.Shared:", R"(did you mean "ZQExtensionProtocol"?)",
        "rules.plist:12: error: a: there is no such operator", "warning: b.1: the pattern is no text",
        "error: c: the list", R"(error: com.veltra.uuid: the value is never "x")",
        "error: ZQExtensionContainingApp: every", "error: d.items: there are no items",
        R"(did you mean "ZQExtensionPointName"?)", R"(did you mean "ENTITLEMENT:"?)",
        "there is nothing at none", "checked 1 SDK, 1 rule file: 6 errors, 4 warnings, 2 hints\n"})
    EXPECT_NE(found.find(finding), std::string::npos) << finding << "\n" << found;
}

struct Ailment {
  const char* cause;  // a shell command on the device
  const char* finding;
  const char* cure = "true";
};

const std::vector<Ailment> kWhileItRuns = {
    {"chmod 777 data/veltra", "data/veltra: warning: everybody may write to it", "chmod 755 data/veltra"},
    {"chmod 755 run/veltra", "run/veltra: warning: others may enter it", "chmod 700 run/veltra"},
    {"echo x > $A/Annotations", "Annotations: error: cannot be loaded: not a property list",
     "rm $A/Annotations"},
    {"echo x > $A/Annotations.damaged-1", "damaged-1: warning: was set aside as damaged", "rm $A/A*"},
    {"touch state/veltra/Sandbox.key; chmod 604 state/veltra/Sandbox.key",
     "error: is not a file of this user"},
    {"chmod 600 state/veltra/Sandbox.key", "Sandbox.key: error: is not 32 bytes",
     "rm state/veltra/Sandbox.key"},
    {"echo x > config/veltra/Consent.plist", "Consent.plist: error: not a property list",
     "echo \"<plist><dict><key>a</key><true/></dict></plist>\" > config/veltra/Consent.plist"},
    {"true", "Consent.plist:1: warning: a: is no dictionary", "rm config/veltra/Consent.plist"},
    {"echo \"<plist><dict><key>maximumAppsRating</key><true/></dict></plist>\" > $R",
     "error: maximumAppsRating: is no number", "rm $R"},
    {"echo \"<plist><dict><key>exclusions</key><true/></dict></plist>\" > $P",
     "error: exclusions: is no array",
     "echo \"<plist><dict><key>exclusions</key><array><dict><key>a</key><real>2</real></dict></array></dict>"
     "</plist>\" > $P"},
    {"true", "error: exclusions.0.a: ", "mv $P config/veltra/Preferences/com.veltra.ambrel.userprefs.plist"},
    {"true", "userprefs.plist: warning: is not read", "rm config/veltra/Preferences/*.plist"},
    {"echo x > share/veltra/SDKs/x.plist", "SDKs/x.plist: error: not a", "rm share/veltra/SDKs/x.plist"},
    {"mkdir other; echo x > other/A; X=--annotations=other/A", "other/A: error: cannot be loaded"},
    {"X=--annotations=other/A", "other/A: warning: is not the daemon's annotation file", "rm -r other"},
    {"mv $S.diagnostics d", "diagnostics: error: there is no socket", "mv d $S.diagnostics"},
    {"mv $S s", "hint: a daemon runs, but not under this name: process ", "mv s $S"},
};
const std::vector<Ailment> kWhenItHasEnded = {
    {"true", "abd: error: is stale: the daemon that made it has ended", "rm $S; touch $S"},
    {"true", "abd: error: is not a socket", "rm $S"},
    {"true", "abd: error: there is no socket", "head -c 9999 /dev/zero | tr \"\\0\" x > $H"},
    {"true", "Registry.sqlite: error: is damaged", "rm $H; rm -r run/veltra; touch run/veltra"},
    {"true", "run/veltra: error: is no directory"},
};

TEST(Doctor, SaysWhatIsWrongAndHarmsNothing) {
  const DeviceRoot root;
  installSDKs(root);
  std::optional<Daemon> daemon(std::in_place, root, Daemon::Options{.service = "com.veltra.ambrel.abd"});
  fs::create_directories(root.configUser() + "/Preferences/ByHost");
  const std::string names =
      "A=state/veltra/com.veltra.ambrel; R=config/veltra/Restrictions.plist; "
      "P=config/veltra/Preferences/ByHost/com.veltra.ambrel.userprefs." +
      hostIdentifier() +
      ".plist; S=run/veltra/com.veltra.ambrel.abd; H=state/veltra/Hollin/Registry.sqlite; ";
  const auto suffer = [&](const Ailment& each) {
    const Outcome run = shell(root, names + each.cause + "; abctl doctor $X");
    EXPECT_NE(run.output.find(each.finding), std::string::npos) << each.finding << "\n" << run.output;
    EXPECT_EQ(run.status, run.output.find(": error: ") != std::string::npos ? 1 : 0) << run.output;
    shell(root, names + each.cure);
  };
  const auto isWell = [&] {
    const Outcome run = shell(root, "abctl doctor");
    EXPECT_NE(run.output.find("daemon: answers (process " + std::to_string(daemon->pid())),
              std::string::npos);
    return run.output.find(": 0 errors, 0 warnings, 0 hints") != std::string::npos ? "" : run.output;
  };
  EXPECT_EQ(isWell(), "");
  for (const Ailment& each : kWhileItRuns) suffer(each);
  EXPECT_EQ(isWell(), "");
  daemon.reset();
  for (const Ailment& each : kWhenItHasEnded) suffer(each);
}

/// Blocks of the document: with the name of a file, what it holds; else commands and what they print. With
/// ABD_WRITE_DOCUMENT set the output is written into the document. What only reads is run until it says what
/// is shown: the daemon and hosts take their time.
TEST(Check, TheCommandsOfTheDocumentPrintWhatItShows) {
  const DeviceRoot root;
  installSDKs(root);
  const Daemon daemon(root, {.arguments = {}, .service = "com.veltra.ambrel.abd"});
  const std::string path = SOURCE_ROOT "/docs/abctl.md", text = readText(path);
  static const std::regex block("```(xml|json|console) ?([^\n]*)\n([^`]*)```\n");
  std::string written;
  auto end = text.begin();
  for (std::sregex_iterator each(text.begin(), text.end(), block), last; each != last; ++each) {
    const std::smatch& match = *each;
    written.append(end, match[3].first);
    end = match[3].second;
    if (match[1] != "console") {
      writeText(root.path() + "/" + match[2].str(), match[3].str());
      written += match[3].str();
      continue;
    }
    std::istringstream shown(match[3].str());
    std::string session;
    const auto asShown = [&match](const std::string& lines) {
      return match[2] == "masked" ? masked(lines) : lines;
    };
    const std::string wanted = asShown(match[3]);
    for (std::string line; std::getline(shown, line);) {
      if (!line.starts_with("$ ")) continue;
      const bool onlyReads = line.starts_with("$ cat ") || line.starts_with("$ abctl explain ");
      std::string output;
      eventually([&] {
        output = withoutWhereAndWhen(root, shell(root, line.substr(2)).output);
        return !onlyReads || (wanted + "$").find(asShown(line + "\n" + output) + "$") != std::string::npos;
      });
      session += line + "\n" + output;
    }
    EXPECT_EQ(asShown(session), wanted);
    written += asShown(session) == wanted ? match[3].str() : session;
  }
  written.append(end, text.end());
  if (std::getenv("ABD_WRITE_DOCUMENT") != nullptr) writeText(path, written);
}

}  // namespace
