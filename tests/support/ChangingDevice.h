#pragma once

// A device that changes at random: applications with plug-ins, SDKs, localizations, settings and containers
// that come, change and go, each in one of the ways in which installers, administrators and accidents change
// them. The same seed gives the same changes. No two bundles ever have the same version, and what a plug-in
// replaces is replaced by no other, so that what a daemon answers depends on nothing but the device.

#include <fcntl.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include "platform/propertylist/PropertyList.h"
#include "platform/system/Preferences.h"
#include "tests/support/DeviceRoot.h"

namespace testsupport {

class ChangingDevice {
 public:
  /// A change; what files cannot say is a request that every daemon on the device has to be sent.
  struct Change {
    std::string description;
    std::string request = {};  // "add", "remove", "annotate", or empty
    std::string path = {};     // of the plug-ins that the request names
    int election = 0;
  };

  explicit ChangingDevice(uint64_t seed) : random_(seed) {
    for (const std::string& each : {loose_, aside_, testSDKs()}) fs::create_directories(each);
    writeApplication(managerBundle());
    for (int i = 0; i < 3; ++i) install();
    for (int i = 0; i < 3; ++i) put(anySDKFile(), anySDK());
  }

  /// What is unreadable could not be removed.
  ~ChangingDevice() {
    std::error_code error;
    for (fs::recursive_directory_iterator each(root_.path(), error), end; !error && each != end;
         each.increment(error))
      if (fs::is_directory(each->symlink_status())) chmod(each->path().c_str(), 0755);
  }

  const DeviceRoot& root() const { return root_; }
  /// An application of the user's that is always there, with plug-ins dedicated to it.
  std::string managerBundle() const { return root_.dataUser() + "/Applications/Main.app"; }
  /// Of a host elsewhere, that may not use everything.
  std::string guestBundle() const { return root_.path() + "/hosts/Guest.app"; }
  void entitleHosts() const {
    const Dictionary red = {{"Colour", Array{"red", "blue"}}};
    writePropertyList(managerBundle() + kEntitlements,
                      Dictionary{{"com.veltra.private.ambrel.manager", true}});
    writePropertyList(guestBundle() + kEntitlements,
                      Dictionary{{"com.veltra.developer.ambrel.allowedplugins", red}, {"org.key", true}});
  }
  /// The directory for ABTEST_SDK.
  std::string testSDKs() const { return root_.path() + "/sdks"; }

  Change change() {
    size_t total = 0;
    for (const auto& [weight, kind] : kinds_) total += weight;
    for (;;) {
      size_t chosen = any(total);
      auto kind = kinds_.begin();
      while (chosen >= kind->first) chosen -= kind++->first;
      try {
        if (Change done = kind->second(); !done.description.empty()) return done;
      } catch (const fs::filesystem_error& error) {  // in the place of a directory is something else
        return {error.what()};
      }
    }
  }

 private:
  /// What becomes of a file or a bundle; `linked`: it is elsewhere, and a link to it in its place.
  enum Way : size_t { edited, damaged, gone, mode, directory, pipe, dangling, linked };
  using Paths = std::vector<std::string>;

  // 0 to `count` - 1.
  size_t any(size_t count) { return random_() % count; }
  int anyInt(size_t count) { return static_cast<int>(any(count)); }
  bool oneIn(size_t count) { return any(count) == 0; }
  template <typename T>
  T anyOf(const std::vector<T>& choices) {
    return choices[any(choices.size())];
  }
  std::string anyOf(const Paths& choices) { return choices.empty() ? "" : choices[any(choices.size())]; }
  std::string anyName() { return "name " + std::to_string(any(1000)); }
  std::string staged() { return aside_ + "/" + std::to_string(count_++); }
  static bool exists(const std::string& path) {
    return fs::symlink_status(path).type() != fs::file_type::not_found;
  }

  // --- What there is ---

