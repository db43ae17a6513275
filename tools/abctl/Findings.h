#pragma once

// What `abctl check` and `abctl doctor` found, for people and for programs. Main thread.

#include <cstddef>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "platform/value/Flaw.h"
#include "platform/value/Value.h"
#include "tools/abctl/SourceLines.h"
#include "tools/abctl/Terminal.h"

namespace abctl {

/// What is found: hint, what is likely not meant; warning, what is passed over or changed; error, what keeps
/// a bundle, a file, a rule or the daemon from being of any use.
enum class Level { hint, warning, error };

struct Finding {
  Level level;
  std::string what;    // is wrong
  std::string effect;  // what happens because of it; may be empty
  std::string mend;    // may be empty
  std::string file = {};
  std::optional<size_t> line = {};
  platform::KeyPath key = {};  // empty: it is about the file
};

class Findings {
 public:
  /// What lies at or in the canonical `path` is shown under `name` from now on.
  void show(const std::string& path, const std::string& name);
  void add(Finding finding);
  /// Takes note that something was checked: a plug-in, an application, an SDK, rules.
  void checked(const std::string& path, const char* kind);

  /// Puts them in the order of files and lines.
  void sort();
  bool hasErrors() const { return count(Level::error) > 0; }
  /// One paragraph for each finding, then a summary.
  void print(const Screen& screen) const;
  platform::Dictionary dictionary() const;

 private:
  std::string shown(const std::string& path) const;
  size_t count(Level level) const;
  struct Checked {
    std::string path;
    const char* kind;
  };
  std::string path_, name_;
  std::vector<Checked> checked_;
  std::vector<Finding> findings_;
  std::set<std::string> known_;  // what each is about: several plug-ins of a bundle may find the same
};

/// What stands at a path in `value`, or none.
platform::Value valueAt(platform::Value value, const platform::KeyPath& path);

/// A file whose contents are being checked: a property list, or rules.
class CheckedFile {
 public:
  enum class Kind { propertyList, propertyListIfThere, propertyListOrJson };
  /// Reads it; adds an error with `effect` when it holds no dictionary.
  CheckedFile(std::string path, Findings& findings, const std::string& effect,
              Kind kind = Kind::propertyList);

  /// What the file says, or null.
  const platform::Dictionary* dictionary() const { return dictionary_ ? &*dictionary_ : nullptr; }
  const std::string& path() const { return path_; }
  /// The value under a path of keys and indexes, or none.
  platform::Value at(const platform::KeyPath& path) const {
    return dictionary_ ? valueAt(*dictionary_, path) : platform::Value();
  }
  /// Adds a finding about `key`.
  void find(Level level, platform::KeyPath key, std::string what, std::string effect, std::string mend) const;

 private:
  const std::string path_;
  Findings& findings_;
  std::optional<platform::Dictionary> dictionary_;
  std::optional<SourceLines> lines_;
};

/// The path for people: keys joined by dots.
std::string keyText(const platform::KeyPath& path);
/// The path with one more key.
platform::KeyPath operator/(platform::KeyPath path, const platform::String& key);

}  // namespace abctl
