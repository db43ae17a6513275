#pragma once

// What the making of one record decided, for those who want to know; who does not hands over no trace, and
// nothing is spent on it. Key paths are those of the bundle's Info dictionary. Used by one thread.

#include <string>
#include <utility>
#include <vector>

#include "platform/value/Flaw.h"

namespace ambrel {

using namespace platform;

struct ABRecordTrace {
  enum class Step : uint8_t {
    sdkDefault,   // the plug-in says nothing: the SDK's value
    sdkDecision,  // the SDK's value in place of the plug-in's
    united,       // of both lists
    hidesSDK,     // the plug-in's value stands, and another one of the SDK's does not
    canonical,    // set by canonicalization
  };
  struct Change {
    KeyPath path;
    Step step;
    Value other;  // what this did away with; a none value when there was nothing
  };

  /// In the order in which they were made; later ones count.
  std::vector<Change> changes;
  /// Why there is no record; or, where there is one, what in it is passed over.
  std::vector<Flaw> flaws;

  /// Where `changes` are being made.
  KeyPath place;
  void change(const String& key, Step step, Value other) {
    changes.push_back({at(key), step, std::move(other)});
  }
  void flaw(KeyPath path, std::string reason) { flaws.push_back({std::move(path), std::move(reason)}); }

 private:
  KeyPath at(const String& key) const {
    KeyPath path = place;
    path.push_back(key);
    return path;
  }
};

}  // namespace ambrel