  /// Places of applications that are there, in whatever shape; the one that is always there, if wanted.
  Paths applications(bool withManager = false) const {
    Paths found;
    for (const std::string& root : {root_.dataUser(), root_.dataSystem()})
      for (const char* place : {"One.app", "Two.app", "box/Three.app", "rated/Four.app"})
        if (const std::string path = root + "/Applications/" + place; exists(path)) found.push_back(path);
    if (withManager) found.push_back(managerBundle());
    return found;
  }
  /// Places of plug-ins that are there, in whatever shape: of applications, and loose ones.
  Paths plugIns() const {
    Paths found, places = applications(true);
    for (std::string& each : places) each += "/PlugIns";
    places.push_back(loose_);
    std::error_code ignored;
    for (const std::string& place : places)
      for (const auto& entry : fs::directory_iterator(place, ignored)) found.push_back(entry.path());
    std::ranges::sort(found);
    return found;
  }
  std::string emptyPlace() {
    const std::string root = oneIn(3) ? root_.dataSystem() : root_.dataUser();
    const std::string place = root + "/Applications/" +
                              anyOf<const char*>({"One.app", "Two.app", "box/Three.app", "rated/Four.app"});
    if (exists(place)) return {};
    if (const fs::path container = fs::path(place).parent_path();
        container.filename() == "rated" && !exists(container))
      writePropertyList(container / "ZintraMetadata.plist",
                        Dictionary{{"rating", Dictionary{{"rank", 100 * anyInt(4)}}}});
    fs::create_directories(fs::path(place).parent_path());
    return place;
  }
  /// A file in one of the bundles.
  std::string fileIn(const Paths& bundles, const std::string& file) {
    const std::string bundle = anyOf(bundles);
    std::error_code ignored;
    return fs::is_directory(bundle, ignored) ? bundle + file : "";
  }
  std::string anyLocalization() {
    const std::string language = anyOf(Paths{"de_DE", "de-DE", "de", "fr"});
    return fileIn(oneIn(2) ? plugIns() : applications(true), "/Localizations/" + language + ".plist");
  }
  std::string anyRestrictions() {
    return (oneIn(2) ? root_.configUser() : root_.configDevice()) + "/Restrictions.plist";
  }
  std::string anySDKFile() {
    const std::string name = anyOf<const char*>({"point.a", "point.b", "com.veltra.keyboard-service"});
    return anyOf(Paths{testSDKs() + "/" + name, root_.dataSystem() + "/SDKs/" + name + ".plist",
                       root_.dataUser() + "/SDKs/" + name + ".plist"});
  }
  std::string anyContainer() {
    Paths found = {root_.dataUser() + "/Containers"};
    std::error_code ignored;
    for (const auto& entry : fs::directory_iterator(found[0], ignored)) found.push_back(entry.path());
    std::ranges::sort(found);
    return anyOf(found);
  }

  // --- What files say ---

