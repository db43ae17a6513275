#pragma once

// Property lists in files: XML (format version 1.0) and binary ("bplist00") are read, XML is written. Pure
// functions over bytes and files, usable from any thread. Input is never trusted: declared sizes, nesting,
// cycles and references are checked, and no external entity or document type is ever fetched or expanded.

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <variant>

#include "platform/propertylist/FileReplacement.h"
#include "platform/value/Error.h"
#include "platform/value/Value.h"

#pragma GCC visibility push(default)

namespace platform {

/// Containers inside containers that a file may have; deeper is an error.
inline constexpr int kMaximumFileNesting = 480;
/// Bytes of an ordinary property-list file.
inline constexpr uint64_t kMaximumPropertyListFile = 16ull << 20;
/// Bytes of the annotation file.
inline constexpr uint64_t kMaximumAnnotationFile = 256ull << 20;

/// Either a value or the error that took its place.
template <typename T>
using Result = std::variant<T, Error>;

/// Parses an XML or binary property list, whichever `bytes` is. Errors: domain "File", code kFileReadCorrupt.
/// Strings come back exactly, blank ones included. Of a key that stands twice in one dictionary the last
/// value counts. UIDs and sets of binary lists are errors, and so is a binary list that names its objects so
/// often that what it stands for is larger than any file. `where`: where the offset of what is wrong in an
/// XML list in UTF-8 goes; left alone when there is none.
Result<Value> parsePropertyList(std::string_view bytes, size_t* where = nullptr);

/// Reads a whole regular file of at most `limit` bytes, without ever blocking on a FIFO or a device. Errors:
/// a missing file is domain "File", code kFileReadNoSuchFile; anything else the system's own error in domain
/// "POSIX" (EFBIG when too large, EINVAL when not a regular file). `identity`: where what identified the file
/// before it was read goes; an empty identity when it could not be opened.
Result<std::string> readFile(const std::string& path, uint64_t limit = kMaximumPropertyListFile,
                             FileIdentity* identity = nullptr);

/// readFile() and parsePropertyList().
Result<Value> readPropertyListFile(const std::string& path, uint64_t limit = kMaximumPropertyListFile,
                                   FileIdentity* identity = nullptr);

/// The dictionary that a property-list file holds; none when it cannot be read or holds something else.
std::optional<Dictionary> readDictionaryFile(const std::string& path, FileIdentity* identity = nullptr);

/// Serialises as an XML property list, UTF-8, without a document type. Errors (domain "File", code
/// kPropertyListWriteInvalid): a value that such a file cannot restore exactly (canBeWritten() says which).
Result<std::string> serializePropertyList(const Value& value);

/// Whether an XML property list restores `value` exactly: no none value, UUID or encoded list in it, no
/// string with a character that XML cannot carry, dates that are whole seconds within years 1 to 9999, finite
/// reals, nesting of at most `nesting` containers.
bool canBeWritten(const Value& value, int nesting = kMaximumFileNesting);

/// Where in a container stands what canBeWritten() refuses first: keys and indexes, joined by dots. REQUIRES:
/// `value` cannot be written.
std::string unwritablePart(const Value& value, int nesting = kMaximumFileNesting);

/// `value` with every date in it rounded to the nearest whole second, which is as much as an XML property
/// list can say; the same storage when there is none to round. REQUIRES: nesting that a message can have.
Value withWholeSeconds(const Value& value);

}  // namespace platform

#pragma GCC visibility pop
