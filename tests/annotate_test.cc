// "annotate": what is stored and where it shows.

#include <cmath>

#include "platform/propertylist/PropertyList.h"
#include "tests/support/DaemonTest.h"

namespace testsupport {
namespace {

class Annotate : public DaemonTest {
 protected:
  Dictionary annotate(const std::vector<UUID>& uuids, const Value& annotations) {
    return call("annotate", {{"uuids", uuidArray(uuids)}, {"annotations", annotations}});
  }
  Value annotationsInForm(std::string_view identifier) { return form(identifier)["annotations"]; }
  /// With a name to look for, so that the search is narrowed by the elections, too.
  std::string elected(const char* pattern) {
    return found(Dictionary{{"ZQExtensionPointName", "com.example.share"}, {"ZQUserElection", pattern}});
  }
  /// Installs an application with these plug-ins, starts the daemon, and answers the first's UUID.
  UUID startWith(const std::vector<PlugInBundle>& plugIns) {
    root.install("A.app", plugIns);
    start();
    return uuid(plugIns.front().identifier);
  }
  static fs::perms permissions(const fs::path& path) { return fs::status(path).permissions(); }
};

TEST_F(Annotate, AnElectionIsStoredLoggedAnnouncedAndShownInForms) {
  const UUID a = startWith({{.identifier = "a"}, {.identifier = "b"}, {.identifier = "c"}}), b = uuid("b");
  EXPECT_FALSE(fs::exists(root.annotationFile())) << "nothing is written before the first change";
  EXPECT_EQ(Value(annotate({a, b}, Dictionary{{"election", 1}, {"Other", "dropped"}})), Value(Dictionary()));
  const std::string line = "client " + std::to_string(getpid()) + " plug-in ";
  EXPECT_TRUE(daemon->logs(line + "a election := 1") && daemon->logs(line + "b election := 1"));
  EXPECT_EQ(root.changeNotifications(), 2u);
  const Value record = Dictionary{{"election", 1}};
  EXPECT_EQ(Value(root.storedAnnotations()), Value(Dictionary{{"a", record}, {"b", record}}));
  EXPECT_EQ(annotationsInForm("a"), record);
  EXPECT_EQ(annotationsInForm("c"), Value(Dictionary()));
  EXPECT_EQ(elected("1"), "a b");
  EXPECT_EQ(elected("0"), "c");

  const auto extensionOf = [](double time) {
    return Value(Dictionary{{"Note", "kept ☃ \n"}, {"List", Array{1, 2.5, false, Date{time}, Dictionary()}}});
  };
  const Value extension = extensionOf(1795000001);
  EXPECT_EQ(errorOf(annotate({a}, Dictionary{{"extension", extensionOf(1795000000.75)}})), "");
  EXPECT_TRUE(daemon->logs(line + "a election := (null)"));
  EXPECT_EQ(elect(a, 257), "");
  EXPECT_EQ(elected("1"), "a b") << "only the low bits count";
  EXPECT_EQ(elected("257") + elected("2"), "");
  EXPECT_EQ(elected(">0"), "a b");
  start();
  EXPECT_EQ(annotationsInForm("a"), Value(Dictionary{{"election", 257}, {"extension", extension}}));
  EXPECT_EQ(permissions(root.annotationFile()), fs::perms(0644));
  EXPECT_EQ(permissions(fs::path(root.annotationFile()).parent_path()), fs::perms(0700));
}

TEST_F(Annotate, AnAnnotationIsJudgedWholeBeforeAnythingIsStored) {
  const UUID a = startWith({{.identifier = "a"}});
  const auto nested = [](int depth) {
    Value value = 1;
    for (int i = 0; i < depth; ++i) value = Dictionary{{"k", value}};
    return value;
  };
  const auto filledWith = [](size_t size) { return Value(Dictionary{{"fill", std::string(size, 'x')}}); };
  const Value around = Dictionary{{"election", 1}, {"extension", filledWith(1)}};
  const size_t largest = (256u << 10) - std::get<std::string>(serializePropertyList(around)).size() + 1;
  EXPECT_EQ(errorOf(annotate({a}, Array{1})), "4: invalid request format (bad annotations dictionary)");
  for (const Value& election : {Value("1"), Value(UUID::random()), Value(std::nan("")), Value(HUGE_VAL)})
    EXPECT_EQ(errorOf(annotate({a}, Dictionary{{"election", election}, {"extension", nested(1)}})),
              "4: invalid request format (annotation election)");
  for (const Value& extension :
       {Value("text"), Value(Array()), Value(1), Value(Dictionary{{"id", UUID::random()}}),
        Value(Dictionary{{"bell", "\a"}}), Value(Dictionary{{"\x01", 1}}),
        Value(Dictionary{{"deep", Array{std::nan("")}}}), Value(Dictionary{{"when", Date{std::nan("")}}}),
        nested(478), filledWith(largest + 1)})
    EXPECT_EQ(errorOf(annotate({a}, Dictionary{{"election", 1}, {"extension", extension}})),
              "4: invalid request format (annotation extension)");
  EXPECT_EQ(Value(call("annotate", {{"annotations", Dictionary{{"Else", 1}}}})), Value(Dictionary()))
      << "without a known entry the list is not read";
  EXPECT_FALSE(fs::exists(root.annotationFile()));
  EXPECT_EQ(root.changeNotifications(), 0u);
  EXPECT_FALSE(daemon->logs("election :="));

  EXPECT_EQ(errorOf(annotate({a}, Dictionary{{"election", 1}, {"extension", filledWith(largest)}})), "");
  for (const auto& [election, stored] : {std::pair<Value, Value>(true, 1), {-7, -7}, {2.0, 2}}) {
    EXPECT_EQ(elect(a, election), "");
    EXPECT_EQ(annotationsInForm("a")["election"], stored);
  }
  EXPECT_EQ(errorOf(annotate({a}, Dictionary{{"extension", nested(477)}})), "");
  start();
  EXPECT_EQ(annotationsInForm("a")["extension"], nested(477));
}

TEST_F(Annotate, WhatCameBeforeABadEntryStays) {
  const UUID a = startWith({{.identifier = "a"}, {.identifier = "b"}}), b = uuid("b");
  EXPECT_EQ(errorOf(annotate({a, UUID::random(), b}, Dictionary{{"election", 2}})),
            "4: no such plugin (uuid not found)");
  EXPECT_EQ(elected("2"), "a");
  EXPECT_EQ(root.changeNotifications(), 1u);
  EXPECT_EQ(error("annotate", {{"uuids", Array{b, "text"}}, {"annotations", Dictionary{{"election", 2}}}}),
            "4: invalid request (bad uuid array)");
  EXPECT_EQ(elected("2"), "a b");
}

TEST_F(Annotate, APlugInAndItsReplacementShareTheirElection) {
  const auto replacing = [](const char* identifier, const Value& replaced) {
    return PlugInBundle{.identifier = identifier,
                        .entitlements = {{"com.veltra.developer.replace-plugin", replaced}}};
  };
  startWith({{.identifier = "old"}, replacing("new", "old"), replacing("several", Array{"old"})});
  EXPECT_EQ(elect(uuid("new"), 2), "");
  EXPECT_EQ(elected("2"), "new old");
  EXPECT_EQ(Value(root.storedAnnotations()), Value(Dictionary{{"old", Dictionary{{"election", 2}}}}));
}

TEST_F(Annotate, PlugInsThatElectThemselvesAreElectedWithoutAnnouncement) {
  const auto asking = [](const char* identifier, const Value& how) {
    return PlugInBundle{.identifier = identifier,
                        .entitlements = {{"com.veltra.developer.auto-elect-plugin", how}}};
  };
  root.install("A.app", {asking("auto", true), asking("text", "yes"), asking("not", false)});
  start();
  EXPECT_EQ(elected("1"), "auto") << "who asks with another value is elected when it is looked at";
  EXPECT_EQ(found(), "auto not text");
  EXPECT_EQ(elected("1"), "auto text");
  const Value record = Dictionary{{"election", 1}};
  EXPECT_EQ(Value(root.storedAnnotations()), Value(Dictionary{{"auto", record}, {"text", record}}));
  EXPECT_EQ(root.changeNotifications(), 0u);
  EXPECT_EQ(elect(uuid("auto"), 2) + elect(uuid("text"), 0), "");
  start();
  EXPECT_EQ(elected("2"), "auto") << "an election that was made stays";
  EXPECT_EQ(annotationsInForm("text"), record) << "the default is no election";
}

TEST_F(Annotate, APlugInWhoseNameNoFileCanHoldSpoilsNobodysElection) {
  const std::string application = root.install("A.app", {{.identifier = "good"}, {.identifier = "strange"}});
  // {BWBundleIdentifier = "bell\a"; ZQExtension = {}}, which only a binary list can say.
  const std::string objects = "\xD2\1\2\3\4_\020\022BWBundleIdentifier[ZQExtensionUbell\a\xD0";
  const std::string trailer(
      "\010\015\042\056\064\0\0\0\0\0\0\1\1\0\0\0\0\0\0\0\5\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\065", 37);
  const std::string info = "bplist00" + objects + trailer;
  writeText(DeviceRoot::plugInPath(application, "strange") + "/Info.plist", info);
  start();
  EXPECT_EQ(elect(uuid("bell\a"), 1), "");
  EXPECT_TRUE(daemon->logs("unable to save annotations:"));
  EXPECT_EQ(annotationsInForm("bell\a")["election"], Value(1)) << "kept in memory";
  EXPECT_EQ(elect(uuid("good"), 2), "");
  EXPECT_EQ(Value(root.storedAnnotations()), Value(Dictionary{{"good", Dictionary{{"election", 2}}}}));
}

}  // namespace
}  // namespace testsupport
