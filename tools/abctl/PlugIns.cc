#include "tools/abctl/PlugIns.h"

#include <algorithm>
#include <ctime>
#include <filesystem>
#include <system_error>

#include "Ambrel/ABInfoKeys.h"
#include "Ambrel/ABProtocol.h"

namespace abctl {
namespace {

using ambrel::ABDiscoverAll;
using ambrel::ABDiscoverAllVersions;
using ambrel::ABDiscoverDuplicates;
using platform::Dictionary;
using platform::UUID;
using platform::Value;
namespace formkey = ambrel::formkey;

constexpr uint64_t kEveryOne = ABDiscoverAllVersions | ABDiscoverDuplicates;

/// What hosts are offered, or else what there is at all, when abctl may ask for that.
template <typename Accept>
std::vector<Dictionary> search(Daemon& daemon, const Dictionary& rules, uint64_t flags, Accept accept) {
  const auto accepted = [&](uint64_t allFlags) {
    std::vector<Dictionary> forms = daemon.match(rules, allFlags);
    std::erase_if(forms, [&](const Dictionary& form) { return !accept(form); });
    return forms;
  };
  std::vector<Dictionary> forms = accepted(flags);
  if (!forms.empty()) return forms;
  try {
    return accepted(flags | ABDiscoverAll);
  } catch (const Failure& failure) {
    if (failure.daemonCode != ambrel::kABErrorAccess) throw;
    return {};
  }
}

/// A pattern that matches exactly `text`, whatever operator it seems to begin with.
Value literally(const std::string& text) {
  const bool plain = !text.empty() && text.find_first_of("?<>=") != 0;
  return Value(plain ? text : "=" + text);
}

std::vector<Dictionary> searchFor(Daemon& daemon, const std::string& name) {
  const auto any = [](const Dictionary&) { return true; };
  if (const std::optional<UUID> uuid = UUID::fromString(name))
    return search(daemon, Dictionary{{"com.veltra.uuid", uuid->string()}}, kEveryOne, any);
  if (!isPath(name)) return search(daemon, Dictionary{{"ZQExtensionIdentifier", literally(name)}}, 0, any);
  const std::string path = absolutePath(name);
  return search(daemon, Dictionary(), kEveryOne,
                [&path](const Dictionary& form) { return form[formkey::path].string() == path; });
}

}  // namespace

bool isPath(const std::string& name) {
  return name.find('/') != std::string::npos || name == "." || name == ".." || name.ends_with(".appex");
}

std::string absolutePath(const std::string& path) {
  std::error_code error;
  std::filesystem::path absolute = std::filesystem::weakly_canonical(path, error);
  if (error || !absolute.is_absolute()) absolute = std::filesystem::absolute(path, error).lexically_normal();
  std::string result = absolute.string();
  while (result.size() > 1 && result.ends_with('/')) result.pop_back();
  return result;
}

std::vector<Dictionary> findPlugIns(Daemon& daemon, const std::string& name) {
  std::vector<Dictionary> forms = searchFor(daemon, name);
  if (forms.empty()) {
    throw Failure(kNothingFound, "no plug-in " + (isPath(name) ? "at " + absolutePath(name) : name),
                  isPath(name)
                      ? "register it with `abctl add PATH`, or see abd's log for why it is ignored"
                      : "`abctl match --all-versions` lists what hosts are offered, `abctl match --all` "
                        "everything");
  }
  return forms;
}

bool mayHavePlugIns(Daemon& daemon, const std::string& application) {
  const Dictionary rules = {{"ZQExtensionContainingApp", literally(application)}};
  try {
    return !daemon.match(rules, kEveryOne | ABDiscoverAll).empty();
  } catch (const Failure& failure) {
    if (failure.daemonCode != ambrel::kABErrorAccess) throw;
    return true;
  }
}

std::vector<UUID> findUUIDs(Daemon& daemon, const std::vector<std::string>& names) {
  std::vector<UUID> uuids;
  const auto append = [&uuids](const std::optional<UUID>& uuid) {
    if (uuid && std::find(uuids.begin(), uuids.end(), *uuid) == uuids.end()) uuids.push_back(*uuid);
  };
  for (const std::string& name : names) {
    if (const std::optional<UUID> uuid = UUID::fromString(name)) {
      append(uuid);
      continue;
    }
    for (const Dictionary& form : findPlugIns(daemon, name))
      append(UUID::fromString(form[formkey::uuid].string().value_or("")));
  }
  return uuids;
}

std::string text(const Dictionary& form, const char* key) {
  return std::string(form[key].string().value_or(""));
}

std::string nameOf(const Dictionary& form) {
  return text(form, formkey::localizedDisplayName);
}

std::string applicationOf(const Dictionary& form) {
  const std::string name = text(form, formkey::localizedContainingDisplayName);
  if (!name.empty()) return name;
  return std::filesystem::path(text(form, formkey::containingPath)).filename().string();
}

std::string extensionPointOf(const Dictionary& form) {
  const Value& plugIn = form[formkey::info];
  const auto name = plugIn[ambrel::plugInkey::attributes][ambrel::attributekey::pointName].string();
  return std::string(name ? *name : plugIn[ambrel::plugInkey::pointIdentifier].string().value_or(""));
}

int64_t electionOf(const Dictionary& form) {
  return form[formkey::annotations][ambrel::annotation::election].integerValue();
}

std::string timeText(int64_t secondsSince1970) {
  const std::time_t time = static_cast<std::time_t>(secondsSince1970);
  std::tm parts{};
  if (::localtime_r(&time, &parts) == nullptr) return std::to_string(secondsSince1970);
  char buffer[64];
  std::strftime(buffer, sizeof buffer, "%F %T %Z", &parts);
  return buffer;
}

std::string electionText(int64_t election) {
  switch (election) {
    case ambrel::ABElectionDefault:
      return "-";
    case ambrel::ABElectionUse:
      return "use";
    case ambrel::ABElectionIgnore:
      return "ignore";
    default:
      return std::to_string(election);
  }
}

Style electionStyle(int64_t election) {
  if (election == ambrel::ABElectionUse) return Style::good;
  return election == ambrel::ABElectionIgnore ? Style::bad : Style::faint;
}

std::string plugInTable(const std::vector<Dictionary>& forms, const Screen& screen) {
  const auto orDash = [](std::string value) { return value.empty() ? std::string("-") : value; };
  Table table({"IDENTIFIER", "VERSION", "NAME", "APPLICATION", "EXTENSION POINT", "ELECTION"});
  for (const Dictionary& form : forms) {
    const int64_t election = electionOf(form);
    table.add({text(form, formkey::identifier), orDash(text(form, formkey::version)), orDash(nameOf(form)),
               orDash(applicationOf(form)), orDash(extensionPointOf(form)),
               Table::Cell(electionText(election), electionStyle(election))});
  }
  return table.lines(screen);
}

}  // namespace abctl
