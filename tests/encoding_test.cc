// Values as bytes on the wire: what stands for what, and everything that makes a message malformed.

#include "platform/qmx/Encoding.h"

#include <gtest/gtest.h>

#include "platform/qmx/Limits.h"

namespace platform::qmx {
namespace {

/// Bytes from hexadecimal text; blanks are skipped.
std::string hex(std::string_view text) {
  std::string digits(text), bytes;
  std::erase(digits, ' ');
  for (size_t i = 0; i < digits.size(); i += 2)
    bytes += static_cast<char>(std::stoi(digits.substr(i, 2), nullptr, 16));
  return bytes;
}

std::span<const uint8_t> span(std::string_view bytes) {
  return {reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size()};
}

std::optional<Value> decodeHex(std::string_view text, int nesting = kMaximumNesting) {
  return decode(span(hex(text)), nesting);
}

std::string encodeToString(const Value& value) {
  std::string out;
  encode(value, out);
  return out;
}

void expectBytes(const std::string& bytes, const Value& value) {
  EXPECT_EQ(encodeToString(value), bytes) << value.description();
  const Value again = decode(span(bytes), kMaximumNesting).value_or(Value());
  EXPECT_EQ(again.kind(), value.kind()) << value.description();
  EXPECT_EQ(encodeToString(again), bytes) << value.description();
}

TEST(Encoding, RestoresEveryValueAndWritesWhatOtherProgramsExpect) {
  expectBytes(hex("a2 6161 83 f5 f4 fb3ff8000000000000 6162 20"),
              Dictionary{{"b", -1}, {"a", Array{true, false, 1.5}}});
  const Value numbers = Array{23, 24, 256, 65536, uint64_t{1} << 32, UINT64_MAX, -25, INT64_MIN};
  expectBytes(
      hex("88 17 1818 190100 1a00010000 1b0000000100000000 1bffffffffffffffff 3818 3b7fffffffffffffff"),
      numbers);
  expectBytes(hex("c1 fb3ff8000000000000"), Date{1.5});
  expectBytes(hex("d825 50 00000000000000000000000000000000"), UUID());
  expectBytes(hex("41 78"), Data("x"));
  for (const auto& [head, size] : {std::pair("78 18", 24u), {"79 0100", 256u}, {"7a 00010000", 65536u}})
    expectBytes(hex(head) + std::string(size, 's'), std::string(size, 's'));
  expectBytes(hex("d818 42 8101"), encodePropertyList(Array{1}));
}

TEST(Encoding, ReadsTheWiderFormsToo) {
  EXPECT_EQ(decodeHex("84 f93e00 fa3fc00000 1817 190005"), Value(Array{1.5, 1.5, 23, 5}));
  EXPECT_EQ(decodeHex("83 c101 c120 c1f93e00"), Value(Array{Date{1}, Date{-1}, Date{1.5}}));
  EXPECT_EQ(decodeHex("a2 6161 f6 6162 01"), Value(Dictionary{{"b", 1}})) << "null: an absent key";
}

TEST(Encoding, RefusesEverythingElse) {
  const std::vector<std::string_view> malformed = {
      // nothing, two items
      "", "01 01",
      // null where no key could be absent, undefined, other simple values
      "f6", "81 f6", "f7", "e0", "f8 20",
      // indefinite and reserved lengths
      "9f 01 ff", "bf ff", "7f 6161 ff", "5f 4161 ff", "ff", "1c",
      // below the signed range
      "3b 8000000000000000",
      // not UTF-8, U+0000
      "62 c328", "61 00",
      // a key that is no text, without a value, twice (also when absent)
      "a1 01 01", "a1 6100 01", "a1 6161", "a2 6161 01 6161 02", "a2 6161 f6 6161 02",
      "a3 6162 01 6161 02 6162 03",
      // other tags; no number, no UUID, no byte string
      "c0 6161", "c1 6161", "c1 c1 01", "d825 41 00", "d825 70 00000000000000000000000000000000", "d818 6161",
      // truncated
      "82 01", "43 0102", "19 01"};
  for (const std::string_view text : malformed) EXPECT_FALSE(decodeHex(text)) << text;
}

TEST(Encoding, WhatStandsInAValueAgainIsWrittenAsOftenAsItStandsThere) {
  Dictionary value{{"a", 1}, {"b", "text"}, {"c", true}, {"d", Array{}}};
  for (int i = 0; i < 10; ++i)
    value = {{"again", value}, {"n", i}, {"once", value}, {"other", Dictionary{{"first", value}}}};
  const std::string bytes = encodeToString(value);
  const Value restored = decode(span(bytes), kMaximumNesting).value_or(Value());
  EXPECT_EQ(restored, Value(value));
  EXPECT_EQ(encodeToString(restored), bytes) << "nothing in it is the same object any more";
}

}  // namespace
}  // namespace platform::qmx
