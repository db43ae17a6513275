#include "abd/database/ABDAnnotationStore.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <utility>

#include "Ambrel/ABErrors.h"
#include "abd/ABDTrace.h"
#include "abd/plugin/ABDPlugIn.h"
#include "platform/log/Failure.h"
#include "platform/log/Log.h"
#include "platform/propertylist/FileReplacement.h"
#include "platform/propertylist/PropertyList.h"
#include "platform/system/Directories.h"

namespace abd {

namespace {

constexpr const char* kVersionKey = "version";
constexpr const char* kDataKey = "data";

/// A relative path means the directory that the daemon was started in, whatever becomes of it later.
URL annotationFile(const std::string& path) {
  if (path.starts_with('/')) return URL::file(path);
  char directory[PATH_MAX];
  if (getcwd(directory, sizeof directory) == nullptr) return URL::file("/" + path);
  return URL::file(directory, true).appending(path);
}

/// Of a string the number that its leading digits write.
int64_t versionNumber(const Value& version) {
  const auto text = version.string();
  if (!text) return version.integerValue();
  int64_t number = 0;
  for (const char c : *text) {
    if (c < '0' || c > '9') break;
    number = std::min<int64_t>(number * 10 + (c - '0'), INT32_MAX);
  }
  return number;
}

Error malformedFile(const char* what) {
  return Error{.domain = std::string(kFileErrorDomain), .code = kFileReadCorrupt, .text = what};
}

Result<Dictionary> tableOfFile(const Value& file) {
  const Dictionary* top = file.dictionary();
  if (top == nullptr) return malformedFile("the file does not hold a dictionary");
  const int64_t version = versionNumber((*top)[kVersionKey]);
  if (version != ABDAnnotationStore::kFileVersion)
    return ABErrorWithFormat(kABErrorVersion, "found database version %d needed version %d", version,
                             ABDAnnotationStore::kFileVersion);
  const Dictionary* table = (*top)[kDataKey].dictionary();
  if (table == nullptr) return malformedFile("\"data\" is not a dictionary");
  return *table;
}

Result<std::string> serializedTable(const Dictionary& table) {
  return serializePropertyList(
      Dictionary{{kVersionKey, ABDAnnotationStore::kFileVersion}, {kDataKey, table}});
}

/// `table` without the records that no file can hold.
Dictionary writableRecords(const Dictionary& table) {
  constexpr int kContainersAround = 2;
  Dictionary writable;
  for (const auto& [key, record] : table)
    if (canBeWritten(key) && canBeWritten(record, kMaximumFileNesting - kContainersAround))
      writable.set(key, record);
  return writable;
}

}  // namespace

ABDAnnotationStore::ABDAnnotationStore(const std::optional<std::string>& path)
    : annotationsURL_(path ? annotationFile(*path) : defaultDatabaseURL()) {
  sweepTemporaryFiles(annotationsURL_.path());
  const auto error = loadDb();
  if (!error) return;
  annotations_ = Dictionary();
  if (error->code == kFileReadNoSuchFile) return;
  systemLog("unable to load annotation database:%@ error:%@ (resetting)", annotationsURL_, *error);
  error_ = error;
}

std::string ABDAnnotationStore::defaultPath() {
  const std::string& state = Directories::shared().state;
  return state.empty() ? std::string() : state + "/com.veltra.ambrel/Annotations";
}

URL ABDAnnotationStore::defaultDatabaseURL() {
  const std::string path = defaultPath();
  if (path.empty()) raiseInternalInconsistency("unable to locate user directory: errno %d", ENOENT);
  const URL directory = URL::file(path.substr(0, path.rfind('/')), true);
  if (const int number = makeDirectories(directory.path(), 0700); number != 0)
    raiseInternalInconsistency("unable to create plugin annotations directory:%@ error:%@", directory,
                               Error::posix(number));
  return URL::file(path);
}

Result<Dictionary> ABDAnnotationStore::readTable(const std::string& path) {
  auto file = readPropertyListFile(path, kMaximumAnnotationFile);
  if (auto* error = std::get_if<Error>(&file)) return std::move(*error);
  return tableOfFile(std::get<Value>(file));
}

std::optional<Error> ABDAnnotationStore::loadDb() {
  auto table = readTable(annotationsURL_.path());
  if (auto* error = std::get_if<Error>(&table)) {
    isFileRejected_ = error->code != kFileReadNoSuchFile;
    trace::dbLoad(error->domain, static_cast<uint64_t>(error->code));
    return std::move(*error);
  }
  isFileRejected_ = false;
  annotations_ = std::move(std::get<Dictionary>(table));
  size_ = FileIdentity::ofFile(annotationsURL_.path()).value_or(FileIdentity()).size;
  return std::nullopt;
}

std::optional<Error> ABDAnnotationStore::saveDb() {
  auto bytes = serializedTable(annotations_);
  std::optional<Error> refusal;
  if (auto* error = std::get_if<Error>(&bytes)) {
    // The identifier of one strange plug-in must not keep the elections of all others from being saved.
    refusal = std::move(*error);
    bytes = serializedTable(writableRecords(annotations_));
    if (auto* again = std::get_if<Error>(&bytes)) return std::move(*again);
  }
  const std::string& file = std::get<std::string>(bytes);
  size_ = file.size();
  // The next start would not read it.
  if (file.size() > kMaximumAnnotationFile) return Error::posix(EFBIG, annotationsURL_.path());
  if (isFileRejected_) {
    const auto aside = keepAside(annotationsURL_.path());
    if (const std::string* name = std::get_if<std::string>(&aside))
      systemLog("the annotation database that could not be loaded was kept as %@", *name);
    else if (const Error& error = std::get<Error>(aside); error.code != ENOENT)
      return error;
    isFileRejected_ = false;
  }
  if (auto error = replaceFile(annotationsURL_.path(), file)) return error;
  return refusal;
}

const Value& ABDAnnotationStore::annotationForIdentifier(std::string_view key) const {
  const Value& record = annotations_[key];
  return record.isDictionary() ? record : kNone;
}

const Value& ABDAnnotationStore::annotationForPlugIn(const ABDPlugIn& plugIn) const {
  return annotationForIdentifier(plugIn.annotationKey());
}

size_t ABDAnnotationStore::writtenSize(const Value& value) {
  const auto written = serializePropertyList(value);
  const auto* bytes = std::get_if<std::string>(&written);
  return bytes != nullptr ? bytes->size() : SIZE_MAX;
}

bool ABDAnnotationStore::hasRoomFor(size_t bytes, const ABDPlugIn& plugIn) const {
  if (size_ + bytes <= kMaximumBytes) return true;
  const Value& stored = annotationForPlugIn(plugIn);
  return !stored.isNone() && bytes <= writtenSize(stored);
}

void ABDAnnotationStore::setAnnotation(const std::optional<Dictionary>& annotation, const ABDPlugIn& plugIn) {
  const String& key = plugIn.annotationKey();
  if (annotation) {
    Dictionary record;
    if (const Dictionary* stored = annotationForIdentifier(key).dictionary()) record = *stored;
    for (const auto& [name, value] : *annotation) record.set(name, value);
    annotations_.set(key, std::move(record));
  } else {
    annotations_.remove(key);
  }
  error_ = saveDb();
  if (error_)
    systemLog("unable to save annotations:%@ error:%@", annotationsURL_, *error_);
  else
    saved_ = Date::now();
}

}  // namespace abd
