#include "tools/abctl/Vocabulary.h"

#include <algorithm>
#include <cctype>
#include <cstdint>
#include <iterator>

#include "Ambrel/ABInfoKeys.h"
#include "Ambrel/ABProtocol.h"

namespace abctl {
namespace {

using namespace ambrel;  // the keys

enum Kinds : unsigned { any = 0, string = 1, number = 2, dictionary = 4, strings = 8 };

struct KnownKey {
  Place place;
  std::string_view key;
  unsigned kinds;  // any: it does not matter, or the daemon's own checks say so
  const char* effect = "";
};

constexpr const char* kPassedOver = "the value is passed over";
constexpr const char* kNotAVersion = "no rule about versions holds for the plug-in";

constexpr KnownKey kKnownKeys[] = {
    {Place::info, bundlekey::plugIn, any},
    {Place::info, bundlekey::oldStyle, any},
    {Place::info, bundlekey::identifier, string, kPassedOver},
    {Place::info, bundlekey::version, string, "launch registrations carry an empty version"},
    {Place::info, bundlekey::shortVersion, string, kNotAVersion},
    {Place::info, bundlekey::infoPlistURL, any},
    {Place::info, bundlekey::packageType, any},
    {Place::info, bundlekey::service, dictionary, "the plug-in is launched without a service description"},
    {Place::info, "BWBundleExecutable", any},
    {Place::info, "BWBundleDisplayName", string, kPassedOver},
    {Place::info, "BWBundleName", string, kPassedOver},
    {Place::info, attributekey::pointName, strings, "hosts do not find the plug-in by it"},

    {Place::section, plugInkey::pointIdentifier, any},
    {Place::section, "ZQExtensionIdentifier", string, "the bundle's identifier counts instead"},
    {Place::section, plugInkey::attributes, any},
    {Place::section, plugInkey::protocol, any},
    {Place::section, plugInkey::principalClass, any},
    {Place::section, plugInkey::shared, strings, "hosts may read nothing of it"},
    {Place::section, plugInkey::cleanTimeout, any},
    {Place::section, plugInkey::embeddedCode, any},
    {Place::section, plugInkey::embeddedProtocol, any},
    {Place::section, plugInkey::passProxy, any},
    {Place::section, plugInkey::dedicated, number | string,
     "it counts as false: every host is offered the plug-in"},
    {Place::section, plugInkey::hostEntitlement, string,
     "no host has such an entitlement: none may use the plug-in"},
    {Place::section, topkey::multiple, any},
    {Place::section, topkey::hubProtocolVersion, number, "it counts as version 0"},

    {Place::attributes, attributekey::version, string, kNotAVersion},
    {Place::attributes, attributekey::format, any},
    {Place::attributes, attributekey::pointName, strings, "hosts do not find the plug-in by it"},
    {Place::attributes, attributekey::requestsOpenAccess, number, "it counts as false"},
    {Place::attributes, "ZQExtensionActivationRule", any},

    {Place::service, "EnvironmentVariables", dictionary, kPassedOver},

    {Place::entitlements, entitlement::manager, any},
    {Place::entitlements, entitlement::allowedPlugIns, dictionary, "the host may use no plug-in at all"},
    {Place::entitlements, entitlement::replacePlugIn, strings, "the plug-in replaces none"},
    {Place::entitlements, entitlement::autoElectPlugIn, any},

    {Place::rules, "ZQExtensionIdentifier", any},
    {Place::rules, "ZQExtensionContainingApp", any},
    {Place::rules, "ZQUserElection", any},
    {Place::rules, "com.veltra.uuid", any},
    {Place::rules, attributekey::version, any},
    {Place::rules, attributekey::pointName, any},
    {Place::rules, "ZQExtensionActivationRule", any},
    {Place::rules, bundlekey::identifier, any},
    {Place::rules, bundlekey::version, any},
    {Place::rules, bundlekey::shortVersion, any},

    {Place::words, "BWBundleDisplayName", string, kPassedOver},
    {Place::words, "BWBundleName", string, kPassedOver},
};

/// Where a key of that place stands.
constexpr const char* kPlaceNames[] = {"the top level of Info.plist",
                                       "ZQExtension",
                                       "ZQExtensionAttributes",
                                       "QMXService",
                                       "entitlements",
                                       "rules",
                                       "localizations"};

bool isOfKind(const platform::Value& value, unsigned kinds) {
  if (kinds == any) return true;
  const platform::Array* const array = value.array();
  return ((kinds & (string | strings)) != 0 && value.isString()) ||
         ((kinds & number) != 0 && value.isNumber()) || ((kinds & dictionary) != 0 && value.isDictionary()) ||
         ((kinds & strings) != 0 && array != nullptr &&
          std::ranges::all_of(*array, &platform::Value::isString));
}

std::string nameOfKinds(unsigned kinds) {
  if ((kinds & strings) != 0) return "a string, or an array of strings";
  if ((kinds & string) != 0) return (kinds & number) != 0 ? "a boolean" : "a string";
  return (kinds & number) != 0 ? "a number or a boolean" : "a dictionary";
}

std::string lowered(std::string_view text) {
  std::string result(text);
  for (char& each : result) each = static_cast<char>(std::tolower(static_cast<unsigned char>(each)));
  return result;
}

/// Letters to be inserted, removed, changed, or swapped with a neighbour.
size_t distance(std::string_view a, std::string_view b) {
  std::vector<std::vector<size_t>> table(a.size() + 1, std::vector<size_t>(b.size() + 1));
  for (size_t i = 0; i <= a.size(); ++i) {
    for (size_t j = 0; j <= b.size(); ++j) {
      if (i == 0 || j == 0) {
        table[i][j] = i + j;
        continue;
      }
      const size_t change = table[i - 1][j - 1] + (a[i - 1] == b[j - 1] ? 0 : 1);
      table[i][j] = std::min({table[i - 1][j] + 1, table[i][j - 1] + 1, change});
      if (i > 1 && j > 1 && a[i - 1] == b[j - 2] && a[i - 2] == b[j - 1])
        table[i][j] = std::min(table[i][j], table[i - 2][j - 2] + 1);
    }
  }
  return table[a.size()][b.size()];
}

const KnownKey* known(Place place, std::string_view key) {
  const auto* const found = std::ranges::find_if(
      kKnownKeys, [&](const KnownKey& each) { return each.place == place && each.key == key; });
  return found != std::end(kKnownKeys) ? found : nullptr;
}

/// Where else in a bundle's Info dictionary the key is read, or null.
const KnownKey* knownElsewhere(Place place, std::string_view key) {
  for (const Place other : {Place::info, Place::section, Place::attributes})
    if (const KnownKey* const found = known(other, key); found != nullptr && other != place) return found;
  return nullptr;
}

void checkUnknownKey(const CheckedFile& file, const platform::KeyPath& path, Place place,
                     const std::set<std::string>& custom) {
  const std::string_view key = path.back().view();
  std::vector<std::string> names(custom.begin(), custom.end());
  for (const std::string_view each : knownKeys(place)) names.emplace_back(each);
  if (const std::string meant = likelyMeant(key, names); !meant.empty()) {
    file.find(Level::warning, path, "did you mean \"" + meant + "\"?",
              "nothing reads the key as it is written", "rename it to \"" + meant + "\"");
    return;
  }
  if (place == Place::service || place == Place::entitlements || place == Place::words) return;
  if (const KnownKey* const elsewhere = knownElsewhere(place, key)) {
    const std::string right = kPlaceNames[static_cast<size_t>(elsewhere->place)];
    if (place == Place::rules) {
      file.find(Level::warning, path, "rules look in the attributes and at the top level of Info.plist",
                "a plug-in has this key in " + right + ", where no rule finds it",
                "ask for an attribute, like ZQExtensionPointName");
    } else {
      file.find(Level::warning, path, "the key is out of place", "it is read in " + right + " only",
                "move it to " + right);
    }
  }
}

}  // namespace

std::vector<std::string_view> knownKeys(Place place) {
  std::vector<std::string_view> keys;
  for (const KnownKey& each : kKnownKeys)
    if (each.place == place) keys.push_back(each.key);
  return keys;
}

std::string likelyMeant(std::string_view name, const std::vector<std::string>& names) {
  constexpr size_t kShort = 8;  // shorter names are too near to one another
  const std::string small = lowered(name);
  std::string best;
  size_t least = name.size() < kShort ? 2 : 3;  // fewer than that
  for (const std::string& each : names) {
    const size_t differences = distance(small, lowered(each));
    if (each != name && differences < least) {
      least = differences;
      best = each;
    }
  }
  return best;
}

void checkKeys(const CheckedFile& file, const platform::KeyPath& path, Place place,
               const std::set<std::string>& custom) {
  const platform::Value value = file.at(path);
  const platform::Dictionary* const all = value.dictionary();
  if (all == nullptr) return;
  for (const auto& [key, each] : *all) {
    const KnownKey* const expected = known(place, key.view());
    if (expected == nullptr) {
      if (!custom.contains(std::string(key.view()))) checkUnknownKey(file, path / key, place, custom);
    } else if (!isOfKind(each, expected->kinds)) {
      const std::string kinds = nameOfKinds(expected->kinds);
      file.find(Level::warning, path / key, "the value is not " + kinds, expected->effect, "write " + kinds);
    }
  }
}

}  // namespace abctl
