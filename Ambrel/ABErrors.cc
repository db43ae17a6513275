#include "Ambrel/ABErrors.h"

#include <utility>

namespace ambrel {

Error ABError(int64_t code, std::optional<std::string> description) {
  return Error{.domain = std::string(AmbrelErrorDomain), .code = code, .text = std::move(description)};
}

}  // namespace ambrel
