#pragma once

// A file URL: an absolute file-system path and whether it names a directory. A plain value. Paths are bytes;
// nothing here touches the file system.

#include <string>
#include <string_view>

#pragma GCC visibility push(default)

namespace platform {

class URL {
 public:
  URL() = default;
  /// REQUIRES: `path` is absolute. A trailing "/" is dropped (but for the root) and marks a directory.
  static URL file(std::string_view path, bool isDirectory = false);

  const std::string& path() const { return path_; }
  bool isDirectory() const { return isDirectory_; }

  /// This URL with one more path component (which may itself hold "/"); never leaves a doubled "/".
  URL appending(std::string_view component, bool isDirectory = false) const;
  /// The part of the path after the last "/".
  std::string_view lastComponent() const;
  /// The enclosing directory; the root's is the root.
  URL parent() const;

  /// "file://" and the path, percent-encoded (RFC 3986), with a final "/" for a directory.
  std::string description() const;

  friend bool operator==(const URL& a, const URL& b) { return a.path_ == b.path_; }

 private:
  std::string path_;
  bool isDirectory_ = false;
};

}  // namespace platform

#pragma GCC visibility pop
