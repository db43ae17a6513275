#pragma once

// The platform's bundle object: a directory with an "Info.plist", flat. Answers questions about a bundle by
// property number. Immutable; any thread.

#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "platform/value/Value.h"

#pragma GCC visibility push(default)

namespace platform::qmx {

class Bundle {
 public:
  /// How a path is read.
  enum Mode { directory = 1, executable = 2 };
  enum Property { bundlePath = 2, executablePathProperty = 3, supportPathProperty = 9 };

  /// Mode `directory`: `path` names a bundle directory; null when it is no directory. Mode `executable`: the
  /// bundle is the innermost enclosing directory with an Info.plist and the suffix ".app" or ".appex"; when
  /// there is none the result has no properties at all.
  static std::shared_ptr<const Bundle> create(const std::string& path, Mode mode);
  /// The bundle of the running process.
  static std::shared_ptr<const Bundle> mainBundle();

  /// The property as a string, or none. The executable is "BWBundleExecutable" in canonical form, whether it
  /// exists or not, and none when it leads out of the bundle.
  std::optional<std::string> property(int number) const;
  /// Property `executablePathProperty`; when there is none, `refusal` says why.
  std::optional<std::string> executablePath(const char** refusal = nullptr) const;
  /// The Info dictionary as it is on disk now; none when it cannot be read. Unchanged files are not parsed
  /// again.
  std::optional<Dictionary> infoDictionary() const;
  /// Drops what is cached for this bundle, so that the next question sees the disk.
  void flush() const;
  const std::string& path() const { return path_; }
  std::string description() const;

  /// The same for the bundle at `path`, which is canonical, without asking what is there first.
  static std::optional<Dictionary> infoDictionaryAt(std::string_view path);

  /// Drops every parsed Info dictionary of the process.
  static void clearCaches();

 private:
  Bundle() = default;
  std::string path_;
  bool isRecognised_ = false;
};

}  // namespace platform::qmx

#pragma GCC visibility pop