  PlugInBundle anyBundle() {
    const std::string before = "p" + std::to_string(count_), number = std::to_string(++count_);
    PlugInBundle bundle{.identifier = "p" + number, .version = std::to_string(any(3)) + ".0" + number};
    bundle.point = anyOf<const char*>({"share", "edit", "éa", "-a", ""});
    const std::vector<Value> odd = {5, true, Dictionary(), Array{7, "share"}, Array{"edit", "éa"}};
    if (bundle.point.empty()) bundle.attributes.set("ZQExtensionPointName", anyOf(odd));
    if (oneIn(8)) bundle.info.set("ZQExtensionPointName", anyOf<Value>({"edit", odd[4]}));
    if (!oneIn(3)) bundle.attributes.set("Colour", anyOf<const char*>({"red", "green"}));
    Dictionary& plugIn = bundle.plugIn;
    if (!oneIn(3))
      plugIn.set("ZQExtensionPointIdentifier", anyOf<Value>({"point.a", "point.a", "point.b",
                                                             "com.veltra.keyboard-service", "nowhere", 7}));
    if (oneIn(4)) bundle.attributes.set("RequestsOpenAccess", true);
    if (oneIn(4)) plugIn.set("ZQExtensionProtocol", anyOf<Value>({"#Data", "Own", Array{"One", "Two"}}));
    if (oneIn(6)) plugIn.set("Shared", anyOf<Value>({"run", Array{"run", "missing", "../out"}}));
    if (oneIn(6)) plugIn.set("Dedicated", true);
    if (oneIn(6)) plugIn.set("ZQExtensionHostEntitlement", "org.key");
    if (oneIn(10)) plugIn.set(anyOf<const char*>({"PrincipalClass", "PassProxy", "EmbeddedCode"}), "Own");
    const bool isShared = oneIn(4), isMultiple = oneIn(8);
    if (isShared) plugIn.set("ZQExtensionIdentifier", anyOf<const char*>({"common", "usual"}));
    if (isMultiple) {
      Dictionary each = plugIn;
      each.set("ZQExtensionAttributes", Dictionary{{"ZQExtensionPointName", "share"}});
      each.set("ZQExtensionProtocol", "Own");
      plugIn.set("Multiple", Dictionary{{"p" + number + ".a", each}, {"p" + number + ".b", Dictionary()}});
    }
    if (oneIn(3)) bundle.info.set("BWBundleDisplayName", anyName());
    if (oneIn(6)) bundle.info.set("Ambrel", true);
    if (oneIn(4)) bundle.info.set("QMXService", Dictionary{{"Niceness", anyInt(20)}});
    if (oneIn(3)) bundle.entitlements.set("special", anyInt(3));
    if (!isShared && oneIn(3)) {
      if (oneIn(2))
        bundle.entitlements.set(kAutoElect, anyOf<Value>({true, true, "yes"}));
      else if (!isMultiple)
        bundle.entitlements.set(kReplacePlugIn, anyOf<Value>({before, Array{before, "nobody"}}));
    }
    return bundle;
  }
  Dictionary anyEntitlements() {
    Dictionary entitlements = anyBundle().entitlements;
    entitlements.remove(kAutoElect);
    return entitlements;
  }
  Dictionary anyApplication(bool isRunnable) {
    Dictionary info = {{"BWBundleIdentifier", "app" + std::to_string(any(3))}, {"BWBundleName", anyName()}};
    if (oneIn(2)) info.set("BWBundleDisplayName", anyName());
    if (isRunnable) info.set("BWBundleExecutable", "main");
    return info;
  }
  Dictionary anyNames() {
    Dictionary names;
    if (!oneIn(3)) names.set("BWBundleDisplayName", anyName());
    if (!oneIn(3)) names.set("BWBundleName", anyName());
    return names;
  }
  Dictionary anySDK() {
    Dictionary attributes, plugIn;
    if (!oneIn(3))
      attributes.set("ZQExtensionPointName", anyOf<Value>({"share", "sdk.a", Array{"sdk.a", "sdk.b"}}));
    if (!oneIn(3)) attributes.set("Colour", anyOf<const char*>({"red", "blue"}));
    plugIn.set("ZQExtensionAttributes", attributes);
    if (oneIn(3)) plugIn.set("ZQExtensionProtocol", anyOf<const char*>({"#Data", "SDK"}));
    if (oneIn(2)) plugIn.set("CleanTimeout", anyInt(100));
    if (oneIn(5)) plugIn.set("Shared", Array{"sdk", "run"});
    if (oneIn(8)) plugIn.set(anyOf<const char*>({"PrincipalClass", "PassProxy", "EmbeddedCode"}), "SDK");
    if (oneIn(8)) plugIn.set("ZQExtensionHostEntitlement", "org.key");
    Dictionary sdk = {{"ZQExtension", plugIn}};
    if (oneIn(4)) sdk.set("Top", anyInt(100));
    return sdk;
  }
  Dictionary anyConsent() {
    Dictionary decisions;
    for (const char* application : {"app0", "app1", "app2"})
      if (!oneIn(3)) decisions.set(application, Dictionary{{"kQSVServiceKeyboardNetwork", !oneIn(3)}});
    return decisions;
  }
  Dictionary anyRating() { return {{"maximumAppsRating", 100 * anyInt(4)}}; }
  Dictionary anyExclusion() {
    const char* const key = anyOf<const char*>({"Colour", "ZQExtensionPointName"});
    return {{"exclusions", Array{Dictionary{{key, anyOf<const char*>({"red", "edit", "sdk.a"})}}}}};
  }

  void writeBundle(const std::string& path) {
    fs::remove_all(path);
    root_.writeBundle(path, anyBundle());
  }
  void writeApplication(const std::string& path) {
    writePropertyList(path + "/Info.plist", anyApplication(path == managerBundle()));
    for (size_t i = any(4) + 1; i > 0; --i)
      writeBundle(path + "/PlugIns/" + std::to_string(any(4)) + ".appex");
  }

  // --- Ways to change it ---

