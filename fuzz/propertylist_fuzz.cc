// Any bytes as a property list, XML or binary: what is accepted can be sent, and when it can be written as
// XML it reads back equal.

#include <cstdint>
#include <cstdlib>
#include <string>

#include "platform/propertylist/PropertyList.h"
#include "platform/qmx/Encoding.h"
#include "platform/qmx/Limits.h"

namespace {

using namespace platform;

void require(bool condition) {
  if (!condition) std::abort();
}

/// A list within a form within an array, as it travels.
void checkSending(const Value& value) {
  const Data bytes = qmx::encoded(Array{Dictionary{{"bundleInfo", value}}});
  require(qmx::decode(bytes.bytes(), qmx::kMaximumNesting).has_value());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const Result<Value> parsed = parsePropertyList({reinterpret_cast<const char*>(data), size});
  const Value* value = std::get_if<Value>(&parsed);
  if (value == nullptr) return 0;
  checkSending(*value);
  (void)value->description();
  const Result<std::string> written = serializePropertyList(*value);
  const std::string* text = std::get_if<std::string>(&written);
  require((text != nullptr) == canBeWritten(*value));
  if (text == nullptr) return 0;
  const Result<Value> again = parsePropertyList(*text);
  require(std::holds_alternative<Value>(again) && std::get<Value>(again) == *value);
  return 0;
}
