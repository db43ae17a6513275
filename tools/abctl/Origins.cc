#include "tools/abctl/Origins.h"

#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

#include "tools/abctl/Findings.h"
#include "tools/abctl/Json.h"

namespace abctl {
namespace {

using platform::Array;
using platform::Dictionary;
using platform::KeyPath;
using platform::Value;
using Change = ambrel::ABRecordTrace::Change;
using Step = ambrel::ABRecordTrace::Step;

/// One key that holds no further keys.
struct Origin {
  KeyPath key;
  Value value;
  const Change* change;  // what put it there; null: it is the plug-in's own
};

/// The last change of the key, or of what it stands in.
const Change* changeOf(const KeyPath& key, const std::vector<Change>& changes) {
  const auto put = [&key](const Change& change) {
    return change.step != Step::hidesSDK && change.path.size() <= key.size() &&
           std::equal(change.path.begin(), change.path.end(), key.begin());
  };
  const auto found = std::find_if(changes.rbegin(), changes.rend(), put);
  return found != changes.rend() ? &*found : nullptr;
}

void collect(const KeyPath& path, const Value& value, const std::vector<Change>& changes,
             std::vector<Origin>& origins) {
  const Dictionary* const dictionary = value.dictionary();
  if (dictionary == nullptr || dictionary->empty()) {
    origins.push_back({path, value, changeOf(path, changes)});
    return;
  }
  for (const auto& entry : *dictionary) collect(path / entry.key, entry.value, changes, origins);
}

std::vector<Origin> originsOf(const Trial::PlugIn& plugIn) {
  std::vector<Origin> origins;
  collect({}, plugIn.record->bundleInfoDictionary(), plugIn.trace.changes, origins);
  return origins;
}

std::string sourceOf(const Origin& origin) {
  if (origin.change == nullptr) return "plug-in";
  switch (origin.change->step) {
    case Step::sdkDefault:
      return "SDK's default";
    case Step::sdkDecision:
      return "SDK's last word";
    case Step::united:
      return "plug-in and SDK";
    default:
      return "canonicalization";
  }
}

/// Which files a key's value was read from; none for one that was set.
Array filesOf(const Origin& origin, const std::string& own, const std::string& sdk) {
  if (origin.change == nullptr) return {own};
  if (origin.change->step == Step::canonical) return {};
  return origin.change->step == Step::united ? Array{own, sdk} : Array{sdk};
}

std::string textOf(const Value& value) {
  return value.isString() ? std::string(*value.string()) : jsonText(value, false);
}

}  // namespace

void printOrigins(const Screen& screen, const Trial::PlugIn& plugIn) {
  std::printf("%s\n", screen.styled(Style::heading, safeText(plugIn.identifier)).c_str());
  std::printf("plug-in: %s\n", safeText(plugIn.record->path() + "/Info.plist").c_str());
  if (const std::string sdk = sdkFile(*plugIn.record); !sdk.empty())
    std::printf("SDK:     %s\n", safeText(sdk).c_str());
  Table table({"KEY", "VALUE", "FROM"});
  for (const Origin& origin : originsOf(plugIn)) {
    const bool isInstead = origin.change != nullptr && !origin.change->other.isNone();
    table.add({keyText(origin.key), textOf(origin.value),
               sourceOf(origin) + (isInstead ? ", not " + textOf(origin.change->other) : "")});
  }
  std::printf("%s", table.lines(screen).c_str());
}

Dictionary dictionaryOfOrigins(const Trial::PlugIn& plugIn) {
  const std::string own = plugIn.record->path() + "/Info.plist", sdk = sdkFile(*plugIn.record);
  Array keys;
  for (const Origin& origin : originsOf(plugIn)) {
    Array path;
    for (const platform::String& key : origin.key) path.append(key);
    Dictionary entry{{"key", path},
                     {"value", origin.value},
                     {"from", sourceOf(origin)},
                     {"files", filesOf(origin, own, sdk)}};
    if (origin.change != nullptr && !origin.change->other.isNone())
      entry.set("instead", origin.change->other);
    keys.append(std::move(entry));
  }
  return {{"identifier", plugIn.identifier}, {"path", plugIn.record->path()}, {"keys", keys}};
}

}  // namespace abctl
