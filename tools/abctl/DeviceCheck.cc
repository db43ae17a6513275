// The directories of the device, what the daemon keeps there, and what it reads as settings.

#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <utility>
#include <variant>

#include "abd/database/ABDAnnotationStore.h"
#include "abd/database/ABDUserPrefs.h"
#include "platform/hollin/Store.h"
#include "platform/policy/Consent.h"
#include "platform/policy/Restrictions.h"
#include "platform/propertylist/PropertyList.h"
#include "platform/security/TokenSeal.h"
#include "platform/system/Directories.h"
#include "platform/system/Preferences.h"
#include "tools/abctl/Checks.h"
#include "tools/abctl/Device.h"

namespace abctl {
namespace {

using abd::ABDAnnotationStore;
using platform::Array;
using platform::Dictionary;
using platform::Directories;
using platform::Error;
using platform::Value;

namespace fs = std::filesystem;

// --- Directories ---

enum class Use {
  sockets,   // of this user alone
  kept,      // the daemon writes to it
  believed,  // what is in there decides what the daemon does
};

struct Place {
  const char* what;
  std::string path;
  Use use;
};

std::vector<Place> places(const std::string& annotations) {
  const Directories& directories = Directories::shared();
  std::vector<Place> all = {{"sockets", directories.runtime, Use::sockets},
                            {"state", directories.state, Use::kept}};
  if (!annotations.empty()) all.push_back({"elections", fs::path(annotations).parent_path(), Use::kept});
  if (!directories.state.empty()) all.push_back({"registrations", directories.state + "/Hollin", Use::kept});
  all.push_back({"user's settings", directories.configUser, Use::believed});
  for (const std::string& path : directories.configDevice)
    all.push_back({"device's settings", path, Use::believed});
  all.push_back({"user's plug-ins", directories.dataUser, Use::believed});
  for (const std::string& path : directories.dataSystem)
    all.push_back({"system's plug-ins", path, Use::believed});
  return all;
}

/// What happens when the daemon cannot use a directory.
const char* effectOf(Use use) {
  if (use == Use::sockets) return "the daemon does not start";
  return use == Use::kept ? "what the daemon is told is lost when it ends, or it does not start"
                          : "the daemon finds nothing there";
}

void judge(const Place& place, const struct stat& status, Findings& findings) {
  const auto find = [&](Level level, const std::string& what, const char* effect, const std::string& mend) {
    findings.add({level, what, effect, mend, place.path});
  };
  const bool isMine = status.st_uid == ::geteuid();
  const std::string change = "chmod ", path = " " + place.path;
  if (!S_ISDIR(status.st_mode))
    return find(Level::error, "is no directory", effectOf(place.use), "move it away");
  if (place.use != Use::believed && !isMine)
    return find(Level::error, "belongs to " + userName(status.st_uid), effectOf(place.use),
                "give it to the user that the daemon runs as (chown), or name another directory");
  const int wanted = R_OK | X_OK | (place.use == Use::believed ? 0 : W_OK);
  if (::access(place.path.c_str(), wanted) != 0)
    return find(Level::error, std::string("cannot be used: ") + std::strerror(errno), effectOf(place.use),
                change + (place.use == Use::believed ? "u+rx" : "u+rwx") + path);
  if (place.use == Use::sockets && (status.st_mode & 077) != 0)
    find(Level::warning, "others may enter it", "the daemon closes it when it starts", change + "700" + path);
  if (place.use == Use::believed && !isMine && status.st_uid != 0)
    find(Level::warning, "belongs to " + userName(status.st_uid),
         "who owns it decides what hosts are offered", "give it to root, or to the user");
  const bool isSticky = place.use == Use::kept && (status.st_mode & S_ISVTX) != 0;
  if (place.use != Use::sockets && (status.st_mode & S_IWOTH) != 0 && !isSticky)
    find(Level::warning, "everybody may write to it", "everybody decides what the daemon answers",
         change + "o-w" + path);
}

// --- Kept files ---

/// Notes that there is the file; false when there is none.
bool isThere(const std::string& path, Findings& findings) {
  struct stat status {};
  if (::lstat(path.c_str(), &status) != 0) return false;
  findings.checked(path, "file");
  return true;
}

/// What the daemon has set aside in place of `path`.
void checkSetAside(const std::string& path, const std::string& loss, Findings& findings) {
  const fs::path file(path);
  std::error_code ignored;
  for (const auto& entry : fs::directory_iterator(file.parent_path(), ignored)) {
    const std::string name = entry.path().filename();
    if (!name.starts_with(file.filename().string() + ".damaged-") || name.ends_with("-journal")) continue;
    findings.checked(entry.path(), "file");
    findings.add({Level::warning, "was set aside as damaged", loss,
                  "to go back, stop the daemon, mend the file and rename it to " + file.filename().string() +
                      "; otherwise remove it",
                  entry.path()});
  }
}

void checkElections(const std::string& path, Findings& findings) {
  checkSetAside(path, "its elections do not count", findings);
  if (!isThere(path, findings)) return;
  const auto read = ABDAnnotationStore::readTable(path);
  if (const Error* const error = std::get_if<Error>(&read)) {
    findings.add({Level::error, "cannot be loaded: " + error->localizedDescription(),
                  "no election counts; with the next one the daemon sets the file aside and begins anew",
                  "stop the daemon and put a good copy in its place, or import one: abctl elections import",
                  path});
    return;
  }
  for (const auto& [key, record] : std::get<Dictionary>(read))
    if (!record.isDictionary())
      findings.add({Level::warning,
                    "the record is no dictionary",
                    "it does not count",
                    "elect anew, or remove it while the daemon is stopped",
                    path,
                    {},
                    {key}});
  std::error_code ignored;
  if (fs::file_size(path, ignored) > ABDAnnotationStore::kMaximumBytes)
    findings.add({Level::warning, "is full", "elections are recorded, extensions are refused",
                  "give plug-ins smaller extensions: abctl annotate", path});
}

/// Opens a copy as the daemon would open the database, which sets a damaged one aside.
bool isDamaged(const std::string& database) {
  std::string directory = fs::temp_directory_path() / "abctl-XXXXXX";
  if (::mkdtemp(directory.data()) == nullptr) return false;
  const fs::path copy = fs::path(directory) / "Registry.sqlite";
  std::error_code failure, ignored;
  fs::copy_file(database + "-journal", copy.string() + "-journal", ignored);
  fs::copy_file(database, copy, failure);
  bool isSetAside = false;
  if (!failure) {
    std::vector<platform::hollin::Registration> registrations;
    platform::hollin::Store(copy).open(0, registrations);
    for (const auto& entry : fs::directory_iterator(directory, ignored))
      isSetAside = isSetAside || entry.path().filename().string().find(".damaged-") != std::string::npos;
  }
  fs::remove_all(directory, ignored);
  return isSetAside;
}

void checkRegistrations(Findings& findings, bool isInUse) {
  const std::string path = Directories::shared().state + "/Hollin/Registry.sqlite";
  const std::string loss =
      "plug-ins added by path and what was unregistered are lost; the rest is found anew";
  checkSetAside(path, loss, findings);
  if (!isThere(path, findings)) return;
  if (::access(path.c_str(), R_OK | W_OK) != 0)
    findings.add({Level::error, std::string("cannot be used: ") + std::strerror(errno),
                  "the daemon does not start", "chmod u+rw " + path, path});
  else if (!isInUse && isDamaged(path))
    findings.add({Level::error, "is damaged", "at its start the daemon sets it aside: " + loss,
                  "put a good copy in its place, or add again what was added by path", path});
}

void checkKey(Findings& findings) {
  const std::string path = platform::TokenSeal::keyFile();
  if (!isThere(path, findings)) return;
  const int number = platform::TokenSeal::checkKey();
  if (number == 0) return;
  const std::string what = number == EPERM    ? "is not a file of this user that nobody else may read"
                           : number == EINVAL ? "is not 32 bytes long"
                                              : std::string("cannot be read: ") + std::strerror(number);
  findings.add({Level::error, what, "there are no read tokens: confined hosts cannot read plug-ins",
                "remove it (a new one is made, earlier tokens are worth nothing then), or: chmod 600 " + path,
                path});
}

// --- Settings ---

constexpr auto kIfThere = CheckedFile::Kind::propertyListIfThere;

void checkConsent(Findings& findings) {
  const std::string path = platform::consentFile();
  if (path.empty() || !isThere(path, findings)) return;
  const CheckedFile file(path, findings, "no application is granted anything", kIfThere);
  if (file.dictionary() == nullptr) return;
  for (const auto& [application, services] : *file.dictionary())
    if (!services.isDictionary())
      file.find(Level::warning, {application}, "is no dictionary", "nothing is decided for the application",
                "write a dictionary from service to true or false");
}

void checkRestrictions(Findings& findings) {
  for (const std::string& path : platform::restrictionFiles()) {
    if (!isThere(path, findings)) continue;
    const CheckedFile file(path, findings, "it restricts nothing", kIfThere);
    const Value rating = file.at({"maximumAppsRating"});
    if (!rating.isNone() && (!rating.isNumber() || rating.kind() == Value::Kind::boolean))
      file.find(Level::error, {"maximumAppsRating"}, "is no number", "it restricts nothing",
                "write an integer");
  }
}

void checkPreferences(Findings& findings) {
  const std::string& directory = Directories::shared().configUser;
  if (directory.empty()) return;
  const std::string domain = abd::ABDUserPrefs::kDomain;
  const std::string path = platform::hostPreferencesPath(domain);
  const std::string everyHost = directory + "/Preferences/" + domain + ".plist";
  if (isThere(everyHost, findings))
    findings.add(
        {Level::warning, "is not read", "what it excludes is offered", "move it to " + path, everyHost});
  if (!isThere(path, findings)) return;
  const CheckedFile file(path, findings, "no plug-in is excluded", kIfThere);
  const platform::KeyPath key = {abd::ABDUserPrefs::kExclusions};
  const Value exclusions = file.at(key);
  if (!exclusions.isNone() && !exclusions.isArray())
    file.find(Level::error, key, "is no array", "no plug-in is excluded",
              "write an array of rule dictionaries");
  const size_t count = exclusions.isArray() ? exclusions.array()->size() : 0;
  for (size_t i = 0; i < count; ++i) checkRules(file, key / std::to_string(i));
}

/// SDKs and types: whatever lies there and is no property list is passed over.
void checkDefinitions(Findings& findings) {
  std::error_code ignored;
  for (const std::string& root : Directories::shared().dataRoots())
    for (const char* const folder : {"/SDKs", "/Types"})
      for (const auto& entry : fs::directory_iterator(root + folder, ignored)) {
        if (entry.path().extension() != ".plist") continue;
        findings.checked(entry.path(), "file");
        const CheckedFile file(entry.path(), findings, "the daemon passes it over", kIfThere);
      }
}

}  // namespace

std::string userName(uid_t user) {
  const passwd* const entry = ::getpwuid(user);
  return entry != nullptr ? entry->pw_name : std::to_string(user);
}

std::vector<DirectoryFacts> checkDirectories(const std::string& annotations, Findings& findings) {
  std::vector<DirectoryFacts> all;
  for (const Place& place : places(annotations)) {
    DirectoryFacts facts{place.what, place.path, {}, {}};
    struct stat status {};
    if (place.path.empty()) {
      const bool isNeeded = place.use != Use::believed;
      findings.add({isNeeded ? Level::error : Level::warning, "there is none", effectOf(place.use),
                    place.use == Use::sockets
                        ? "set XDG_RUNTIME_DIR; what stands in for it is somebody else's"
                        : "set HOME, or the XDG variable for it",
                    std::string("directory of ") + place.what});
    } else if (::stat(place.path.c_str(), &status) == 0) {
      char mode[8];
      std::snprintf(mode, sizeof mode, "%04o", status.st_mode & 07777u);
      facts.owner = userName(status.st_uid);
      facts.mode = mode;
      findings.checked(place.path, "directory");
      judge(place, status, findings);
    } else if (errno != ENOENT) {
      findings.add({Level::error, std::string("cannot be reached: ") + std::strerror(errno),
                    effectOf(place.use), "look at the directories above it", place.path});
    }
    all.push_back(std::move(facts));
  }
  return all;
}

void checkState(const std::string& annotations, bool isInUse, Findings& findings) {
  if (!annotations.empty()) checkElections(annotations, findings);
  if (Directories::shared().state.empty()) return;
  checkRegistrations(findings, isInUse);
  checkKey(findings);
}

void checkSettings(Findings& findings) {
  checkConsent(findings);
  checkRestrictions(findings);
  checkPreferences(findings);
  checkDefinitions(findings);
}

}  // namespace abctl
