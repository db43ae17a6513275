#pragma once

// A bundle on disk: its path, Info dictionary, executable and directories. Wraps what the platform answered;
// when it knew no bundle, every question answers none. Immutable but for the support path, which is kept
// when it was first found; any thread.

#include <atomic>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

#include "platform/qmx/Bundle.h"
#include "platform/value/URL.h"
#include "platform/value/Value.h"

#pragma GCC visibility push(default)

namespace ambrel {

using namespace platform;

class ABBundle {
 public:
  /// The bundle of the running process.
  static std::shared_ptr<ABBundle> initForMainBundle();
  static std::shared_ptr<ABBundle> initWithURL(const URL& url) { return initWithPath(url.path()); }
  /// `path` names a bundle directory.
  static std::shared_ptr<ABBundle> initWithPath(const std::string& path);
  static std::shared_ptr<ABBundle> initWithExecutableURL(const URL& url) {
    return initWithExecutablePath(url.path());
  }
  /// The bundle that contains the executable at `path`; when there is none, `path` taken as a directory.
  static std::shared_ptr<ABBundle> initWithExecutablePath(const std::string& path);
  static std::shared_ptr<ABBundle> initWithQMXBundle(std::shared_ptr<const qmx::Bundle> bundle);

  ABBundle(const ABBundle&) = delete;
  ABBundle& operator=(const ABBundle&) = delete;

  std::optional<std::string> stringProperty(int number) const;
  std::optional<Dictionary> infoDictionary() const;
  std::optional<String> bundleIdentifier() const;
  std::optional<URL> url() const;
  std::optional<std::string> path() const;
  std::optional<std::string> supportPath() const;
  /// The support path with `name` appended.
  std::optional<std::string> bundleDirectory(std::string_view name) const;
  /// The executable's path; a bundle without an executable answers its own, and `refusal` says why it has
  /// none.
  std::optional<std::string> executablePath(const char** refusal = nullptr) const;
  std::optional<std::string> plugInsPath() const { return bundleDirectory("PlugIns"); }

 private:
  explicit ABBundle(std::shared_ptr<const qmx::Bundle> bundle) : bundle_(std::move(bundle)) {}

  const std::shared_ptr<const qmx::Bundle> bundle_;
  mutable std::mutex mutex_;
  mutable std::optional<std::string> supportPath_;  // under mutex_
};

}  // namespace ambrel

#pragma GCC visibility pop
