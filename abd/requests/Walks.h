#pragma once

// The lists of a request, walked entry by entry in their order. The walk ends at the first entry that fails,
// which it has replied; success is for the handler to reply. Values of one handler.

#include <memory>
#include <optional>
#include <string>

#include "abd/requests/Transaction.h"

namespace abd {

/// marshalPaths:, and processPaths: of those handlers that need no more than success: the entries of "paths".
class Transaction::PathWalk {
 public:
  struct Entry {
    std::string path;  // in its canonical form when it has one
    bool resolved;
  };

  explicit PathWalk(Transaction& transaction);
  /// None at the end, and when the walk has failed.
  std::optional<Entry> next();
  bool hasFailed() const { return hasFailed_; }

 private:
  std::optional<Entry> fail(int64_t code, std::string_view message);

  Transaction& transaction_;
  std::optional<Array> paths_;
  size_t next_ = 0;
  bool hasFailed_ = false;
};

/// processUuidList: the plug-ins of the entries of "uuids".
class Transaction::PlugInWalk {
 public:
  explicit PlugInWalk(Transaction& transaction);
  /// Null at the end, and when the walk has failed.
  std::shared_ptr<ABDPlugIn> next();
  bool hasFailed() const { return hasFailed_; }

 private:
  std::shared_ptr<ABDPlugIn> fail(std::string_view message);

  Transaction& transaction_;
  std::optional<Array> uuids_;
  size_t next_ = 0;
  bool hasFailed_ = false;
};

}  // namespace abd
