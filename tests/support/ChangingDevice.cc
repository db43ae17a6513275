#include "tests/support/ChangingDevice.h"

#include <fcntl.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>

#include "platform/propertylist/PropertyList.h"
#include "platform/system/Preferences.h"

namespace testsupport {

namespace fs = std::filesystem;

namespace {

constexpr const char* kReplacePlugIn = "com.veltra.developer.replace-plugin";
constexpr const char* kAutoElect = "com.veltra.developer.auto-elect-plugin";

bool exists(const std::string& path) {
  return fs::symlink_status(path).type() != fs::file_type::not_found;
}

}  // namespace

ChangingDevice::ChangingDevice(uint64_t seed) : random_(seed) {
  for (const std::string& each : {loose_, aside_, testSDKs()}) fs::create_directories(each);
  writeApplication(managerBundle());
  for (int i = 0; i < 3; ++i) install();
  for (int i = 0; i < 3; ++i) changeSDK();
}

/// What is unreadable could not be removed.
ChangingDevice::~ChangingDevice() {
  std::error_code error;
  for (fs::recursive_directory_iterator each(root_.path(), error), end; !error && each != end;
       each.increment(error))
    if (fs::is_directory(each->symlink_status())) chmod(each->path().c_str(), 0755);
}

ChangingDevice::Change ChangingDevice::change() {
  static const std::vector<std::pair<size_t, Kind>> kinds = {
      {3, &ChangingDevice::install},
      {2, &ChangingDevice::removeApplication},
      {2, &ChangingDevice::moveApplication},
      {2, &ChangingDevice::replaceApplication},
      {1, &ChangingDevice::repointLink},
      {3, &ChangingDevice::editApplication},
      {3, &ChangingDevice::togglePlaceholder},
      {3, &ChangingDevice::addPlugIn},
      {6, &ChangingDevice::editInfo},
      {3, &ChangingDevice::swap},
      {2, &ChangingDevice::exchange},
      {4, &ChangingDevice::replacePlugIn},
      {3, &ChangingDevice::replaceInfo},
      {5, &ChangingDevice::editEntitlements},
      {5, &ChangingDevice::localize},
      {6, &ChangingDevice::changeSDK},
      {1, &ChangingDevice::moveSDKs},
      {2, &ChangingDevice::restrict},
      {2, &ChangingDevice::consent},
      {2, &ChangingDevice::exclude},
      {2, &ChangingDevice::removeContainers},
      {5, &ChangingDevice::registerPath},
      {3, &ChangingDevice::elect},
      {2, &ChangingDevice::makeUnreadable},
  };
  size_t total = 0;
  for (const auto& [weight, kind] : kinds) total += weight;
  for (;;) {
    size_t chosen = any(total);
    const auto found = std::ranges::find_if(kinds, [&chosen](const auto& each) {
      if (chosen < each.first) return true;
      chosen -= each.first;
      return false;
    });
    try {
      if (Change done = (this->*found->second)(); !done.description.empty()) return done;
    } catch (const fs::filesystem_error& error) {  // in the place of a directory is something else
      return {error.what()};
    }
  }
}

// --- What there is ---

/// Places of applications that are there, in whatever shape.
std::vector<std::string> ChangingDevice::applications() const {
  std::vector<std::string> found;
  for (const std::string& root : {root_.dataUser(), root_.dataSystem()})
    for (const char* place : {"One.app", "Two.app", "box/Three.app", "rated/Four.app"})
      if (const std::string path = root + "/Applications/" + place; exists(path)) found.push_back(path);
  return found;
}

/// Places of plug-ins that are there, in whatever shape: of applications, and loose ones.
std::vector<std::string> ChangingDevice::plugIns() const {
  std::vector<std::string> found, places = applications();
  for (std::string& each : places) each += "/PlugIns";
  places.insert(places.end(), {managerBundle() + "/PlugIns", loose_});
  std::error_code ignored;
  for (const std::string& place : places)
    for (const auto& entry : fs::directory_iterator(place, ignored)) found.push_back(entry.path());
  std::ranges::sort(found);
  return found;
}

std::string ChangingDevice::emptyPlace() {
  const std::string root = oneIn(3) ? root_.dataSystem() : root_.dataUser();
  const std::string place =
      root + "/Applications/" + anyOf<const char*>({"One.app", "Two.app", "box/Three.app", "rated/Four.app"});
  if (exists(place)) return {};
  if (const fs::path container = fs::path(place).parent_path();
      container.filename() == "rated" && !exists(container))
    writePropertyList(container / "ZintraMetadata.plist",
                      Dictionary{{"rating", Dictionary{{"rank", static_cast<int>(100 * any(4))}}}});
  fs::create_directories(fs::path(place).parent_path());
  return place;
}

std::string ChangingDevice::staged() {
  return aside_ + "/" + std::to_string(count_++);
}

PlugInBundle ChangingDevice::anyBundle() {
  const std::string before = "p" + std::to_string(count_), number = std::to_string(++count_);
  PlugInBundle bundle{.identifier = "p" + number, .version = std::to_string(any(3)) + "." + number};
  bundle.point = anyOf<const char*>({"share", "edit", ""});
  if (!oneIn(3)) bundle.attributes.set("Colour", anyOf<const char*>({"red", "green"}));
  Dictionary& plugIn = bundle.plugIn;
  if (!oneIn(3))
    plugIn.set("ZQExtensionPointIdentifier",
               anyOf<Value>({"point.a", "point.a", "point.b", "com.veltra.keyboard-service", "nowhere", 7}));
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
  if (oneIn(4)) bundle.info.set("QMXService", Dictionary{{"Niceness", static_cast<int>(any(20))}});
  if (oneIn(3)) bundle.entitlements.set("special", static_cast<int>(any(3)));
  if (!isShared && oneIn(3)) {
    if (oneIn(2))
      bundle.entitlements.set(kAutoElect, anyOf<Value>({true, true, "yes"}));
    else if (!isMultiple)
      bundle.entitlements.set(kReplacePlugIn, anyOf<Value>({before, Array{before, "nobody"}}));
  }
  return bundle;
}

void ChangingDevice::writeBundle(const std::string& path) {
  fs::remove_all(path);
  root_.writeBundle(path, anyBundle());
}

void ChangingDevice::writeApplication(const std::string& path) {
  const std::string name = "app" + std::to_string(any(3));
  writePropertyList(path + "/Info.plist",
                    Dictionary{{"BWBundleIdentifier", name}, {"BWBundleName", anyName()}});
  for (size_t i = any(4) + 1; i > 0; --i) writeBundle(path + "/PlugIns/" + std::to_string(any(4)) + ".appex");
}

/// Writes a property list in place, through a link perhaps, or replaces the file.
void ChangingDevice::put(const std::string& path, const Value& value) {
  const fs::file_type type = fs::status(path).type();
  if (oneIn(2) && (type == fs::file_type::regular || type == fs::file_type::not_found))
    return writePropertyList(path, value);
  if (type == fs::file_type::directory) fs::remove_all(path);
  const std::string fresh = staged();
  writePropertyList(fresh, value);
  fs::create_directories(fs::path(path).parent_path());
  fs::rename(fresh, path);
}

/// Makes a link, or one to a link.
void ChangingDevice::link(const std::string& target, const std::string& path) {
  std::string way = target;
  if (oneIn(2)) {
    links_.push_back(way = staged());
    fs::create_directory_symlink(target, way);
  }
  fs::create_directory_symlink(way, path);
}

/// Takes something away, by a rename or piece by piece.
void ChangingDevice::discard(const std::string& path) {
  if (oneIn(2)) {
    fs::remove_all(path);
  } else if (exists(path)) {
    fs::rename(path, staged());
  }
}

// --- Applications ---

ChangingDevice::Change ChangingDevice::install() {
  const std::string place = emptyPlace();
  if (place.empty()) return {};
  const std::string fresh = staged();
  writeApplication(fresh);
  fs::rename(fresh, place);
  return {"installed " + place};
}

ChangingDevice::Change ChangingDevice::removeApplication() {
  const auto present = applications();
  if (present.size() < 3) return {};
  const std::string place = anyOf(present);
  discard(place);
  return {"removed " + place};
}

ChangingDevice::Change ChangingDevice::moveApplication() {
  const auto present = applications();
  const std::string to = emptyPlace();
  if (present.empty() || to.empty()) return {};
  const std::string from = anyOf(present);
  fs::rename(from, to);
  return {"moved " + from + " to " + to};
}

ChangingDevice::Change ChangingDevice::replaceApplication() {
  const auto present = applications();
  if (present.empty()) return {};
  const std::string place = anyOf(present), away = staged();
  fs::rename(place, away);
  switch (any(4)) {
    case 0:
      writeText(place, "no directory");
      return {"a file in the place of " + place};
    case 1:
      link(away, place);
      return {"a link to its new place in the place of " + place};
    case 2:
      link(anyOf(present), place);
      return {"a link to an application in the place of " + place};
    default:
      writeApplication(place);
      return {"another application in the place of " + place};
  }
}

ChangingDevice::Change ChangingDevice::repointLink() {
  if (links_.empty()) return {};
  const std::string path = anyOf(links_), other = staged();
  writeApplication(other);
  fs::remove(path);
  fs::create_directory_symlink(other, path);
  return {"repointed " + path};
}

ChangingDevice::Change ChangingDevice::editApplication() {
  auto present = applications();
  present.push_back(managerBundle());
  const std::string place = anyOf(present), file = place + "/Info.plist";
  if (!fs::is_directory(place)) return {};
  if (oneIn(6)) {
    discard(file);
    return {"no " + file};
  }
  Dictionary info = {{"BWBundleIdentifier", "app" + std::to_string(any(3))}, {"BWBundleName", anyName()}};
  if (oneIn(2)) info.set("BWBundleDisplayName", anyName());
  if (place == managerBundle()) info.set("BWBundleExecutable", "main");
  put(file, info);
  return {"edited " + file};
}

ChangingDevice::Change ChangingDevice::togglePlaceholder() {
  const auto present = applications();
  if (present.empty()) return {};
  const std::string place = anyOf(present), file = place + "/Placeholder";
  if (!fs::is_directory(place)) return {};
  if (exists(file)) {
    discard(file);
    return {"no " + file};
  }
  if (oneIn(3)) {
    fs::create_symlink("nowhere", file);
  } else {
    writeText(file, "");
  }
  return {"made " + file};
}

// --- Plug-ins ---

ChangingDevice::Change ChangingDevice::addPlugIn() {
  auto present = applications();
  present.push_back(managerBundle());
  const std::string application = anyOf(present);
  if (!fs::is_directory(application)) return {};
  const std::string place = oneIn(3) ? loose_ : application + "/PlugIns";
  const std::string path = place + "/" + std::to_string(any(4)) + ".appex";
  if (exists(path)) {
    discard(path);
    return {"removed " + path};
  }
  if (exists(place) && !fs::is_directory(place)) return {};
  fs::create_directories(place);
  const std::string fresh = staged();
  writeBundle(fresh);
  fs::rename(fresh, path);
  return {"added " + path};
}

ChangingDevice::Change ChangingDevice::editInfo() {
  const auto present = plugIns();
  if (present.empty()) return {};
  const std::string path = anyOf(present), file = path + "/Info.plist";
  if (!fs::is_directory(path)) return {};
  PlugInBundle bundle = anyBundle();
  // It would be elected under the other's identifier by who looks before the registry has.
  if (readDictionaryFile(path + "/Entitlements.plist").value_or(Dictionary()).contains(kAutoElect))
    bundle.plugIn.remove("ZQExtensionIdentifier");
  put(file, infoDictionary(bundle));
  return {"edited " + file};
}

ChangingDevice::Change ChangingDevice::swap() {
  const auto present = plugIns();
  if (present.empty()) return {};
  const std::string path = anyOf(present), fresh = staged();
  writeBundle(fresh);
  if (fs::is_directory(fs::symlink_status(path)) && oneIn(2)) {
    renameat2(AT_FDCWD, fresh.c_str(), AT_FDCWD, path.c_str(), RENAME_EXCHANGE);
  } else {
    discard(path);
    fs::rename(fresh, path);
  }
  return {"swapped " + path};
}

ChangingDevice::Change ChangingDevice::exchange() {
  const auto present = oneIn(2) ? plugIns() : applications();
  if (present.size() < 2) return {};
  const std::string one = anyOf(present), other = anyOf(present);
  if (renameat2(AT_FDCWD, one.c_str(), AT_FDCWD, other.c_str(), RENAME_EXCHANGE) != 0 || one == other)
    return {};
  return {"exchanged " + one + " and " + other};
}

ChangingDevice::Change ChangingDevice::replacePlugIn() {
  const auto present = plugIns();
  if (present.empty()) return {};
  const std::string path = anyOf(present), away = staged();
  fs::rename(path, away);
  switch (any(4)) {
    case 0:
      writeText(path, "no directory");
      return {"a file in the place of " + path};
    case 1:
      link(away, path);
      return {"a link to its new place in the place of " + path};
    case 2: {
      const std::string target = anyOf(present);
      if (target.starts_with(loose_)) return {"nothing in the place of " + path};
      fs::create_directory_symlink(target, path);
      return {"a link to " + target + " in the place of " + path};
    }
    default:
      fs::create_directory_symlink("nowhere", path);
      return {"a link to nowhere in the place of " + path};
  }
}

ChangingDevice::Change ChangingDevice::replaceInfo() {
  const auto present = plugIns();
  if (present.empty()) return {};
  const std::string path = anyOf(present), file = path + "/Info.plist", away = staged();
  if (!fs::is_directory(path)) return {};
  if (exists(file)) fs::rename(file, away);
  switch (any(5)) {
    case 0:
      writeText(file, "no property list");
      return {"damaged " + file};
    case 1:
      fs::create_directory(file);
      return {"a directory in the place of " + file};
    case 2:
      fs::create_symlink(away, file);
      return {"a link in the place of " + file};
    case 3:
      mkfifo(file.c_str(), 0600);
      return {"a pipe in the place of " + file};
    default:
      return {"no " + file};
  }
}

ChangingDevice::Change ChangingDevice::editEntitlements() {
  const auto present = plugIns();
  if (present.empty()) return {};
  const std::string path = anyOf(present), file = path + "/Entitlements.plist";
  if (!fs::is_directory(path)) return {};
  if (!exists(file) || oneIn(3)) {
    Dictionary entitlements = anyBundle().entitlements;
    entitlements.remove(kAutoElect);
    put(file, entitlements);
    return {"edited " + file};
  }
  switch (any(3)) {
    case 0:
      discard(file);
      return {"no " + file};
    case 1:
      if (fs::is_symlink(file)) return {};
      chmod(file.c_str(), oneIn(2) ? 0664 : 0644);
      return {"changed the mode of " + file};
    default:
      const std::string away = staged();
      fs::rename(file, away);
      fs::create_symlink(away, file);
      return {"a link in the place of " + file};
  }
}

ChangingDevice::Change ChangingDevice::localize() {
  auto bundles = oneIn(2) ? plugIns() : applications();
  bundles.push_back(managerBundle());
  const std::string path = anyOf(bundles), words = path + "/Localizations";
  if (!fs::is_directory(path)) return {};
  const std::string file = words + "/" + anyOf<const char*>({"de_DE", "de-DE", "de", "fr"}) + ".plist";
  if (exists(words) && oneIn(4)) {
    discard(words);
    return {"no " + words};
  }
  if (exists(file) && oneIn(3)) {
    discard(file);
    return {"no " + file};
  }
  Dictionary names;
  if (!oneIn(3)) names.set("BWBundleDisplayName", anyName());
  if (!oneIn(3)) names.set("BWBundleName", anyName());
  put(file, names);
  return {"edited " + file};
}

// --- SDKs ---

Dictionary ChangingDevice::anySDK() {
  Dictionary attributes, plugIn;
  if (!oneIn(3))
    attributes.set("ZQExtensionPointName", anyOf<Value>({"share", "sdk.a", Array{"sdk.a", "sdk.b"}}));
  if (!oneIn(3)) attributes.set("Colour", anyOf<const char*>({"red", "blue"}));
  plugIn.set("ZQExtensionAttributes", attributes);
  if (oneIn(3)) plugIn.set("ZQExtensionProtocol", anyOf<const char*>({"#Data", "SDK"}));
  if (oneIn(2)) plugIn.set("CleanTimeout", static_cast<int>(any(100)));
  if (oneIn(5)) plugIn.set("Shared", Array{"sdk", "run"});
  if (oneIn(8)) plugIn.set(anyOf<const char*>({"PrincipalClass", "PassProxy", "EmbeddedCode"}), "SDK");
  if (oneIn(8)) plugIn.set("ZQExtensionHostEntitlement", "org.key");
  Dictionary sdk = {{"ZQExtension", plugIn}};
  if (oneIn(4)) sdk.set("Top", static_cast<int>(any(100)));
  return sdk;
}

ChangingDevice::Change ChangingDevice::changeSDK() {
  std::string file = anyOf<const char*>({"point.a", "point.b", "com.veltra.keyboard-service"});
  switch (any(3)) {
    case 0:
      file = testSDKs() + "/" + file;
      break;
    case 1:
      file = root_.dataSystem() + "/SDKs/" + file + ".plist";
      break;
    default:
      file = root_.dataUser() + "/SDKs/" + file + ".plist";
  }
  if (exists(file) && oneIn(3)) {
    discard(file);
    return {"no " + file};
  }
  if (oneIn(8)) {
    fs::create_directories(fs::path(file).parent_path());
    writeText(file, "no property list");
    return {"damaged " + file};
  }
  put(file, anySDK());
  return {"edited " + file};
}

ChangingDevice::Change ChangingDevice::moveSDKs() {
  const std::string places[] = {testSDKs(), root_.dataUser() + "/SDKs", root_.dataSystem() + "/SDKs"};
  const size_t which = any(3);
  const std::string& place = places[which];
  const std::string away = aside_ + "/sdks" + std::to_string(which);
  if (exists(place) == exists(away)) return {};
  fs::rename(exists(place) ? place : away, exists(place) ? away : place);
  return {"moved " + place + (exists(away) ? " away" : " back")};
}

// --- Settings ---

ChangingDevice::Change ChangingDevice::restrict() {
  const std::string file = (oneIn(2) ? root_.configUser() : root_.configDevice()) + "/Restrictions.plist";
  switch (any(3)) {
    case 0:
      discard(file);
      return {"no " + file};
    case 1:
      writeText(file, "no property list");
      return {"damaged " + file};
    default:
      put(file, Dictionary{{"maximumAppsRating", static_cast<int>(100 * any(4))}});
      return {"edited " + file};
  }
}

ChangingDevice::Change ChangingDevice::consent() {
  const std::string file = root_.configUser() + "/Consent.plist";
  if (oneIn(4)) {
    discard(file);
    return {"no " + file};
  }
  Dictionary decisions;
  for (const char* application : {"app0", "app1", "app2"})
    if (!oneIn(3)) decisions.set(application, Dictionary{{"kQSVServiceKeyboardNetwork", !oneIn(3)}});
  put(file, decisions);
  return {"edited " + file};
}

ChangingDevice::Change ChangingDevice::exclude() {
  const std::string file =
      root_.configUser() + "/Preferences/ByHost/com.veltra.ambrel.userprefs." + hostIdentifier() + ".plist";
  if (oneIn(2)) {
    discard(file);
    return {"no " + file};
  }
  const Dictionary rule = {
      {anyOf<const char*>({"Colour", "ZQExtensionPointName"}), anyOf<const char*>({"red", "edit", "sdk.a"})}};
  put(file, Dictionary{{"exclusions", Array{rule}}});
  return {"edited " + file};
}

ChangingDevice::Change ChangingDevice::removeContainers() {
  const std::string containers = root_.dataUser() + "/Containers";
  std::vector<std::string> found = {containers};
  std::error_code ignored;
  for (const auto& entry : fs::directory_iterator(containers, ignored)) found.push_back(entry.path());
  std::ranges::sort(found);
  const std::string path = anyOf(found);
  discard(path);
  return {"removed " + path};
}

// --- Requests ---

ChangingDevice::Change ChangingDevice::registerPath() {
  const auto present = plugIns();
  if (present.empty()) return {};
  const std::string request = oneIn(2) ? "add" : "remove", path = anyOf(present);
  return {.description = request + " " + path, .request = request, .path = path};
}

ChangingDevice::Change ChangingDevice::elect() {
  const auto present = plugIns();
  if (present.empty()) return {};
  const std::string path = anyOf(present);
  const int election = static_cast<int>(any(2)) + 1;
  return {.description = "elected " + path, .request = "annotate", .path = path, .election = election};
}

ChangingDevice::Change ChangingDevice::makeUnreadable() {
  const auto present = plugIns();
  if (present.empty()) return {};
  const std::string path = anyOf(present) + anyOf<const char*>({"", "/Info.plist", "/Entitlements.plist"});
  const bool isReadable = access(path.c_str(), R_OK) == 0;
  if (!exists(path) || fs::is_symlink(path)) return {};
  chmod(path.c_str(), isReadable ? 0 : 0755);
  return {(isReadable ? "made unreadable " : "made readable ") + path};
}

}  // namespace testsupport
