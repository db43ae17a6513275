#include "platform/value/Error.h"

#include <system_error>

namespace platform {

std::string Error::localizedDescription() const {
  if (text) return *text;
  return "The operation could not be completed (" + domain + " error " + std::to_string(code) + ").";
}

std::string Error::description() const {
  return domain + " " + std::to_string(code) + " \"" + localizedDescription() + "\"";
}

Error Error::posix(int number, std::string_view what) {
  std::string text = std::generic_category().message(number);
  if (!what.empty()) text = std::string(what) + ": " + text;
  return Error{std::string(kPOSIXErrorDomain), number, std::move(text)};
}

}  // namespace platform
