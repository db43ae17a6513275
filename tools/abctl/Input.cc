#include "tools/abctl/Input.h"

#include <filesystem>
#include <iostream>
#include <iterator>
#include <system_error>
#include <utility>
#include <variant>

#include "platform/propertylist/PropertyList.h"
#include "tools/abctl/Failure.h"
#include "tools/abctl/Json.h"

namespace abctl {
namespace {

using platform::Dictionary;
using platform::Error;
using platform::Value;

std::string contents(const std::string& file) {
  if (file == "-") return {std::istreambuf_iterator<char>(std::cin), std::istreambuf_iterator<char>()};
  std::error_code unknown;
  const std::filesystem::file_status status = std::filesystem::status(file, unknown);
  if (std::filesystem::is_directory(status)) throw Failure(kUsage, file + " is a directory");
  if (std::filesystem::exists(status) && !std::filesystem::is_regular_file(status))
    throw Failure(kUsage, file + " is no regular file", "what comes from a pipe is read with \"-\"");
  auto read = platform::readFile(file);
  if (const Error* const error = std::get_if<Error>(&read))
    throw Failure(kUsage, "cannot read " + error->localizedDescription());
  return std::get<std::string>(std::move(read));
}

}  // namespace

bool looksLikeJson(const std::string& text) {
  const size_t first = text.find_first_not_of(" \t\r\n");
  return first != std::string::npos && (text[first] == '{' || text[first] == '[');
}

Dictionary dictionaryOfFile(const std::string& file, const std::string& what) {
  const std::string text = contents(file);
  const std::string name = file == "-" ? "standard input" : file;
  Value value;
  if (looksLikeJson(text)) {
    value = valueOfJson(text, name);
  } else {
    auto parsed = platform::parsePropertyList(text);
    if (const Error* const error = std::get_if<Error>(&parsed))
      throw Failure(kUsage,
                    "the " + what + " in " + name + " cannot be read: " + error->localizedDescription(),
                    "write one dictionary, as a property list or as JSON");
    value = std::get<Value>(std::move(parsed));
  }
  if (!value.isDictionary())
    throw Failure(kUsage, "the " + what + " in " + name + " are no dictionary",
                  "write one dictionary, as a property list or as JSON");
  return *value.dictionary();
}

}  // namespace abctl
