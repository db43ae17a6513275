// "add", "remove" and "bulk": what they answer, what they change, what they leave alone; and announcements.

#include <filesystem>

#include "tests/support/DaemonTest.h"

namespace testsupport {
namespace {

namespace fs = std::filesystem;

class Registration : public DaemonTest {
 protected:
  Registration() { start(); }
  /// A plug-in in an application that lies where nobody scans.
  std::string looseBundle(const std::string& identifier) const {
    const std::string path =
        DeviceRoot::plugInPath(root.path() + "/loose/" + identifier + ".app", identifier);
    root.writeBundle(path, {.identifier = identifier});
    return path;
  }
  std::string errorOfPaths(const char* request, const Array& paths) {
    return error(request, {{"paths", paths}});
  }
};

TEST_F(Registration, AnAddedPlugInIsFoundByTheNextRequestAndARemovedOneIsNot) {
  const std::string first = looseBundle("first"), second = looseBundle("second"),
                    link = root.path() + "/link";
  fs::create_symlink(first, link);
  EXPECT_EQ(Value(call("add", {{"paths", Array{link, second}}})), Value(Dictionary()))
      << "a success has no keys";
  EXPECT_EQ(found(), "first second");
  EXPECT_EQ(form("first")["path"].string(), first);
  EXPECT_TRUE(daemon->waitForLog("INSTALLED:first first(100) "));
  EXPECT_TRUE(daemon->waitForLog(" " + first));
  EXPECT_EQ(errorOfPaths("add", {first}), "") << "again is a success";

  EXPECT_EQ(Value(call("remove", {{"paths", Array{first + "/../first.appex/."}}})), Value(Dictionary()));
  EXPECT_EQ(found(), "second");
  EXPECT_TRUE(daemon->waitForLog("UNINSTALLED:first first(100) "));
  EXPECT_EQ(errorOfPaths("remove", {link}), "9: no plugin at " + first) << "the resolved path is shown";
  fs::remove_all(second);
  EXPECT_EQ(errorOfPaths("remove", {second}), "") << "as received: it resolves no more";
  EXPECT_EQ(errorOfPaths("remove", {"x"}), "9: absolute path required: x");
  usleep(700'000);  // whoever was on the way to look at the new bundle has done so
  EXPECT_EQ(found(), "");
}

TEST_F(Registration, PathsAreJudgedInOrderAndTheWalkStopsAtTheFirstBadOne) {
  const std::string good = looseBundle("good"), later = looseBundle("later");
  const std::string missing = root.path() + "/loose/none.appex";
  fs::create_directories(root.path() + "/loose/empty.appex");
  const std::string refused = root.path() + "/loose/empty.appex";

  EXPECT_EQ(errorOfPaths("add", {missing, good}), "9: invalid plugin path: " + missing);
  EXPECT_EQ(errorOfPaths("add", {"relative/dir", good}), "9: absolute path required: relative/dir");
  EXPECT_EQ(errorOfPaths("add", {"", good}), "9: absolute path required: ");
  EXPECT_EQ(errorOfPaths("add", {5, good}), "4: invalid request format");
  EXPECT_EQ(errorOfPaths("add", Array()), "");
  EXPECT_EQ(found(), "") << "nothing behind a bad entry is looked at";

  EXPECT_EQ(errorOfPaths("add", {good, refused, later}), "2: unable to register plug-in at " + refused);
  EXPECT_EQ(daemon->logCount("failed to register plug-in at " + refused), 1u);
  EXPECT_EQ(found(), "good") << "what came before stays registered";
  EXPECT_EQ(errorOfPaths("add", {later, 5, missing}), "4: invalid request format");
  EXPECT_EQ(found(), "good later");
}

TEST_F(Registration, APathHasToFitItsBufferAsReceivedAndResolved) {
  const std::string real = looseBundle("deep");
  // The longest path that fits, and the first that does not: both lead to the same bundle.
  const auto padded = [&](size_t length) {
    std::string path = real;
    while (path.size() + 2 <= length) path += "/.";
    if (path.size() < length) path += "/";
    return path;
  };
  EXPECT_EQ(errorOfPaths("add", {padded(1023)}), "");
  EXPECT_EQ(found(), "deep");
  EXPECT_EQ(errorOfPaths("add", {padded(1024)}), "9: invalid plugin path: " + padded(1024));

  // A short path whose canonical form is too long.
  std::string deep = root.path();
  while (deep.size() < 1100) deep += "/" + std::string(200, 'd');
  fs::create_directories(deep);
  const std::string link = root.path() + "/short";
  fs::create_directory_symlink(deep, link);
  EXPECT_EQ(errorOfPaths("add", {link}), "9: invalid plugin path: " + link);
}

}  // namespace
}  // namespace testsupport
