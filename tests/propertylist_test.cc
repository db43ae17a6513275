// Property lists from and to files: what is read, what is refused, what is written, and how files are
// replaced.

#include "platform/propertylist/PropertyList.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include "platform/propertylist/FileReplacement.h"
#include "platform/propertylist/PropertyListCache.h"
#include "platform/qmx/Encoding.h"
#include "platform/qmx/Limits.h"
#include "tests/support/DeviceRoot.h"

namespace platform {
namespace {

using namespace std::literals;
using namespace testsupport;

Value parsed(std::string_view bytes) {
  return std::get<Value>(parsePropertyList(bytes));
}

bool isCorrupt(std::string_view bytes) {
  const Result<Value> result = parsePropertyList(bytes);
  const Error* error = std::get_if<Error>(&result);
  return error != nullptr && error->domain == kFileErrorDomain && error->code == kFileReadCorrupt;
}

std::string plist(std::string_view body) {
  return "<plist version=\"1.0\">" + std::string(body) + "</plist>";
}

TEST(XMLPropertyList, ReadsEveryKindOfValue) {
  EXPECT_EQ(parsed(R"(<?xml version="1.0" encoding="UTF-8"?>
<!DOCTYPE plist SYSTEM "file:///etc/passwd" [<!ENTITY x "y">]>
<!-- a comment --><plist version="1.0">
<dict>
  <key>truth</key> <array><true/><false /></array>
  <key>numbers</key> <array> <integer> -12 </integer><integer>+7</integer><integer>0xfF</integer><real>-2.5e3</real> </array>
  <key>date</key><date>2024-02-29T23:59:59Z</date>
  <key>data</key><data> aGVs
    bG8= </data>
  <key>twice</key><true/><key>twice</key><string>the last one counts</string>
  <key>empty</key><array><dict/><array></array><string/><string></string><data/></array>
</dict> </plist>)"),
            Value(Dictionary{{"truth", Array{true, false}},
                             {"numbers", Array{-12, 7, 255, -2500.0}},
                             {"date", Date{1709251199}},
                             {"data", Data("hello")},
                             {"twice", "the last one counts"},
                             {"empty", Array{Dictionary{}, Array{}, "", "", Data()}}}));
}

TEST(XMLPropertyList, StringsComeBackExactly) {
  for (const auto& [written, read] : {std::pair("  ", "  "),
                                      {"\n\t", "\n\t"},
                                      {" a\r\nb ", " a\nb "},  // line ends as XML says
                                      {"&lt;&gt;&amp;&quot;&apos;&#13;&#x1F600;", "<>&\"'\r\xF0\x9F\x98\x80"},
                                      {" <![CDATA[ <&amp;> ]]> b<!-- c --> ", "  <&amp;>  b "},
                                      {"&amp;lt;", "&lt;"}})
    EXPECT_EQ(
        parsed("\xEF\xBB\xBF<!-- <plist><b> -->" + plist("<string>" + std::string(written) + "</string>")),
        Value(read));
  EXPECT_EQ(parsed(plist("<dict><key> </key><string>x</string></dict>")), Value(Dictionary{{" ", "x"}}));
}

TEST(XMLPropertyList, ReadsUTF16OfEitherByteOrder) {
  const std::string text = plist("<string>x</string>");
  std::string big = "\xFE\xFF", little = "\xFF\xFE";
  for (const char c : text) {
    // The letter becomes U+1F600.
    big += c == 'x' ? "\xD8\x3D\xDE\x00"s : std::string{'\0', c};
    little += c == 'x' ? "\x3D\xD8\x00\xDE"s : std::string{c, '\0'};
  }
  for (const std::string& each : {big, little}) EXPECT_EQ(parsed(each), Value("\xF0\x9F\x98\x80"));
  EXPECT_TRUE(isCorrupt(big + "\xD8") && isCorrupt("\xFE\xFF\xD8\x3D\x00<"s));
}

TEST(XMLPropertyList, IntegersReachOverBoth64BitRangesAndNotBeyond) {
  EXPECT_EQ(parsed(plist("<integer>18446744073709551615</integer>")), Value(UINT64_MAX));
  EXPECT_EQ(parsed(plist("<integer>-9223372036854775808</integer>")), Value(INT64_MIN));
  EXPECT_EQ(parsed(plist("<integer>0xFFFFFFFFFFFFFFFF</integer>")), Value(UINT64_MAX));
  for (const std::string wrong : {"18446744073709551616", "-9223372036854775809", "0x10000000000000000", "",
                                  " ", "1.0", "0x", "1 2", "--1", "+-1", "12a"})
    EXPECT_TRUE(isCorrupt(plist("<integer>" + wrong + "</integer>"))) << wrong;
}

TEST(XMLPropertyList, RefusesWhatIsNotOne) {
  const std::vector<std::string_view> bodies = {
      // not one value
      "", "text", "<other/>", "<true/><true/>", "<true>x</true>", "<array>", "<array><true/></dict>",
      // what belongs into no array and no dictionary
      "<array>text</array>", "<array><true/>text</array>", "<array><key>a</key></array>",
      "<dict><string>x</string></dict>", "<dict><key>a</key></dict>", "<dict><key>a</key><key>b</key></dict>",
      "<dict>text<key>a</key><true/></dict>",
      // no text
      "<string><b/></string>", "<string>&unknown;</string>", "<string>&amp</string>", "<string>&</string>",
      "<string>&#0;</string>", "<string>&#1;</string>", "<string>&#xD800;</string>",
      "<string>&#x110000;</string>", "<string>&#4294967361;</string>", "<string>&#;</string>",
      "<string>\x01</string>", "<string>\xC3</string>", "<string>\xED\xA0\x80</string>",
      // no number, no data
      "<real>1,5</real>", "<real/>", "<real>+-1</real>", "<real>1e999</real>", "<data>a</data>",
      "<data>ab==cd</data>", "<data>a*b=</data>", "<data>YQ=</data>",
      // no date
      "<date/>", "<date>2023-02-29T00:00:00Z</date>", "<date>2023-01-01T24:00:00Z</date>",
      "<date>2023-01-01 00:00:00</date>", "<date>0000-01-01T00:00:00Z</date>",
      "<date>2023-13-01T00:00:00Z</date>"};
  for (const std::string_view body : bodies) EXPECT_TRUE(isCorrupt(plist(body))) << body;
  for (const std::string_view text :
       {"", "x", "<plist>", "<dict/>", "<plist><true/></plist><plist/>", "x<plist><true/></plist>",
        "<plist><true/></plist>x", "bplist", "bplist01", "{ a = b; }"})
    EXPECT_TRUE(isCorrupt(text)) << text;
}

TEST(XMLPropertyList, WhateverCanBeReadCanBeWrittenAndSentInsideAForm) {
  const auto nested = [](int depth) {
    std::string text;
    for (int i = 0; i < 2 * depth; ++i) text += i < depth ? "<array>" : "</array>";
    return plist(text);
  };
  const Value deepest = parsed(nested(kMaximumFileNesting));
  EXPECT_TRUE(isCorrupt(nested(kMaximumFileNesting + 1)));
  EXPECT_TRUE(isCorrupt(nested(500000))) << "and costs no stack";
  EXPECT_TRUE(canBeWritten(deepest));
  EXPECT_FALSE(canBeWritten(deepest, kMaximumFileNesting - 1));
  EXPECT_TRUE(std::holds_alternative<Error>(serializePropertyList(Array{deepest})));
  const Value forms = Array{Dictionary{{"bundleInfo", deepest}}};
  EXPECT_EQ(qmx::decodePropertyList(qmx::encodePropertyList(forms)), forms);
}

// --- Binary ---

/// A binary list of the given objects, the first on top.
std::string binary(const std::vector<std::string>& objects) {
  std::string out = "bplist00", table;
  const auto append = [](std::string& to, uint64_t number, int size) {
    for (int i = size - 1; i >= 0; --i) to += static_cast<char>(number >> (8 * i) & 0xFF);
  };
  for (const std::string& object : objects) {
    append(table, out.size(), 4);
    out += object;
  }
  const size_t tableOffset = out.size();
  out += table + std::string(6, '\0');
  append(out, 0x401, 2);  // bytes of an offset, and of a reference
  for (const size_t number : {objects.size(), size_t{0}, tableOffset}) append(out, number, 8);
  return out;
}

TEST(BinaryPropertyList, ReadsEveryKindOfValue) {
  const std::string list =
      binary({"\xAA\1\2\3\4\5\6\7\x08\x09\x0A", "\x08", "\x09", "\x10\xFF",
              "\x13\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xFE", "\x14\0\0\0\0\0\0\0\0\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xFF"s,
              "\x22\x3F\xC0\0\0"s, "\x23\x3F\xF8\0\0\0\0\0\0"s, "\x33\x3F\xF0\0\0\0\0\0\0"s,
              "\x4F\x10\x10" + "0123456789abcdef"s, "\xD1\x0B\x0C", "\x51k", "\x62\0\xE9\x4E\x2D"s});
  const Dictionary text = {{"k", "\xC3\xA9\xE4\xB8\xAD"}};
  EXPECT_EQ(parsed(list), Value(Array{false, true, 255, -2, UINT64_MAX, 1.5, 1.5, Date{978307201},
                                      Data("0123456789abcdef"), text}));
  EXPECT_EQ((*parsed(list).array())[0].kind(), Value::Kind::boolean);
}

TEST(BinaryPropertyList, RefusesMalformedObjects) {
  const std::vector<std::vector<std::string>> malformed = {
      {"\x80\x01"},                                 // a UID
      {"\xC1\x01", "\x09"},                         // a set
      {"\x00"s},                                    // null
      {"\x14\0\0\0\0\0\0\0\x01\0\0\0\0\0\0\0\0"s},  // beyond 64 bits
      {"\x21\0\0"s},                                // a real of two bytes
      {"\x51\xE9"},                                 // ASCII that is none
      {"\x51\0"s},                                  // U+0000
      {"\x61\xD8\x3D"},                             // half a surrogate pair
      {"\xD1\x01\x02", "\x09", "\x08"},             // a key that is no string
  };
  for (const auto& objects : malformed) EXPECT_TRUE(isCorrupt(binary(objects))) << objects.front();
}

TEST(BinaryPropertyList, SharedObjectsAreBuiltOnceAndMayNotExpandWithoutBound) {
  const auto levels = [](int count) {
    std::vector<std::string> objects;
    for (int i = 0; i < count; ++i) objects.push_back("\xA2" + std::string(2, static_cast<char>(i + 1)));
    objects.push_back("\x51x");
    return binary(objects);
  };
  const Value shared = parsed(levels(12));
  EXPECT_TRUE((*shared.array())[0].isSameObject((*shared.array())[1]));
  // Two to the power of a hundred values, in a file of a few hundred bytes.
  EXPECT_TRUE(isCorrupt(levels(100)));
}

// --- Writing ---

TEST(PropertyListWriting, ReadsBackEqualWithEveryKind) {
  const Value value =
      Dictionary{{"strings", Array{"", " ", " a\r\n\tb ", "<&>]]>\"'", "\xF0\x9F\x98\x80\x7F"}},
                 {"integers", Array{0, -1, INT64_MIN, UINT64_MAX}},
                 {"reals", Array{0.1, -0.0, 1e300, 5e-324, 1.0}},
                 {"booleans", Array{true, false}},
                 {"dates", Array{Date{0}, Date{-62135596800}, Date{253402300799}, Date{1795381200}}},
                 {"data", Array{Data(), Data("a"), Data("ab"), Data("abc"), Data("\xFF\x00\xFE"s)}},
                 {" <key>&\r", Dictionary{{"", Array{Dictionary{}}}}}};
  const Value again = parsed(std::get<std::string>(serializePropertyList(value)));
  EXPECT_EQ(again, value);
  for (const char* key : {"integers", "reals", "booleans"})
    for (size_t i = 0; i < value[key].array()->size(); ++i)
      EXPECT_EQ((*again[key].array())[i].kind(), (*value[key].array())[i].kind()) << key << i;
}

// --- Files ---

class PropertyListFiles : public testing::Test {
 protected:
  std::string path(std::string_view name) const { return root_ / name; }
  void write(std::string_view name, std::string_view text) const { writeText(path(name), text); }
  const DeviceRoot device_;
  const fs::path root_ = device_.configUser();
};

TEST_F(PropertyListFiles, OnlyRegularFilesOfBoundedSizeAreRead) {
  const std::string list = plist("<true/>");
  write("list", list);
  write("empty", "");
  write("large", "");
  fs::resize_file(path("large"), 100'000'000);
  fs::create_symlink("loop", path("loop"));
  ASSERT_EQ(mkfifo(path("fifo").c_str(), 0600), 0);
  const auto failure = [this](std::string_view name, uint64_t limit = kMaximumPropertyListFile) {
    const Result<Value> result = readPropertyListFile(path(name), limit);
    const Error* error = std::get_if<Error>(&result);
    return error != nullptr ? error->code : 0;
  };
  for (const auto& [name, number] : {std::pair("missing", kFileReadNoSuchFile),
                                     {"empty", kFileReadCorrupt},
                                     {"", EINVAL},
                                     {"fifo", EINVAL},
                                     {"list/below", ENOTDIR},
                                     {"loop", ELOOP},
                                     {"large", EFBIG}})
    EXPECT_EQ(failure(name), number) << name;
  EXPECT_EQ(failure("list", list.size() - 1), EFBIG);
  EXPECT_EQ(failure("list", list.size()), 0);
}

TEST_F(PropertyListFiles, ReplacingKeepsALinkAndReplacesWhatItLeadsTo) {
  fs::create_directory(path("elsewhere"));
  fs::create_symlink("elsewhere/real", path("link"));
  for (const char* text : {"one", "two"}) {
    EXPECT_EQ(replaceFile(path("link"), text), std::nullopt);
    EXPECT_TRUE(fs::is_symlink(path("link")));
    EXPECT_EQ(readText(path("elsewhere/real")), text);
  }
}

TEST_F(PropertyListFiles, SweepingRemovesOnlyLeftOverTemporaries) {
  ASSERT_EQ(replaceFile(path("list"), "x"), std::nullopt);
  for (const char* name : {".list.tmp-0123ABCD", ".list.tmp-FFFFFFFF", ".list.tmp-notes-of-mine",
                           ".other.tmp-0123ABCD", "list.tmp"})
    write(name, "");
  sweepTemporaryFiles(path("list"));
  EXPECT_FALSE(fs::exists(path(".list.tmp-0123ABCD")) || fs::exists(path(".list.tmp-FFFFFFFF")));
  EXPECT_EQ(std::distance(fs::directory_iterator(root_), fs::directory_iterator()), 4);
}

TEST_F(PropertyListFiles, ACachedDictionaryIsTheFileAsItIsNow) {
  PropertyListCache cache(2);
  const auto value = [&](const char* name) {
    const std::optional<Dictionary> dictionary = cache.dictionary(path(name));
    return dictionary ? (*dictionary)["v"] : Value();
  };
  const auto store = [&](const char* name, int number) {
    write(name, plist("<dict><key>v</key><integer>" + std::to_string(number) + "</integer></dict>"));
  };
  // Changed in place and by replacement, to the same size, faster than any clock of a file system.
  for (int i = 1; i < 10; ++i) {
    store(i % 2 == 0 ? "a" : "b", i);
    if (i % 2 == 1) fs::rename(path("b"), path("a"));
    for (int again = 0; again < 2; ++again) ASSERT_EQ(value("a"), Value(i));
  }
  fs::remove(path("a"));
  EXPECT_TRUE(value("a").isNone());
  for (const char* name : {"c", "d", "e"}) store(name, 7);
  for (const char* name : {"c", "d", "e", "c"}) EXPECT_EQ(value(name), Value(7));
  write("e", "damaged");
  EXPECT_TRUE(value("e").isNone());
}

}  // namespace
}  // namespace platform
