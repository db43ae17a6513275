#pragma once

// What was looked at while it was decided whether a host is offered a plug-in, test by test, and what would
// change the outcome. Deciding functions take a pointer to one, which is null when only the decision is
// wanted: then nothing is noted, and the first test that fails ends it. A value of one request.

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Ambrel/ABDiagnostics.h"
#include "platform/value/Value.h"

namespace abd {

using namespace platform;
using namespace ambrel;

class Explanation {
 public:
  /// A test that passed; `details` are what it looked at, by finding keys.
  void pass(std::string_view stage, std::string text, Dictionary details = {});
  /// A test that failed, and the one change after which it would pass; empty when there is none. One about
  /// the same key as an earlier failure has the same cause.
  void fail(std::string_view stage, std::string text, std::string change, Dictionary details = {});

  bool isEmpty() const { return findings_.empty(); }
  /// Whether anything was noted about a test.
  bool has(std::string_view stage) const;
  bool hasFailed() const { return failures_ != 0; }
  /// The search has found the plug-in.
  void setOffered() { isOffered_ = true; }
  bool isOffered() const { return isOffered_; }
  /// The change that all depends on: of the only test that failed; none when there are more, or not all tests
  /// were made.
  std::optional<std::string> change() const;
  /// Why `plugIn` is, or is not, offered to `host`, in one sentence.
  std::string summary(const std::string& plugIn, const std::string& host) const;
  /// Array of findings, in the order of the tests.
  Array findings() const;

 private:
  struct Finding {
    std::string_view stage;  // one of the constants
    bool passed;
    std::string text, change;
    Dictionary details;
  };
  std::vector<Finding> findings_;
  size_t failures_ = 0;
  bool isOffered_ = false;
};

}  // namespace abd