  /// Writes a property list in place, through a link perhaps, or replaces the file.
  void put(const std::string& path, const Value& value) {
    const fs::file_type type = fs::status(path).type();
    if (oneIn(2) && (type == fs::file_type::regular || type == fs::file_type::not_found))
      return writePropertyList(path, value);
    if (type == fs::file_type::directory) fs::remove_all(path);
    const std::string fresh = staged();
    writePropertyList(fresh, value);
    fs::create_directories(fs::path(path).parent_path());
    fs::rename(fresh, path);
  }
  /// Makes a link, or to a directory perhaps one to a link.
  void link(const std::string& target, const std::string& path) {
    std::string way = target;
    if (fs::is_directory(target) && oneIn(2)) {
      links_.push_back(way = staged());
      fs::create_symlink(target, way);
    }
    fs::create_symlink(way, path);
  }
  /// Changes what lies at `path`, if it is one, in one of these ways.
  Change alter(const std::string& path, const std::vector<Way>& ways, const Value& contents = {}) {
    static constexpr const char* kNames[] = {"edited ",
                                             "damaged ",
                                             "no ",
                                             "another mode of ",
                                             "a directory at ",
                                             "a pipe at ",
                                             "a link to nowhere at ",
                                             "a link to its new place at "};
    const Way way = anyOf(ways);
    const bool isThere = exists(path), isFile = fs::is_regular_file(fs::symlink_status(path));
    if (path.empty() || (way > damaged && !isThere) || (way == mode && !isFile)) return {};
    if (way == edited) {
      put(path, contents);
    } else if (way == mode) {
      chmod(path.c_str(), oneIn(2) ? 0664 : 0644);
    } else {
      const std::string away = staged();
      if (way == gone && oneIn(2))
        fs::remove_all(path);
      else if (isThere && (way != damaged || !isFile || oneIn(2)))
        fs::rename(path, away);
      if (way == damaged) writeText(path, "no property list");
      if (way == directory) fs::create_directory(path);
      if (way == pipe) mkfifo(path.c_str(), 0600);
      if (way == dangling) fs::create_symlink("nowhere", path);
      if (way == linked) link(away, path);
    }
    return {kNames[way] + path};
  }

  Change install() {
    const std::string place = emptyPlace(), fresh = staged();
    if (place.empty()) return {};
    writeApplication(fresh);
    fs::rename(fresh, place);
    return {"installed " + place};
  }
  Change moveApplication() {
    const std::string from = anyOf(applications()), to = emptyPlace();
    if (from.empty() || to.empty()) return {};
    fs::rename(from, to);
    return {"moved " + from + " to " + to};
  }
  Change rewriteApplication() {
    const std::string place = anyOf(applications());
    if (place.empty()) return {};
    fs::rename(place, staged());
    writeApplication(place);
    return {"another application in the place of " + place};
  }
  Change repointLink() {
    const std::string path = anyOf(links_), other = staged();
    if (path.empty()) return {};
    writeApplication(other);
    fs::remove(path);
    fs::create_symlink(other, path);
    return {"repointed " + path};
  }
  Change togglePlaceholder() {
    const std::string file = fileIn(applications(), "/Placeholder");
    if (file.empty() || exists(file)) return alter(file, {gone});
    oneIn(3) ? fs::create_symlink("nowhere", file) : writeText(file, "");
    return {"made " + file};
  }
  Change addPlugIn() {
    const std::string place = oneIn(3) ? loose_ : fileIn(applications(true), "/PlugIns");
    const std::string path = place + "/" + std::to_string(any(4)) + ".appex", fresh = staged();
    if (exists(path)) return alter(path, {gone});
    if (place.empty() || (exists(place) && !fs::is_directory(place))) return {};
    fs::create_directories(place);
    writeBundle(fresh);
    fs::rename(fresh, path);
    return {"added " + path};
  }
  Change editInfo() {
    const std::string bundle = fileIn(plugIns(), "/");
    PlugInBundle fresh = anyBundle();
    // It would be elected under the other's identifier by who looks before the registry has.
    if (readDictionaryFile(bundle + "Entitlements.plist").value_or(Dictionary()).contains(kAutoElect))
      fresh.plugIn.remove("ZQExtensionIdentifier");
    return bundle.empty() ? Change() : alter(bundle + "Info.plist", {edited}, infoDictionary(fresh));
  }
  Change swap() {
    const std::string path = anyOf(plugIns()), fresh = staged();
    if (path.empty()) return {};
    writeBundle(fresh);
    if (fs::is_directory(fs::symlink_status(path)) && oneIn(2)) {
      renameat2(AT_FDCWD, fresh.c_str(), AT_FDCWD, path.c_str(), RENAME_EXCHANGE);
    } else {
      alter(path, {gone});
      fs::rename(fresh, path);
    }
    return {"swapped " + path};
  }
  Change exchange(const Paths& present) {
    const std::string one = anyOf(present), other = anyOf(present);
    if (renameat2(AT_FDCWD, one.c_str(), AT_FDCWD, other.c_str(), RENAME_EXCHANGE) != 0 || one == other)
      return {};
    return {"exchanged " + one + " and " + other};
  }
  Change linkOneToAnother(const Paths& present, bool mayRepoint) {
    const std::string path = anyOf(present), target = anyOf(present);
    if (path.empty() || target.starts_with(loose_)) return {};
    fs::rename(path, staged());
    mayRepoint ? link(target, path) : fs::create_symlink(target, path);
    return {"a link to " + target + " in the place of " + path};
  }
  Change moveSDKs() {
    const Paths places = {testSDKs(), root_.dataUser() + "/SDKs", root_.dataSystem() + "/SDKs"};
    const size_t which = any(places.size());
    const std::string &place = places[which], away = aside_ + "/sdks" + std::to_string(which);
    if (exists(place) == exists(away)) return {};
    fs::rename(exists(place) ? place : away, exists(place) ? away : place);
    return {"moved " + place + (exists(away) ? " away" : " back")};
  }
  Change makeUnreadable() {
    const std::string path = anyOf(plugIns()) + anyOf(Paths{"", "/Info.plist", "/Entitlements.plist"});
    if (!exists(path) || fs::is_symlink(path)) return {};
    const bool isReadable = access(path.c_str(), R_OK) == 0;
    chmod(path.c_str(), isReadable ? 0 : 0755);
    return {(isReadable ? "made unreadable " : "made readable ") + path};
  }
  Change request(const std::string& request, int election = 0) {
    const std::string path = anyOf(plugIns());
    if (path.empty()) return {};
    return {.description = request + " " + path, .request = request, .path = path, .election = election};
  }

