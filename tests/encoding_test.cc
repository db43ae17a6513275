// Values as bytes on the wire: what stands for what, and everything that makes a message malformed.

#include "platform/qmx/Encoding.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <functional>
#include <limits>
#include <random>

#include "platform/qmx/Limits.h"
#include "platform/qmx/Message.h"

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

double secondsOf(const std::function<void()>& work) {
  const auto begin = std::chrono::steady_clock::now();
  work();
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
}

std::string encodeToString(const Value& value) {
  std::string out;
  encode(value, out);
  return out;
}

/// A value of any kind, random.
Value randomValue(std::mt19937& random, int depth) {
  const auto text = [&] { return std::string(random() % 40, static_cast<char>('a' + random() % 26)); };
  const Value leaves[] = {random() % 2 == 0,
                          static_cast<int64_t>(random()) >> random() % 32,
                          -static_cast<int64_t>(uint64_t{random()} << random() % 32),
                          std::numeric_limits<uint64_t>::max() - random(),
                          std::ldexp(static_cast<double>(random()), static_cast<int>(random() % 100) - 50),
                          text(),
                          Data(text()),
                          Date{static_cast<double>(random())},
                          UUID::random()};
  const size_t kind = random() % (std::size(leaves) + (depth > 0 ? 2 : 0));
  if (kind < std::size(leaves)) return leaves[kind];
  Array array;
  Dictionary dictionary;
  for (size_t i = random() % 30; i > 0; --i) {
    array.append(randomValue(random, depth - 1));
    dictionary.set(text(), array[array.size() - 1]);
  }
  return kind == std::size(leaves) ? Value(array) : Value(dictionary);
}

TEST(Encoding, RestoresEveryValueExactlyWithItsKind) {
  std::mt19937 random(11);
  for (int i = 0; i < 300; ++i) {
    const Value value = randomValue(random, 4);
    const Data bytes = encoded(value);
    const std::optional<Value> again = decode(bytes.bytes(), kMaximumNesting);
    ASSERT_TRUE(again) << value.description();
    EXPECT_EQ(*again, value);
    EXPECT_EQ(again->kind(), value.kind());
    EXPECT_EQ(encoded(*again), bytes);
  }
}

TEST(Encoding, WritesWhatOtherProgramsExpect) {
  EXPECT_EQ(encodeToString(Dictionary{{"b", -1}, {"a", Array{true, 1.5}}}),
            hex("a2 6161 82 f5 fb3ff8000000000000 6162 20"));
  EXPECT_EQ(encodeToString(std::numeric_limits<uint64_t>::max()), hex("1b ffffffffffffffff"));
  EXPECT_EQ(encodeToString(std::numeric_limits<int64_t>::min()), hex("3b 7fffffffffffffff"));
  EXPECT_EQ(encodeToString(Date{1.0}), hex("c1 fb3ff0000000000000"));
  EXPECT_EQ(encodeToString(UUID()), hex("d825 50 00000000000000000000000000000000"));
  EXPECT_EQ(encodeToString(Data("x")), hex("41 78"));
  EXPECT_EQ(encodeToString(encodePropertyList(Array{1})), hex("d818 42 8101"));
}

TEST(Encoding, ReadsTheWiderFormsToo) {
  EXPECT_EQ(decodeHex("f9 3e00"), Value(1.5));
  EXPECT_EQ(decodeHex("fa 3fc00000"), Value(1.5));
  EXPECT_EQ(decodeHex("c1 01"), Value(Date{1}));
  EXPECT_EQ(decodeHex("c1 20"), Value(Date{-1}));
  EXPECT_EQ(decodeHex("c1 f9 3e00"), Value(Date{1.5}));
  EXPECT_EQ(decodeHex("a2 6161 f6 6162 01"), Value(Dictionary{{"b", 1}})) << "null reads as an absent key";
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

TEST(Encoding, NeverBelievesCountsBeyondTheBytes) {
  EXPECT_FALSE(decodeHex("9b ffffffffffffffff"));
  EXPECT_FALSE(decodeHex("bb 7fffffffffffffff"));
  EXPECT_FALSE(decodeHex("5b ffffffffffffffff 00"));
  // Each count would fit the bytes that follow it, all together do not.
  std::string nested;
  for (int i = 0; i < kMaximumNesting; ++i) nested += hex("9a 003fffff");
  nested.resize(4 << 20, '\x01');
  EXPECT_LT(secondsOf([&] { EXPECT_FALSE(decode(span(nested), kMaximumNesting)); }), 2);
}

TEST(Encoding, NestingIsAcceptedUpToTheLimit) {
  // Of arrays and of maps.
  for (const std::string& level : {hex("81"), hex("a1 6161")}) {
    std::string deepest;
    for (int i = 0; i < kMaximumNesting; ++i) deepest += level;
    EXPECT_TRUE(decode(span(deepest + '\x01'), kMaximumNesting));
    EXPECT_FALSE(decode(span(level + deepest + '\x01'), kMaximumNesting));
  }
  EXPECT_FALSE(decode(span(std::string(4 << 20, '\x81')), kMaximumNesting));
}

TEST(Encoding, AMapCostsLittleMoreThanSortingWhateverTheOrder) {
  // Descending keys would cost the square of their number where each is inserted alone.
  std::string map = hex("ba 00030d40");
  for (int i = 200000; i > 0; --i) {
    std::string key = std::to_string(1000000 + i);
    map += static_cast<char>(0x60 + key.size()) + key + '\x01';
  }
  const auto decodeAll = [&map] {
    EXPECT_EQ(decode(span(map), kMaximumNesting).value().dictionary()->size(), 200000u);
  };
  EXPECT_LT(secondsOf(decodeAll), 5);
}

TEST(EncodedListBuilder, JoinsKeptPartsWithoutCopyingThem) {
  const Data kept = encodeEntries(Dictionary{{"path", std::string(1000, 'p')}});
  EncodedListBuilder builder;
  builder.beginArray(2);
  for (int i = 0; i < 2; ++i) {
    builder.beginMap(1);
    builder.kept(kept);
  }
  const EncodedPropertyList list = builder.finish();
  const auto isKept = [&kept](const auto& piece) { return piece.bytes.data() == kept.bytes().data(); };
  EXPECT_EQ(std::ranges::count_if(list.pieces(), isKept), 2);
  EXPECT_EQ(list.size(), list.joined().size());
  builder.beginArray(0);
  EXPECT_EQ(decodePropertyList(builder.finish()), Value(Array{})) << "a builder starts anew";
}

TEST(Message, DescriptionWritesEncodedListsOut) {
  const Message message{
      .body = {{"error", "none"}, {"matches", encodePropertyList(Array{Dictionary{{"path", "/a"}}})}}};
  EXPECT_EQ(message.description(), "{error = \"none\"; matches = ({path = \"/a\"})}");
  // Contents are only looked at when they are asked for.
  const Message broken{.body = {{"matches", *decodeHex("d818 42 8201")}}};
  EXPECT_EQ(broken.description(), "{matches = <property list, 2 bytes>}");
}

}  // namespace
}  // namespace platform::qmx
