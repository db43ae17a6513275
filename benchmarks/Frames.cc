#include "benchmarks/Frames.h"

#include "benchmarks/Plugins.h"
#include "benchmarks/Processes.h"
#include "platform/qmx/Encoding.h"
#include "platform/qmx/Limits.h"

namespace bench {

using platform::Array;
using platform::Dictionary;
using platform::Value;

std::string requestFrame(Dictionary body, uint64_t id) {
  body.set("version", 3);
  const std::string item = [&] {
    std::string out;
    platform::qmx::encode(Array{1, id, std::move(body)}, out);
    return out;
  }();
  std::string frame = bareReply(item.size() + 4);
  return frame.replace(4, item.size(), item);
}

std::string matchFrame(const Dictionary& rules) {
  return requestFrame({{"request", "match"}, {"rules", rules}});
}

std::string uuidsFrame(std::string_view name, const std::vector<platform::UUID>& uuids) {
  Array list;
  for (const platform::UUID& uuid : uuids) list.append(uuid);
  return requestFrame({{"request", name}, {"uuids", list}});
}

Dictionary replyBody(std::string_view frame) {
  const std::string_view item = frame.substr(4);
  const auto value = platform::qmx::decode({reinterpret_cast<const uint8_t*>(item.data()), item.size()},
                                           platform::qmx::kMaximumNesting);
  const Array* array = value ? value->array() : nullptr;
  if (array == nullptr || array->size() != 3 || !(*array)[2].isDictionary()) giveUp("a malformed reply");
  const Dictionary body = *(*array)[2].dictionary();
  if (body.contains("errorcode")) giveUp("a request failed: " + Value(body).description());
  return body;
}

Array matches(std::string_view frame) {
  const Dictionary body = replyBody(frame);
  const platform::EncodedPropertyList* list = body["matches"].encoded();
  const auto value = list != nullptr ? platform::qmx::decodePropertyList(*list) : std::nullopt;
  if (!value || !value->isArray()) giveUp("a match reply without forms");
  return *value->array();
}

Dictionary identifierRules(size_t from, size_t count) {
  Array identifiers;
  for (size_t i = from; i < from + count; i++) identifiers.append(plugInIdentifier(i));
  return {{"ZQExtensionIdentifier", identifiers}};
}

Dictionary pointRules(std::string_view point) {
  return {{"ZQExtensionPointName", point}};
}

}  // namespace bench
