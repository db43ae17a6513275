#include "tools/abctl/Json.h"

#include <cmath>
#include <cstdint>
#include <ctime>
#include <nlohmann/json.hpp>
#include <optional>
#include <span>

#include "tools/abctl/Failure.h"

namespace abctl {
namespace {

using platform::Array;
using platform::Dictionary;
using platform::Value;
using Json = nlohmann::json;

/// Files and messages nest this deep at most; deeper JSON is refused before it costs stack.
constexpr int kDeepest = 480;

std::string base64(std::span<const uint8_t> bytes) {
  constexpr char kDigits[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string text;
  for (size_t index = 0; index < bytes.size(); index += 3) {
    const size_t left = bytes.size() - index;
    const uint32_t group = static_cast<uint32_t>(bytes[index]) << 16 |
                           (left > 1 ? static_cast<uint32_t>(bytes[index + 1]) << 8 : 0) |
                           (left > 2 ? static_cast<uint32_t>(bytes[index + 2]) : 0);
    text += kDigits[group >> 18];
    text += kDigits[group >> 12 & 63];
    text += left > 1 ? kDigits[group >> 6 & 63] : '=';
    text += left > 2 ? kDigits[group & 63] : '=';
  }
  return text;
}

std::string dateText(platform::Date date) {
  const double whole = std::floor(date.secondsSince1970);
  // Dates that the calendar functions cannot take are shown as seconds.
  if (!(std::fabs(whole) < 6e10)) return std::to_string(date.secondsSince1970);
  const std::time_t seconds = static_cast<std::time_t>(whole);
  std::tm parts{};
  ::gmtime_r(&seconds, &parts);
  char text[64];
  std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &parts);
  return text;
}

Json jsonOf(const Value& value) {
  switch (value.kind()) {
    case Value::Kind::none:
      return nullptr;
    case Value::Kind::boolean:
      return value.booleanValue();
    case Value::Kind::integer:
      return value.integerValue();
    case Value::Kind::unsignedInteger:
      return value.unsignedValue();
    case Value::Kind::real:
      return value.realValue();
    case Value::Kind::string:
      return std::string(*value.string());
    case Value::Kind::data:
      return base64(value.data()->bytes());
    case Value::Kind::date:
      return dateText(*value.date());
    case Value::Kind::uuid:
      return value.uuid()->string();
    case Value::Kind::array: {
      Json list = Json::array();
      for (const Value& element : *value.array()) list.push_back(jsonOf(element));
      return list;
    }
    case Value::Kind::dictionary: {
      Json object = Json::object();
      for (const Dictionary::Entry& entry : *value.dictionary())
        object[std::string(entry.key.view())] = jsonOf(entry.value);
      return object;
    }
    case Value::Kind::encoded:
      return value.description();
  }
  return nullptr;
}

Value valueOf(const Json& json) {
  switch (json.type()) {
    case Json::value_t::boolean:
      return Value(json.get<bool>());
    case Json::value_t::number_integer:
      return Value(json.get<int64_t>());
    case Json::value_t::number_unsigned:
      return Value(json.get<uint64_t>());
    case Json::value_t::number_float:
      return Value(json.get<double>());
    case Json::value_t::string:
      return Value(json.get_ref<const std::string&>());
    case Json::value_t::array: {
      Array list;
      for (const Json& element : json) list.append(valueOf(element));
      return Value(std::move(list));
    }
    case Json::value_t::object: {
      Dictionary dictionary;
      for (const auto& [key, element] : json.items()) dictionary.set(key, valueOf(element));
      return Value(std::move(dictionary));
    }
    default:
      return Value();
  }
}

}  // namespace

std::string jsonText(const Value& value, bool indented) {
  return jsonOf(value).dump(indented ? 2 : -1, ' ', false, Json::error_handler_t::replace);
}

Value valueOfJson(std::string_view text, const std::string& source) {
  bool tooDeep = false, hasNull = false;
  const auto inspect = [&tooDeep, &hasNull](int depth, Json::parse_event_t event, Json& part) {
    tooDeep = tooDeep || depth > kDeepest;
    hasNull = hasNull || (event == Json::parse_event_t::value && part.is_null());
    return !tooDeep;
  };
  try {
    const Json json = Json::parse(text.begin(), text.end(), inspect);
    if (tooDeep) throw Failure(kUsage, source + " nests too deeply");
    // A null would vanish on its way, and a rule with it.
    if (hasNull) throw Failure(kUsage, source + " has a null in it", "leave the key out instead");
    return valueOf(json);
  } catch (const Json::exception& error) {
    const std::string_view reason = error.what();  // begins with the library's own "[...] "
    throw Failure(kUsage, source + " is not JSON: " + std::string(reason.substr(reason.find("] ") + 2)));
  }
}

}  // namespace abctl
