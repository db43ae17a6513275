#pragma once

// What clients have said about plug-ins, kept across restarts: a table from annotation key to annotation
// record (a dictionary with "election" and "extension"), held in memory and written to one XML property-list
// file after every change. Made once with the database, which is its only caller; it has no lock: the
// database orders the calls. The file is read once, when the store is made.

#include <cstddef>
#include <optional>
#include <string>
#include <variant>

#include "platform/value/Date.h"
#include "platform/value/Error.h"
#include "platform/value/URL.h"
#include "platform/value/Value.h"

namespace abd {

using namespace platform;

class ABDPlugIn;

class ABDAnnotationStore {
 public:
  /// The only file version that is read or written.
  static constexpr int32_t kFileVersion = 16;

  /// initWithDatabase: loads the file at `path` (a relative one is resolved now), or at the default location.
  /// A file that cannot be loaded is logged, left as it is until the first change, and the table starts
  /// empty.
  explicit ABDAnnotationStore(const std::optional<std::string>& path);

  /// The default file, "com.veltra.ambrel/Annotations" in the per-user directory; makes its directory. Raises
  /// InternalInconsistency when there is no place for it.
  static URL defaultDatabaseURL();
  /// Its path; "" when there is no place for it. Makes nothing.
  static std::string defaultPath();
  /// The table in the file at `path`, or why loadDb() would not take it.
  static std::variant<Dictionary, Error> readTable(const std::string& path);

  const URL& annotationsURL() const { return annotationsURL_; }
  /// Annotation key to annotation record.
  const Dictionary& annotations() const { return annotations_; }

  struct Condition {
    size_t records = 0, bytes = 0;    // of the table, and of it as a file
    std::optional<Date> saved = {};   // when the file was written last, by this process
    std::optional<Error> error = {};  // why the last attempt to load or to save it failed
  };
  Condition condition() const { return {annotations_.size(), size_, saved_, error_}; }

  /// Replaces the table by the file's; the error when that fails.
  std::optional<Error> loadDb();
  /// Replaces the file by the table, durably; the error when that fails. Records that no property-list file
  /// can hold are left out, with an error, while all others are saved. A file that could not be loaded is
  /// kept under another name.
  std::optional<Error> saveDb();

  /// The record under `key` (a dictionary), or a none value.
  const Value& annotationForIdentifier(std::string_view key) const;
  const Value& annotationForPlugIn(const ABDPlugIn& plugIn) const;
  /// Bytes of `value` as an XML property list; SIZE_MAX when it cannot be written.
  static size_t writtenSize(const Value& value);
  /// Whether a record of that many bytes, written, may be kept of the plug-in. Every save writes the whole
  /// file, and nobody else has a turn meanwhile: once that has kMaximumBytes, records may only shrink.
  bool hasRoomFor(size_t bytes, const ABDPlugIn& plugIn) const;
  static constexpr size_t kMaximumBytes = 2u << 20;
  /// Bytes of one record in the form of a file: nobody's record fills the file for the others.
  static constexpr size_t kMaximumRecord = 256u << 10;
  /// Merges `annotation` into the plug-in's record (none removes the record), then saves. A failed save is
  /// logged; the change is kept in memory and written with the next one.
  void setAnnotation(const std::optional<Dictionary>& annotation, const ABDPlugIn& plugIn);

 private:
  URL annotationsURL_;
  Dictionary annotations_;
  size_t size_ = 0;            // of the table as a file
  std::optional<Date> saved_;  // as in Condition
  std::optional<Error> error_;
  bool isFileRejected_ = false;  // what is at annotationsURL_ is not what was loaded
};

}  // namespace abd
