// What the system says: directories, file names, bundles, notifications, types.

#include <sys/stat.h>

#include <algorithm>
#include <map>
#include <thread>

#include "platform/qmx/Bundle.h"
#include "platform/qmx/BundleNames.h"
#include "platform/system/Directories.h"
#include "platform/system/Notifications.h"
#include "platform/types/ActivationRules.h"
#include "platform/types/TypeConformance.h"
#include "tests/support/Child.h"
#include "tests/support/Daemon.h"
#include "tests/support/ThisProcess.h"

namespace {

using namespace platform;
using namespace testsupport;
using namespace std::literals;

using Paths = std::vector<std::string>;

const DeviceRoot& ownDevice = thisDevice();

/// After this a file that was just written counts as unchanged, and the types are looked at again.
void letFilesSettle() {
  usleep(150'000);
}

/// The directories of a process in whose environment these variables have other values.
Directories directoriesWith(std::map<std::string, std::optional<std::string>> values) {
  const auto exchange = [&values] {
    for (auto& [name, value] : values) {
      const char* old = getenv(name.c_str());
      const auto saved = old != nullptr ? std::optional<std::string>(old) : std::nullopt;
      value ? setenv(name.c_str(), value->c_str(), 1) : unsetenv(name.c_str());
      value = saved;
    }
  };
  exchange();
  const Directories directories = Directories::fromEnvironment();
  exchange();
  return directories;
}

class DirectoriesTest : public testing::Test {
 protected:
  DirectoriesTest() { fs::create_directories(base_); }
  ~DirectoriesTest() override { fs::remove_all(base_); }
  const std::string base_ = ownDevice.path() + "/directories";
};

TEST_F(DirectoriesTest, WhatTheVariablesDoNotNameLiesInTheHomeDirectory) {
  std::map<std::string, std::optional<std::string>> variables = {{"HOME", base_},
                                                                 {"XDG_STATE_HOME", "relative/state"}};
  for (const char* unset : {"XDG_DATA_HOME", "XDG_CONFIG_DIRS"}) variables[unset] = std::nullopt;
  for (const char* empty : {"XDG_CONFIG_HOME", "XDG_DATA_DIRS"}) variables[empty] = "";
  const Directories directories = directoriesWith(variables);
  EXPECT_EQ(directories.dataUser, base_ + "/.local/share/veltra");
  EXPECT_EQ(directories.configUser, base_ + "/.config/veltra");
  EXPECT_EQ(directories.state, base_ + "/.local/state/veltra");
  EXPECT_EQ(directories.dataSystem, (Paths{"/usr/local/share/veltra", "/usr/share/veltra"}));
  EXPECT_EQ(directories.configDevice, Paths{"/etc/xdg/veltra"});
  EXPECT_EQ(directories.mimeData.front(), base_ + "/.local/share/mime");
}

TEST_F(DirectoriesTest, ARootThatIsNamedTwiceCountsOnceAndInCanonicalForm) {
  fs::create_directories(base_ + "/real");
  fs::create_directory_symlink(base_ + "/real", base_ + "/link");
  const Directories directories = directoriesWith(
      {{"XDG_DATA_HOME", base_ + "/link"},
       {"XDG_DATA_DIRS", "/one:" + base_ + "/real/:relative:/two:/one/:" + base_ + "/real/./"}});
  EXPECT_EQ(directories.dataUser, base_ + "/real/veltra");
  EXPECT_EQ(directories.dataSystem, (Paths{"/one/veltra", "/two/veltra"}));
  EXPECT_EQ(directories.mimeData, (Paths{base_ + "/real/mime", "/one/mime", "/two/mime"}));
}

TEST_F(DirectoriesTest, APrivateDirectoryIsRefusedUnlessItIsOursAlone) {
  const std::string path = base_ + "/private";
  for (int i = 0; i < 2; ++i) EXPECT_EQ(makePrivateDirectory(path), 0);
  EXPECT_EQ(fs::status(path).permissions(), fs::perms::owner_all);
  chmod(path.c_str(), 0710);
  EXPECT_EQ(makePrivateDirectory(path), EACCES);
  fs::create_directory_symlink(base_, base_ + "/link");
  EXPECT_EQ(makePrivateDirectory(base_ + "/link"), ENOTDIR);
  if (geteuid() != 0) GTEST_SKIP() << "only root can give a directory away";
  chmod(path.c_str(), 0700);
  ASSERT_EQ(chown(path.c_str(), 12345, 12345), 0);
  EXPECT_EQ(makePrivateDirectory(path), EPERM);
}

TEST_F(DirectoriesTest, APathThatMayStillComeIsCanonicalAsFarAsItExists) {
  fs::create_directories(base_ + "/real");
  fs::create_directory_symlink("real", base_ + "/link");
  fs::create_symlink("nowhere", base_ + "/dangling");
  for (const auto& [path, canonical] : {std::pair(base_ + "/link/x/./y/", base_ + "/real/x/y"),
                                        {base_ + "/link/../new", base_ + "/new"},
                                        {"/new-thing", "/new-thing"},
                                        {base_ + "/missing/../other", ""},
                                        {base_ + "/dangling", ""}})
    EXPECT_EQ(canonicalPathOfFutureFile(path), canonical);
  EXPECT_TRUE(isInside("/a/b", "/a") && isInside("/a", "/a") && isInside("/a", "/"));
  EXPECT_FALSE(isInside("/ab", "/a"));
}

TEST(FileNames, ThatLeadElsewhereAreRefused) {
  for (const std::string& name : {"com.example.a"s, "..."s, std::string(200, 'x')})
    EXPECT_TRUE(isSafeFileName(name)) << name;
  for (const std::string& name : {""s, "."s, ".."s, "a/b"s, "a\0b"s, std::string(201, 'x')})
    EXPECT_FALSE(isSafeFileName(name)) << name;
}

class BundleTest : public testing::Test {
 protected:
  BundleTest() {
    clearOwnDevice();
    writeText(app_ + "/bin/main", "", 0755);
    writeInfo("bin/main");
  }
  void writeInfo(const Value& executable) {
    writePropertyList(app_ + "/Info.plist",
                      Dictionary{{"BWBundleIdentifier", "app"}, {"BWBundleExecutable", executable}});
  }
  const std::string app_ = ownDevice.dataUser() + "/Applications/A.app";
};

TEST_F(BundleTest, AnExecutableBelongsToTheInnermostBundleAroundIt) {
  const std::string inner = app_ + "/PlugIns/P.appex";
  writeText(inner + "/main", "", 0755);
  const auto bundleOf = [](const std::string& path) {
    return qmx::Bundle::create(path, qmx::Bundle::executable)->property(qmx::Bundle::bundlePath);
  };
  EXPECT_EQ(bundleOf(inner + "/main"), app_) << "a directory without an Info file is no bundle";
  writePropertyList(inner + "/Info.plist", Dictionary());
  EXPECT_EQ(bundleOf(inner + "/main"), inner);
  fs::create_symlink(inner + "/main", ownDevice.runtime() + "/link");
  EXPECT_EQ(bundleOf(ownDevice.runtime() + "/link"), inner);
  EXPECT_EQ(bundleOf("/bin/sh"), std::nullopt);
  EXPECT_EQ(bundleOf(app_ + "/missing"), std::nullopt);
  EXPECT_EQ(qmx::Bundle::mainBundle()->property(qmx::Bundle::bundlePath), std::nullopt);
}

TEST_F(BundleTest, TheExecutableStaysInTheBundle) {
  fs::create_symlink("bin/main", app_ + "/inside");
  fs::create_symlink("/bin/sh", app_ + "/outside");
  const auto executable = [this](const Value& named) {
    writeInfo(named);
    return qmx::Bundle::create(app_, qmx::Bundle::directory)->property(qmx::Bundle::executablePathProperty);
  };
  EXPECT_EQ(executable("bin/main"), app_ + "/bin/main");
  EXPECT_EQ(executable("not-there"), app_ + "/not-there") << "who starts it learns that it is missing";
  EXPECT_EQ(executable("inside"), app_ + "/bin/main");
  for (const Value& escape :
       {Value("outside"), Value("../../../bin/sh"), Value("/bin/sh"), Value("bin/../.."), Value("."),
        Value(""), Value(7), Value("missing/../../../x")})
    EXPECT_EQ(executable(escape), std::nullopt) << escape.description();
}

// The language is read once, so the names in another one need a process of their own.
TEST_F(BundleTest, NamesAreInTheUsersLanguageWhereTheBundleKnowsIt) {
  const Dictionary info{{"BWBundleDisplayName", "Pictures of All"}, {"BWBundleName", "Pictures"}};
  const std::string words = app_ + "/Localizations/";
  writePropertyList(words + "de.plist", Dictionary{{"BWBundleDisplayName", "Alle Bilder"}});
  writePropertyList(words + "pt-BR.plist", Dictionary{{"BWBundleName", "Fotos"}});
  writePropertyList(words + "pt.plist", Dictionary{{"BWBundleName", "Fotografias"}});
  const auto namesIn = [&](const std::string& language) {
    return answerOfProcess([&] {
      setenv("LC_ALL", language.c_str(), 1);
      const qmx::BundleNames names =
          qmx::localizedBundleNames(app_, qmx::BundleNames::of(info), qmx::localizationFiles(app_));
      return std::string(names.display.value_or("(none)").view()) + "|" +
             std::string(names.brief.value_or("(none)").view());
    });
  };
  EXPECT_EQ(namesIn("C"), "Pictures of All|Pictures");
  EXPECT_EQ(namesIn("de_AT.UTF-8@euro"), "Alle Bilder|Pictures");
  EXPECT_EQ(namesIn("pt_BR.UTF-8"), "Pictures of All|Fotos");
  EXPECT_EQ(namesIn("pt_PT"), "Pictures of All|Fotografias");
  EXPECT_EQ(namesIn("../../x"), "Pictures of All|Pictures");
}

TEST(Notifications, EveryPostAfterTheObserverWasMadeIsCounted) {
  clearOwnDevice();
  RunLoop loop;
  postNotification("change");
  uint64_t posts = 0;
  const NotificationObserver observer("change", loop, [&](uint64_t count) { posts += count; });
  const auto sees = [&](uint64_t expected) {
    return eventually([&] {
      loop.after(5ms, [&loop] { loop.stop(); });
      loop.run();
      return posts == expected;
    });
  };
  // Before the loop has ever run, by several threads, and beside another notification.
  const auto post = [] {
    for (int i = 0; i < 50; ++i) postNotification("change");
    postNotification("other");
  };
  std::jthread other(post);
  post();
  other.join();
  EXPECT_TRUE(sees(100)) << posts;
  // A file that is made anew counts from its beginning.
  fs::remove(ownDevice.runtime() + "/Notifications/change");
  postNotification("change");
  EXPECT_TRUE(sees(101)) << posts;
}

// --- Types ---

TEST(TypeConformance, EveryRootDeclaresTypesAndChangesAreNoticed) {
  clearOwnDevice();
  const std::string mime = ownDevice.path() + "/share/mime", mine = ownDevice.dataUser() + "/Types/";
  writeText(mime + "/subclasses",
            "image/png public.image\n\nmalformed\nimage/svg+xml application/xml\n end \nx ");
  writeText(mime + "/aliases",
            "image/x-png image/png\napplication/x-xml application/xml\ntext/xml application/xml");
  writePropertyList(
      ownDevice.dataSystem() + "/Types/base.plist",
      Dictionary{{"public.image", "public.data"}, {"loop", Array{7, "round"}}, {"round", "loop"}});
  writePropertyList(mine + "mine.plist", Dictionary{{"public.data", Array{"more", "example.thing"}}});
  writeText(mine + "broken.plist", "no property list");
  letFilesSettle();
  const auto conforms = [](std::string_view types) {
    const size_t blank = types.find(' ');
    return typeConformsTo(types.substr(0, blank), types.substr(blank + 1));
  };
  for (const char* types : {"image/x-png example.thing", "unknown unknown", "loop round", "round loop",
                            "image/svg+xml text/xml", "text/xml application/x-xml"})
    EXPECT_TRUE(conforms(types)) << types;
  for (const char* types : {"example.thing image/png", "loop public.data", "image/png unknown", "LOOP round",
                            "application/xml image/svg+xml", "image/png example.other"})
    EXPECT_FALSE(conforms(types)) << types;
  fs::remove(mine + "mine.plist");
  writePropertyList(mine + "more.plist", Dictionary{{"image/png", "example.other"}});
  letFilesSettle();
  EXPECT_TRUE(conforms("image/x-png example.other") && !conforms("image/x-png example.thing"));
}

class ActivationRulesTest : public testing::Test {
 protected:
  ActivationRulesTest() {
    clearOwnDevice();
    writePropertyList(ownDevice.dataUser() + "/Types/types.plist",
                      Dictionary{{"photo", "image"}, {"image", "file"}, {"movie", "file"}});
    letFilesSettle();
  }
  static bool accepts(const Value& rule, const Dictionary& items) {
    TypeConformances types;
    return evaluateActivationRule(rule, items, types);
  }
  /// Items of one type each.
  static Dictionary items(const std::vector<const char*>& types) {
    Array list;
    for (const char* type : types) list.append(Dictionary{{"types", Array{type}}});
    return {{"items", list}};
  }
};

TEST_F(ActivationRulesTest, EachItemCountsForEveryTypeThatItConformsTo) {
  const Value limits = Dictionary{{"image", 2}, {"file", 3}};
  EXPECT_TRUE(accepts(limits, items({"photo", "image", "movie"})));
  // Three images, four files, and one that counts nowhere.
  for (const auto& types :
       {std::vector{"photo", "image", "photo"}, {"photo", "image", "movie", "movie"}, {"photo", "song"}})
    EXPECT_FALSE(accepts(limits, items(types)));
  const Dictionary both{{"items", Array{Dictionary{{"types", Array{7, "song", "photo"}}}}}};
  EXPECT_TRUE(accepts(limits, both)) << "one of an item's types is enough";
  EXPECT_TRUE(accepts(true, items({"anything"})));
  EXPECT_FALSE(accepts(true, items({})) || accepts(false, items({"anything"})));
  for (const Value& limit : {Value(true), Value(3.5), Value(3)})
    EXPECT_TRUE(accepts(Dictionary{{"image", limit}}, items({"photo", "photo", "photo"})));
  for (const Value& limit : {Value(1), Value(false), Value(0), Value(-1), Value("3")})
    EXPECT_FALSE(accepts(Dictionary{{"image", limit}}, items({"photo", "photo"}))) << limit.description();
}

}  // namespace
