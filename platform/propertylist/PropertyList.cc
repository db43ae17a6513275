#include "platform/propertylist/PropertyList.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "platform/propertylist/FileDescriptor.h"
#include "platform/propertylist/Readers.h"

namespace platform {

namespace detail {

Error corrupt(std::string_view why) {
  return Error{std::string(kFileErrorDomain), kFileReadCorrupt, "not a property list: " + std::string(why)};
}

}  // namespace detail

namespace {

bool isBinary(std::string_view bytes) {
  return bytes.starts_with(detail::kBinaryMagic);
}

Result<Value> parseBinary(std::string_view bytes) {
  return detail::parseBinaryPropertyList({reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size()});
}

Error readError(int number, const std::string& path) {
  Error error = Error::posix(number, path);
  if (number == ENOENT) {
    error.domain = kFileErrorDomain;
    error.code = kFileReadNoSuchFile;
  }
  return error;
}

}  // namespace

Result<Value> parsePropertyList(std::string_view bytes, size_t* where) {
  if (isBinary(bytes)) return parseBinary(bytes);
  std::string copy(bytes);
  return detail::parseXMLPropertyList(copy, where);
}

Result<std::string> readFile(const std::string& path, uint64_t limit, FileIdentity* identity) {
  if (identity != nullptr) *identity = FileIdentity();
  const detail::FileDescriptor file(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC | O_NOCTTY));
  if (!file.isValid()) return readError(errno, path);
  struct stat status;
  if (fstat(file.get(), &status) != 0) return readError(errno, path);
  if (!S_ISREG(status.st_mode)) return readError(EINVAL, path);
  if (identity != nullptr) *identity = FileIdentity::of(status);
  if (static_cast<uint64_t>(status.st_size) > limit) return readError(EFBIG, path);
  // One byte more than expected: a read that ends short of it, where the file should end, has seen the end.
  const auto expected = static_cast<size_t>(status.st_size);
  std::string contents(expected + 1, '\0');
  size_t size = 0;
  while (true) {
    const ssize_t count = read(file.get(), contents.data() + size, contents.size() - size);
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return readError(errno, path);
    size += static_cast<size_t>(count);
    if (count == 0 || size == expected) break;
    if (size > limit) return readError(EFBIG, path);
    if (size == contents.size()) contents.resize(2 * size);
  }
  contents.resize(size);
  return contents;
}

Result<Value> readPropertyListFile(const std::string& path, uint64_t limit, FileIdentity* identity) {
  Result<std::string> contents = readFile(path, limit, identity);
  if (Error* error = std::get_if<Error>(&contents)) return std::move(*error);
  std::string& bytes = std::get<std::string>(contents);
  return isBinary(bytes) ? parseBinary(bytes) : detail::parseXMLPropertyList(bytes);
}

std::optional<Dictionary> readDictionaryFile(const std::string& path, FileIdentity* identity) {
  const Result<Value> list = readPropertyListFile(path, kMaximumPropertyListFile, identity);
  const Value* value = std::get_if<Value>(&list);
  if (value == nullptr || !value->isDictionary()) return std::nullopt;
  return *value->dictionary();
}

}  // namespace platform
