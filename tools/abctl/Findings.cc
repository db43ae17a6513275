#include "tools/abctl/Findings.h"

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <cstdio>
#include <map>
#include <tuple>
#include <utility>
#include <variant>

#include "platform/propertylist/PropertyList.h"
#include "platform/system/Directories.h"
#include "tools/abctl/Failure.h"
#include "tools/abctl/Input.h"
#include "tools/abctl/Json.h"

namespace abctl {
namespace {

using platform::Array;
using platform::Dictionary;
using platform::Error;
using platform::KeyPath;
using platform::Value;

constexpr const char* kLevelNames[] = {"hint", "warning", "error"};
constexpr Style kLevelStyles[] = {Style::faint, Style::heading, Style::bad};

const char* nameOf(Level level) {
  return kLevelNames[static_cast<size_t>(level)];
}

std::string counted(size_t count, const std::string& what) {
  const std::string number = std::to_string(count) + " ";
  if (count != 1 && what.ends_with('y')) return number + what.substr(0, what.size() - 1) + "ies";
  return number + what + (count == 1 ? "" : "s");
}

}  // namespace

std::string keyText(const KeyPath& path) {
  std::string text;
  for (const platform::String& key : path) text += (text.empty() ? "" : ".") + std::string(key.view());
  return text;
}

KeyPath operator/(KeyPath path, const platform::String& key) {
  path.push_back(key);
  return path;
}

Value valueAt(Value value, const KeyPath& path) {
  for (const platform::String& key : path) {
    size_t index = SIZE_MAX;  // of a word
    const Array* const array = value.array();
    if (array != nullptr) std::from_chars(key.view().data(), key.view().data() + key.size(), index);
    Value next = array == nullptr ? value[key.view()] : index < array->size() ? (*array)[index] : Value();
    value = std::move(next);
  }
  return value;
}

// --- Findings ---

void Findings::show(const std::string& path, const std::string& name) {
  path_ = path;
  name_ = name;
  while (name_.size() > 1 && name_.ends_with('/')) name_.pop_back();
}

std::string Findings::shown(const std::string& path) const {
  return platform::isInside(path, path_) ? name_ + path.substr(path_.size()) : path;
}

void Findings::add(Finding finding) {
  if (finding.what.starts_with(finding.file + " ")) finding.what.erase(0, finding.file.size() + 1);
  finding.file = shown(finding.file);
  const std::string about = finding.file + '\0' + keyText(finding.key) + '\0' + finding.what;
  if (known_.insert(about).second) findings_.push_back(std::move(finding));
}

void Findings::checked(const std::string& path, const char* kind) {
  checked_.push_back({shown(path), kind});
}

void Findings::sort() {
  std::ranges::stable_sort(findings_, {}, [](const Finding& each) { return std::tie(each.file, each.line); });
}

size_t Findings::count(Level level) const {
  return static_cast<size_t>(std::ranges::count(findings_, level, &Finding::level));
}

void Findings::print(const Screen& screen) const {
  for (const Finding& finding : findings_) {
    const std::string place = finding.file + (finding.line ? ":" + std::to_string(*finding.line) : "");
    const std::string about = finding.key.empty() ? "" : keyText(finding.key) + ": ";
    std::printf(
        "%s: %s: %s\n", safeText(place).c_str(),
        screen.styled(kLevelStyles[static_cast<size_t>(finding.level)], nameOf(finding.level)).c_str(),
        safeText(about + finding.what).c_str());
    if (!finding.effect.empty()) std::printf("    %s\n", safeText(finding.effect).c_str());
    if (!finding.mend.empty()) std::printf("    mend: %s\n", safeText(finding.mend).c_str());
  }
  std::map<std::string, size_t> kinds;
  for (const Checked& each : checked_) kinds[each.kind]++;
  std::string things;
  for (const auto& [kind, number] : kinds) things += (things.empty() ? "" : ", ") + counted(number, kind);
  const std::string summary = counted(count(Level::error), "error") + ", " +
                              counted(count(Level::warning), "warning") + ", " +
                              counted(count(Level::hint), "hint");
  std::printf("checked %s: %s\n", things.empty() ? "nothing" : things.c_str(), summary.c_str());
}

Dictionary Findings::dictionary() const {
  Array findings, checked;
  for (const Finding& finding : findings_) {
    Dictionary entry{{"level", nameOf(finding.level)}, {"file", finding.file}, {"what", finding.what}};
    Array key;
    for (const platform::String& each : finding.key) key.append(each);
    if (!key.empty()) entry.set("key", key);
    if (finding.line) entry.set("line", static_cast<int64_t>(*finding.line));
    if (!finding.effect.empty()) entry.set("effect", finding.effect);
    if (!finding.mend.empty()) entry.set("mend", finding.mend);
    findings.append(std::move(entry));
  }
  for (const Checked& each : checked_) checked.append(Dictionary{{"path", each.path}, {"kind", each.kind}});
  return {{"checked", checked}, {"findings", findings}};
}

// --- CheckedFile ---

CheckedFile::CheckedFile(std::string path, Findings& findings, const std::string& effect, Kind kind)
    : path_(std::move(path)), findings_(findings) {
  const auto fail = [&](const std::string& what, std::optional<size_t> line, const char* mend) {
    findings_.add({Level::error, what, effect, mend, path_, line});
  };
  const auto contents = platform::readFile(path_);
  if (const Error* const error = std::get_if<Error>(&contents)) {
    const bool isMissing = error->code == platform::kFileReadNoSuchFile;
    if (isMissing && kind != Kind::propertyListIfThere) fail("the file is missing", {}, "add it");
    if (!isMissing) fail("cannot be read: " + error->localizedDescription(), {}, "");
    return;
  }
  const std::string& text = std::get<std::string>(contents);
  if (kind == Kind::propertyListOrJson && looksLikeJson(text)) {
    try {
      const Value value = valueOfJson(text, path_);
      if (value.isDictionary()) dictionary_ = *value.dictionary();
    } catch (const Failure& failure) {
      fail(failure.what(), {}, "");
      return;
    }
  } else {
    size_t where = text.size() + 1;
    const auto parsed = platform::parsePropertyList(text, &where);
    if (const Error* const error = std::get_if<Error>(&parsed)) {
      const auto line = where <= text.size() ? std::optional(SourceLines::lineAt(text, where)) : std::nullopt;
      fail(error->localizedDescription(), line, "write a property list, XML or binary");
      return;
    }
    if (const Dictionary* const read = std::get<Value>(parsed).dictionary()) dictionary_ = *read;
  }
  lines_.emplace(text);
  if (!dictionary_) fail("holds no dictionary", {}, "make the outermost element a dictionary");
  for (const KeyPath& key : lines_->repeated())
    find(Level::warning, key, "the key stands twice in one dictionary", "the last value counts",
         "remove one of them");
}

void CheckedFile::find(Level level, KeyPath key, std::string what, std::string effect,
                       std::string mend) const {
  const auto line = lines_ ? lines_->lineOf(key) : std::nullopt;
  findings_.add({level, std::move(what), std::move(effect), std::move(mend), path_, line, std::move(key)});
}

}  // namespace abctl
