#pragma once

// How an abctl command ends other than by success: an exit code, what went wrong, and what to do next. Thrown
// by value from anywhere inside a command and printed once, by main(). Main thread.

#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>

#include "platform/value/Value.h"

namespace abctl {

enum ExitCode : int {
  kSuccess = 0,
  kNothingFound = 1,
  kFoundErrors = 1,
  kUsage = 2,
  kUnreachable = 4,
  kRefused = 5,
};

struct Failure : std::runtime_error {
  Failure(ExitCode exitCode, const std::string& message, std::string next = {})
      : std::runtime_error(message), code(exitCode), hint(std::move(next)) {}

  ExitCode code;
  /// What the user can do about it; may be empty.
  std::string hint;
  /// The daemon's own code, when the daemon said it.
  std::optional<int64_t> daemonCode;
  /// More for programs, printed with --json.
  platform::Dictionary details;
};

/// The user ended the command (Ctrl-C) while it waited for an answer.
struct Stopped : Failure {
  Stopped() : Failure(kUnreachable, "stopped before the daemon answered") {}
};

}  // namespace abctl
