// A daemon that has lived for long beside one that was started just now, over the same device: after every
// change of a random sequence both give the same answers, at the latest a moment later. What a daemon keeps
// in memory is right when it cannot be told from what one finds that kept nothing.
//
// The new daemon runs on a copy of the other's state as it was before the change: it finds the change as one
// that happened while it was down. Plug-ins have the same UUIDs in both when they were seen before the
// change; those of newer ones are left out, as are tokens and times.

#include <linux/capability.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <map>

#include "platform/propertylist/PropertyList.h"
#include "tests/support/ChangingDevice.h"
#include "tests/support/DaemonTest.h"

namespace testsupport {
namespace {

using std::chrono::milliseconds;

constexpr uint64_t kOneOfEach = 0, kEvery = kAllVersions | kDuplicates;
constexpr int kDevices = 8;

/// ABD_COMPARISON_STEPS (changes of each device), _SEED and _MILLISECONDS (until answers are equal).
uint64_t setting(const char* name, uint64_t standard) {
  const char* value = std::getenv((std::string("ABD_COMPARISON_") + name).c_str());
  return value != nullptr ? std::strtoull(value, nullptr, 10) : standard;
}

/// Lets go of what makes every file readable for root, for good and for the processes that are started.
void readAsUsersDo() {
  __user_cap_header_struct header{.version = _LINUX_CAPABILITY_VERSION_3, .pid = 0};
  __user_cap_data_struct sets[_LINUX_CAPABILITY_U32S_3] = {};
  ASSERT_EQ(syscall(SYS_capget, &header, sets), 0);
  for (const int capability : {CAP_DAC_OVERRIDE, CAP_DAC_READ_SEARCH}) {
    prctl(PR_CAPBSET_DROP, capability);
    sets[0].effective &= ~CAP_TO_MASK(capability);
    sets[0].permitted &= ~CAP_TO_MASK(capability);
  }
  ASSERT_EQ(syscall(SYS_capset, &header, sets), 0);
}

/// A daemon with the processes that ask it: this one, a manager, and a host that may not use everything.
struct Party {
  Party(const ChangingDevice& device, const std::string& home)
      : daemon(device.root(), {.arguments = {},
                               .environment = {"LC_ALL=de_DE.UTF-8", "ABTEST_SDK=" + device.testSDKs()},
                               .service = home.empty() ? "abd.old" : "abd.new",
                               .home = home}),
        manager(device.root(), daemon, device.managerBundle()),
        guest(device.root(), daemon, device.guestBundle()),
        client(daemon.connect()) {}

  Daemon daemon;
  Host manager, guest;
  WireClient client;
};

class Comparison : public testing::TestWithParam<int> {
 protected:
  Comparison();
  bool areEqual(Party& fresh);
  bool areEqualAfter(const ChangingDevice::Change& change);
  void copyState();
  std::string perform(Party& party, const ChangingDevice::Change& change);
  Dictionary answers(Party& party);
  void addReady(Party& party, Dictionary& all);
  Value canonical(std::vector<Dictionary> forms);
  Value nameOf(const Value& uuid);