  static constexpr const char* kReplacePlugIn = "com.veltra.developer.replace-plugin";
  static constexpr const char* kEntitlements = "/Entitlements.plist";
  static constexpr const char* kAutoElect = "com.veltra.developer.auto-elect-plugin";
  std::mt19937_64 random_;
  const DeviceRoot root_;
  const std::string loose_ = root_.path() + "/loose", aside_ = root_.path() + "/aside",
                    exclusions_ = root_.configUser() + "/Preferences/ByHost/com.veltra.ambrel.userprefs." +
                                  hostIdentifier() + ".plist";
  Paths links_;         // that others lead to
  unsigned count_ = 0;  // of what needs a name or a version of its own
  static std::vector<Way> ways(auto... each) { return {each...}; }
  const std::vector<Way> often_ = {edited, edited, edited, gone},
                         badly_ = {edited, edited, edited, damaged, gone};
  /// What may happen, and how often each of it does.
  const std::vector<std::pair<size_t, std::function<Change()>>> kinds_ = {
      {3, [this] { return install(); }},
      {2, [this] { return applications().size() < 3 ? Change() : alter(anyOf(applications()), {gone}); }},
      {2, [this] { return moveApplication(); }},
      {1, [this] { return alter(anyOf(applications()), ways(damaged, linked)); }},
      {1, [this] { return linkOneToAnother(applications(), true); }},
      {1, [this] { return rewriteApplication(); }},
      {1, [this] { return repointLink(); }},
      {2, [this] { return alter(fileIn(applications(), "/Info.plist"), often_, anyApplication(false)); }},
      {1, [this] { return alter(managerBundle() + "/Info.plist", often_, anyApplication(true)); }},
      {3, [this] { return togglePlaceholder(); }},
      {3, [this] { return addPlugIn(); }},
      {3, [this] { return swap(); }},
      {2, [this] { return exchange(oneIn(2) ? plugIns() : applications()); }},
      {3, [this] { return alter(anyOf(plugIns()), ways(damaged, linked, dangling)); }},
      {1, [this] { return linkOneToAnother(plugIns(), false); }},
      {6, [this] { return editInfo(); }},
      {3,
       [this] {
         return alter(fileIn(plugIns(), "/Info.plist"), ways(damaged, directory, linked, pipe, gone));
       }},
      {4, [this] { return alter(fileIn(plugIns(), kEntitlements), {edited}, anyEntitlements()); }},
      {3, [this] { return alter(fileIn(plugIns(), kEntitlements), ways(gone, mode, linked)); }},
      {4, [this] { return alter(anyLocalization(), often_, anyNames()); }},
      {1, [this] { return alter(fs::path(anyLocalization()).parent_path(), {gone}); }},
      {6, [this] { return alter(anySDKFile(), badly_, anySDK()); }},
      {1, [this] { return moveSDKs(); }},
      {2, [this] { return alter(anyRestrictions(), badly_, anyRating()); }},
      {2, [this] { return alter(root_.configUser() + "/Consent.plist", often_, anyConsent()); }},
      {2,
       [this] {
         return alter(exclusions_, {edited, gone}, anyExclusion());
       }},
      {2, [this] { return alter(anyContainer(), {gone}); }},
      {5, [this] { return request(oneIn(2) ? "add" : "remove"); }},
      {3, [this] { return request("annotate", anyInt(2) + 1); }},
      {2, [this] { return makeUnreadable(); }},
  };
};

}  // namespace testsupport
