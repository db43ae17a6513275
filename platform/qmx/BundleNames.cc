#include "platform/qmx/BundleNames.h"

#include <unistd.h>

#include <algorithm>
#include <cstdlib>

#include "platform/system/Directories.h"

namespace platform::qmx {

namespace {

constexpr const char* kDisplayName = "BWBundleDisplayName";
constexpr const char* kShortName = "BWBundleName";

/// The file names, without suffix, under which the user's language may be found, the closest first:
/// "de_DE.UTF-8" gives de_DE, de-DE and de.
std::vector<std::string> readLanguageNames() {
  std::string language;
  for (const char* variable : {"LC_ALL", "LC_MESSAGES", "LANG"}) {
    const char* value = std::getenv(variable);
    if (value == nullptr || *value == '\0') continue;
    language = value;
    break;
  }
  language.resize(std::min(language.find_first_of(".@"), language.size()));
  if (language == "C" || language == "POSIX" || !isSafeFileName(language)) return {};
  std::vector<std::string> names{language};
  const size_t territory = language.find('_');
  if (territory != std::string::npos) {
    language[territory] = '-';
    names.push_back(language);
    names.push_back(language.substr(0, territory));
  }
  return names;
}

const std::vector<std::string>& languageNames() {
  static const auto& names = *new std::vector<std::string>(readLanguageNames());
  return names;
}

std::string localizationFile(const std::string& path, const std::string& language) {
  return path + "/Localizations/" + language + ".plist";
}

void override(std::optional<String>& name, const Value& word) {
  if (const String* text = word.sharedString()) name = *text;
}

}  // namespace

BundleNames BundleNames::of(const Dictionary& info) {
  BundleNames names;
  override(names.display, info[kDisplayName]);
  override(names.brief, info[kShortName]);
  return names;
}

bool hasLanguage() {
  return !languageNames().empty();
}

LocalizationFiles localizationFiles(const std::string& path) {
  // Most bundles have none: one question instead of one for each name.
  if (!hasLanguage() || access((path + "/Localizations").c_str(), F_OK) != 0) return {};
  LocalizationFiles files;
  for (const std::string& language : languageNames())
    files.push_back(FileIdentity::ofFile(localizationFile(path, language)).value_or(FileIdentity()));
  if (std::ranges::all_of(files, [](const FileIdentity& file) { return file == FileIdentity(); })) return {};
  return files;
}

Result<Dictionary> readLocalization(const std::string& file) {
  const Result<Value> words = readPropertyListFile(file);
  if (const Error* error = std::get_if<Error>(&words)) return *error;
  if (const Dictionary* dictionary = std::get<Value>(words).dictionary()) return *dictionary;
  return Error{std::string(kFileErrorDomain), kFileReadCorrupt, file + " holds no dictionary"};
}

BundleNames localizedBundleNames(const std::string& path, const BundleNames& own,
                                 const LocalizationFiles& files) {
  BundleNames names = own;
  for (size_t i = 0; i < files.size(); i++) {
    if (files[i] == FileIdentity()) continue;
    if (!files[i].isSettled()) names.isCertain = false;
    const Result<Dictionary> words = readLocalization(localizationFile(path, languageNames()[i]));
    if (const Error* error = std::get_if<Error>(&words)) {
      if (error->domain == kPOSIXErrorDomain) names.isCertain = false;
      continue;
    }
    const Dictionary& dictionary = std::get<Dictionary>(words);
    override(names.display, dictionary[kDisplayName]);
    override(names.brief, dictionary[kShortName]);
    break;
  }
  if (!names.display) names.display = names.brief;
  return names;
}

}  // namespace platform::qmx