  const uint64_t seed_ = setting("SEED", 1) * 1000 + static_cast<uint64_t>(GetParam());
  const milliseconds patience_{setting("MILLISECONDS", 10'000)};
  ChangingDevice device_{seed_};
  const std::string home_ = device_.root().path() + "/new";
  std::optional<Party> old_;
  // Plug-ins by path and identifier: what UUID they were given, and what the last answers say.
  std::map<std::string, std::string> known_, seen_;
  std::map<std::string, std::string> names_;  // UUID to path and identifier
  bool haveContainers_ = true;                // that the last answers name
};

Comparison::Comparison() {
  readAsUsersDo();
  device_.entitleHosts();
  old_.emplace(device_, "");
}

/// What identifies a plug-in to the reader. New ones have a UUID in each daemon.
Value Comparison::nameOf(const Value& uuid) {
  const std::string text(uuid.string().value_or(""));
  const std::string name = names_.contains(text) ? names_[text] : "";
  const auto known = known_.find(name);
  return known == known_.end() ? "new: " + name : text;
}

Value Comparison::canonical(std::vector<Dictionary> forms) {
  const auto name = [](const Value& form) {
    return form["path"].description() + " " + form["identifier"].description();
  };
  for (const Dictionary& form : forms) {
    names_[uuidIn(form).string()] = name(form);
    seen_[name(form)] = uuidIn(form).string();
  }
  Dictionary result;
  for (Dictionary& form : forms) {
    form.remove("lastmodified");
    Array shared;
    if (const Dictionary* tokens = form["extensions"].dictionary())
      for (const auto& [resource, token] : *tokens) shared.append(resource);
    form.set("extensions", shared);
    for (const char* key : {"uuid", "overrider"})
      if (form.contains(key)) form.set(key, nameOf(form[key]));
    EXPECT_FALSE(result.contains(name(form))) << name(form) << " was answered twice";
    result.set(name(form), form);
  }
  return result;
}

/// What "ready" leaves for the launcher.
void Comparison::addReady(Party& party, Dictionary& all) {
  haveContainers_ = true;
  for (const Dictionary& form : match(party.client)) {
    const UUID uuid = uuidIn(form);
    const std::string file = party.daemon.launchFile(getpid(), uuid);
    fs::remove(file);
    std::string error = errorOf(party.client.call(message("ready", {{"uuids", Array{uuid}}})));
    if (const size_t at = error.find(uuid.string()); at != std::string::npos) error.erase(at, 36);
    Dictionary registration = readDictionaryFile(file).value_or(Dictionary());
    registration.set("error", error);
    const Value& variables = registration["LaunchDescription"]["QMXService"]["EnvironmentVariables"];
    if (const auto container = variables["HOME"].string())
      haveContainers_ = haveContainers_ && fs::is_directory(std::string(*container) + "/tmp");
    all.set("ready " + form["path"].description() + " " + form["identifier"].description(), registration);
  }
}

Dictionary Comparison::answers(Party& party) {
  static const std::pair<Dictionary, uint64_t> questions[] = {
      {{}, kOneOfEach},
      {{}, kEvery},
      {{{"ZQExtensionPointName", Array{"share", "=sdk.a"}}}, kEvery},
      {{{"ZQExtensionPointName", "point.a"}}, kEvery},
      {{{"ZQExtensionPointName", "sdk.b"}, {"Colour", "<>red"}}, kOneOfEach},
      {{{"ZQExtensionIdentifier", Array{"common", "usual"}}, {"ZQUserElection", Array{"1", "2"}}}, kEvery},
      {{{"ZQExtensionPointName", "edit"}, {"ENTITLEMENT:special", true}}, kOneOfEach},
      {{{"ZQUserElection", "<>0"}}, kOneOfEach},
      {{{"ENTITLEMENT:special", true}}, kEvery},
  };
  WireClient &manager = party.manager.client(), &guest = party.guest.client();
  Dictionary all = {{"all", canonical(match(manager, {}, kAll | kEvery))},
                    {"one of each", canonical(match(manager, {}, kAll))},
                    {"manager", canonical(match(manager))},
                    {"guest", canonical(match(guest, {}, kEvery))}};
  for (const auto& [rules, flags] : questions)
    all.set(Value(rules).description() + " " + std::to_string(flags),
            canonical(match(party.client, rules, flags)));
  addReady(party, all);
  return all;
}

std::string Comparison::perform(Party& party, const ChangingDevice::Change& change) {
  if (change.request.empty()) return "";
  if (change.request != "annotate")
    return errorOf(party.client.call(message(change.request, {{"paths", Array{change.path}}})));
  Array uuids;
  for (const Dictionary& form : match(party.manager.client(), {}, kAll | kEvery))
    if (form["path"].string() == change.path) uuids.append(uuidIn(form));
  const Dictionary annotations = {{"election", change.election}};
  return errorOf(party.client.call(message("annotate", {{"uuids", uuids}, {"annotations", annotations}})));
}

/// Copies the old daemon's state, once it holds all that was answered last and nothing is being saved.
void Comparison::copyState() {
  const std::string store = device_.root().state() + "/Hollin/Registry.sqlite";
  const auto isStored = [](const std::string& bytes, const std::string& uuid) {
    const UUID::Bytes raw = UUID::fromString(uuid)->bytes();
    return contains(bytes, std::string(raw.begin(), raw.end()));
  };
  EXPECT_TRUE(eventually([&] {
    const std::string before = readText(store);
    fs::remove_all(home_);
    fs::create_directories(home_ + "/state");
    fs::copy(device_.root().state(), home_ + "/state/veltra", fs::copy_options::recursive);
    // The header of a journal that is not in use is blank.
    const std::string journal = readText(home_ + "/state/veltra/Hollin/Registry.sqlite-journal");
    const bool isSaving = !journal.empty() && journal[0] != '\0';
    return !isSaving && before == readText(store) &&
           std::ranges::all_of(seen_, [&](const auto& each) { return isStored(before, each.second); });
  }));
  fs::create_directories(home_ + "/run/veltra");
  for (const char* each : {"/run", "/run/veltra"}) fs::permissions(home_ + each, fs::perms::owner_all);
}

/// Adds what differs, each kind of difference once.
void differences(const Value& old, const Value& fresh, const std::string& where,
                 std::map<std::string, std::string>& found) {
  if (old == fresh) return;
  const Dictionary *one = old.dictionary(), *other = fresh.dictionary();
  if (one == nullptr || other == nullptr) {
    found.try_emplace(where.substr(where.rfind('/') + 1),
                      where + "\n    old: " + old.description().substr(0, 200) +
                          "\n    new: " + fresh.description().substr(0, 200));
    return;
  }
  const auto add = [&](const Dictionary& keys) {
    for (const auto& [key, value] : keys)
      differences((*one)[key], (*other)[key], where + " / " + std::string(key.view()), found);
  };
  add(*one);
  add(*other);
}

/// Both daemons give the same answers, at the latest a moment from now.
bool Comparison::areEqual(Party& fresh) {
  const Dictionary wanted = answers(fresh);
  Dictionary old;
  std::map<std::string, std::string> found;
  if (!eventually([&] { return (old = answers(*old_)) == wanted; }, patience_))
    differences(old, wanted, "", found);
  for (const auto& [key, text] : found) ADD_FAILURE() << text;
  return found.empty();
}

bool Comparison::areEqualAfter(const ChangingDevice::Change& change) {
  // A container is made again when it is needed, and not because another daemon made it.
  EXPECT_TRUE(eventually([&] { return answers(*old_), haveContainers_; }, patience_))
      << "plug-ins were sent to containers that are not there";
  Party fresh(device_, home_);
  if (!areEqual(fresh) || change.request.empty()) return !HasFailure();
  const std::string wanted = perform(fresh, change);
  std::string error;
  // It may be about a change before it that did not show.
  EXPECT_TRUE(eventually([&] { return (error = perform(*old_, change)) == wanted; }, patience_))
      << "old: " << error << "\nnew: " << wanted;
  return areEqual(fresh) && !HasFailure();
}

TEST_P(Comparison, AnOldDaemonAnswersAsANewOne) {
  const uint64_t steps = setting("STEPS", 12);
  std::string history;
  for (uint64_t step = 1; step <= steps; ++step) {
    seen_.clear();
    answers(*old_);
    known_.insert(seen_.begin(), seen_.end());
    copyState();
    const ChangingDevice::Change change = device_.change();
    history += "  " + std::to_string(step) + ": " + change.description + "\n";
    ASSERT_TRUE(areEqualAfter(change))
        << "ABD_COMPARISON_SEED=" << setting("SEED", 1) << ", device " << GetParam() << ":\n"
        << history;
  }
}

INSTANTIATE_TEST_SUITE_P(Device, Comparison, testing::Range(0, kDevices));

}  // namespace
}  // namespace testsupport
