// Values: sharing, equality, typed reading, dictionaries; UUIDs, dates and text checks beside them.

#include "platform/value/Value.h"

#include <gtest/gtest.h>

#include <cmath>
#include <map>
#include <random>
#include "platform/value/UTF8.h"

namespace platform {
namespace {

TEST(Value, AContainerMayBeReplacedByAPartOfItselfOrStoredInItself) {
  Value value = Dictionary{{"deep", Dictionary{{"deeper", "text"}}}};
  value = value["deep"]["deeper"];
  EXPECT_EQ(value, Value("text"));
  EXPECT_TRUE(value["a"]["x"].isNone());
  Dictionary dictionary{{"a", 1}};
  dictionary.set("self", dictionary);
  EXPECT_EQ(dictionary["self"], Value(Dictionary{{"a", 1}}));
  Array array{1, 2};
  array.append(array[0]);
  array.set(0, array);
  EXPECT_EQ(array[0], Value(Array{1, 2, 1}));
  Array copy = *array[0].array();
  copy.set(0, "first");
  EXPECT_EQ(array[0], Value(Array{1, 2, 1})) << "a change of a copy is the copy's alone";
}

/// Expects of each pair, first and second one after the other, that they are equal, or that they are not.
void expectPairs(bool areEqual, const auto&... values) {
  const Value all[] = {values...};
  for (size_t i = 0; i < std::size(all); i += 2)
    EXPECT_EQ(all[i] == all[i + 1], areEqual) << all[i].description() << " " << all[i + 1].description();
}

TEST(Value, NumbersAndBooleansAreEqualByValueAndNeverByRounding) {
  expectPairs(true, true, 1, false, 0.0, -0.0, 0, uint64_t{5}, 5, 0x1p53, int64_t{1} << 53, -0x1p63,
              INT64_MIN, 0x1p63, uint64_t{1} << 63);
  expectPairs(false, true, 2, 1, "1", 0, Value(), Date{1}, 1, "x", Data("x"), Array{1, 2}, Array{1, 2, 3},
              std::nan(""), std::nan(""));
  // Where doubles are coarser than integers, and where the integers overlap in their bits.
  expectPairs(false, 0x1p53, (int64_t{1} << 53) + 1, 0x1p63, INT64_MAX, 0x1p64, UINT64_MAX, -1, UINT64_MAX);
}

TEST(Value, NumbersConvertByTruncationAndClampingAndNothingElseConverts) {
  EXPECT_EQ(Value(-1.9).integerValue(), -1);
  EXPECT_EQ(Value(1e300).integerValue(), INT64_MAX);
  EXPECT_EQ(Value(-1e300).integerValue(), INT64_MIN);
  EXPECT_EQ(Value(1e300).unsignedValue(), UINT64_MAX);
  EXPECT_EQ(Value(-1).unsignedValue(), UINT64_MAX);
  for (const Value& none : {Value(std::nan("")), Value("12")})
    EXPECT_TRUE(none.integerValue() == 0 && none.unsignedValue() == 0) << none.description();
}

TEST(Value, TheGenericBooleanReadingFollowsTheFirstTellingCharacter) {
  for (const char* text : {"YES", "y", " \t+1", "-007", "true", "9x"})
    EXPECT_TRUE(Value(text).booleanValue()) << text;
  for (const char* text : {"", "  ", "NO", "0", "+", "-0", "x1"})
    EXPECT_FALSE(Value(text).booleanValue()) << text;
  EXPECT_TRUE(Value(-0.5).booleanValue());
  EXPECT_FALSE(Value(Array{1}).booleanValue());
}

TEST(Dictionary, BehavesLikeASortedMapUnderRandomChanges) {
  using Model = std::map<std::string, int64_t>;
  std::mt19937 random(7);
  Dictionary dictionary;
  Model model, lasts;
  std::vector<std::pair<Dictionary, Model>> snapshots;
  std::vector<Dictionary::Entry> all;
  for (int i = 0; i < 4000; ++i) {
    const std::string key = "k" + std::to_string(random() % 60);
    if (random() % 3 == 0) {
      dictionary.remove(key);
      model.erase(key);
    } else {
      dictionary.set(key, i);
      model[key] = lasts[key] = i;
      all.push_back({key, i});
    }
    if (i % 100 == 99) snapshots.emplace_back(dictionary, model);
    if (i != 25 && i != 3999) continue;
    std::vector<Dictionary::Entry> entries = all;  // many of a key twice
    snapshots.emplace_back(Dictionary::takingLast(entries), lasts);
  }
  // What was copied on the way was changed by nothing that came later.
  for (const auto& [copy, expected] : snapshots) {
    ASSERT_EQ(copy.size(), expected.size());
    auto entry = expected.begin();
    for (const auto& [key, value] : copy) {
      EXPECT_EQ(key.view(), entry->first);
      EXPECT_EQ(copy[key], Value(entry->second));
      ++entry;
    }
  }
}

TEST(String, EqualKeysShareStorageOnceInternedHoweverManyComeBetween) {
  const String key = String::interned("ZQExtensionAttributes");
  EXPECT_EQ(String::interned("ZQExtensionAttributes").view().data(), key.view().data());
  for (int i = 0; i < 100000; ++i) EXPECT_EQ(String::interned(std::to_string(i)).view(), std::to_string(i));
  EXPECT_EQ(String::interned("ZQExtensionAttributes"), key);
}

TEST(UUID, ReadsOnlyTheCanonicalFormInEitherCase) {
  const std::string text = "0F1E2D3C-4B5A-6978-8796-A5B4C3D2E1F0";
  EXPECT_EQ(UUID::fromString("0f1e2d3c-4b5a-6978-8796-a5b4c3d2e1f0").value().string(), text);
  for (const char* wrong : {"", "0F1E2D3C4B5A69788796A5B4C3D2E1F0", "0F1E2D3C-4B5A-6978-8796-A5B4C3D2E1F",
                            "0F1E2D3C-4B5A-6978-8796-A5B4C3D2E1FG", "0F1E2D3C-4B5A-6978-8796-A-B4C3D2E1F0"})
    EXPECT_FALSE(UUID::fromString(wrong)) << wrong;
  EXPECT_EQ(UUID::random().string()[14], '4');
}

TEST(Text, OnlyWellFormedTextIsAccepted) {
  // Each case stands alone and behind and before enough plain text to be reached in whole words.
  const auto everywhere = [](bool (*isValid)(std::string_view), std::string_view part) {
    const std::string plain = "plain text, long", text(part);
    const bool alone = isValid(part);
    for (const std::string& more : {plain + text, text + plain, "123" + text + plain + plain})
      EXPECT_EQ(isValid(more), alone);
    return alone;
  };
  using namespace std::string_view_literals;
  for (const auto valid : {"\xC2\x80"sv, "\xDF\xBF"sv, "\xE0\xA0\x80"sv, "\xED\x9F\xBF"sv, "\xEE\x80\x80"sv,
                           "\xF0\x90\x80\x80"sv, "\xF4\x8F\xBF\xBF"sv, "\x01"sv, "\x7F"sv})
    EXPECT_TRUE(everywhere(isValidText, valid)) << valid;
  for (const auto invalid :
       {"\x80"sv, "\xC1\xBF"sv, "\xC2"sv, "\xE0\x9F\xBF"sv, "\xED\xA0\x80"sv, "\xF0\x8F\xBF\xBF"sv,
        "\xF4\x90\x80\x80"sv, "\xF5\x80\x80\x80"sv, "\xE2\x82"sv, "\xFF"sv})
    EXPECT_FALSE(everywhere(isValidUTF8, invalid)) << invalid;
  EXPECT_TRUE(everywhere(isValidUTF8, "\0"sv));
  EXPECT_FALSE(everywhere(isValidText, "\0"sv));
  for (const auto invalid : {"\0"sv, "\x01"sv, "\x1F"sv, "\xEF\xBF\xBE"sv, "\xEF\xBF\xBF"sv})
    EXPECT_FALSE(everywhere(isValidXMLText, invalid));
  for (const auto valid : {"\t"sv, "\n"sv, "\r"sv, "\xEF\xBF\xBD"sv, "\x7F"sv})
    EXPECT_TRUE(everywhere(isValidXMLText, valid));
}

}  // namespace
}  // namespace platform
