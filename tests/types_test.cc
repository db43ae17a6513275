// Types: which conform to which, who declares them, and what activation rules accept.

#include "platform/types/ActivationRules.h"
#include "platform/types/TypeConformance.h"
#include "platform/types/TypeGraph.h"
#include "tests/support/OwnDevice.h"

namespace {

using namespace platform;
using namespace testsupport;
namespace fs = std::filesystem;

TEST(TypeGraph, ConformanceIsReflexiveTransitiveAndOutlivesCycles) {
  TypeGraph graph;
  graph.addDeclarations({{"a", Array{"b", "c"}}, {"b", Array{"d"}}, {"d", "a"}, {"e", Array{7, "a"}}});
  for (const auto& [type, to] : {std::pair("unknown", "unknown"), {"a", "d"}, {"d", "c"}, {"e", "c"}})
    EXPECT_TRUE(graph.conforms(type, to)) << type;
  for (const auto& [type, to] : {std::pair("c", "a"), {"a", "e"}, {"a", "unknown"}, {"A", "a"}})
    EXPECT_FALSE(graph.conforms(type, to)) << type;
}

TEST(TypeGraph, MIMETypesAreKnownUnderTheirAliasesInBothDirections) {
  TypeGraph graph;
  graph.addLines("text/x-c text/plain\n\nmalformed\nimage/svg+xml application/xml\n trailing \nx ", false);
  graph.addLines("application/x-xml application/xml\ntext/xml application/xml", true);
  EXPECT_TRUE(graph.conforms("text/x-c", "text/plain"));
  EXPECT_TRUE(graph.conforms("image/svg+xml", "text/xml"));
  EXPECT_TRUE(graph.conforms("text/xml", "application/x-xml"));
  EXPECT_FALSE(graph.conforms("application/xml", "image/svg+xml"));
}

TEST(TypeConformance, EveryRootDeclaresTypesAndChangesAreNoticed) {
  clearOwnDevice();
  const std::string mime = ownDevice.path() + "/share/mime";
  writeText(mime + "/subclasses", "image/png public.image\n");
  writeText(mime + "/aliases", "image/x-png image/png\n");
  writePropertyList(ownDevice.dataSystem() + "/Types/base.plist",
                    Dictionary{{"public.image", "public.data"}});
  writePropertyList(ownDevice.dataUser() + "/Types/mine.plist",
                    Dictionary{{"public.data", Array{"example.thing"}}});
  writeText(ownDevice.dataUser() + "/Types/broken.plist", "no property list");
  letFilesSettle();
  EXPECT_TRUE(typeConformsTo("image/x-png", "example.thing"));
  EXPECT_FALSE(typeConformsTo("image/x-png", "example.other"));

  writePropertyList(ownDevice.dataUser() + "/Types/more.plist", Dictionary{{"image/png", "example.other"}});
  fs::remove(ownDevice.dataUser() + "/Types/mine.plist");
  letFilesSettle();
  EXPECT_TRUE(typeConformsTo("image/x-png", "example.other"));
  EXPECT_FALSE(typeConformsTo("image/x-png", "example.thing"));
}

class ActivationRulesTest : public testing::Test {
 protected:
  ActivationRulesTest() {
    clearOwnDevice();
    writePropertyList(ownDevice.dataUser() + "/Types/types.plist",
                      Dictionary{{"photo", "image"}, {"image", "file"}, {"movie", "file"}});
    letFilesSettle();
  }
  static bool accepts(const Value& rule, const Dictionary& items) {
    TypeConformances types;
    return evaluateActivationRule(rule, items, types);
  }
  /// Items of one type each.
  static Dictionary items(const std::vector<const char*>& types) {
    Array list;
    for (const char* type : types) list.append(Dictionary{{"types", Array{type}}});
    return {{"items", list}};
  }
};

TEST_F(ActivationRulesTest, EachItemCountsForEveryTypeThatItConformsTo) {
  const Value limits = Dictionary{{"image", 2}, {"file", 3}};
  for (const auto& types : {std::vector{"photo", "image"}, {"photo", "image", "movie"}})
    EXPECT_TRUE(accepts(limits, items(types)));
  // Three images, four files, and one that counts nowhere.
  for (const auto& types :
       {std::vector{"photo", "image", "photo"}, {"photo", "image", "movie", "movie"}, {"photo", "song"}})
    EXPECT_FALSE(accepts(limits, items(types)));
  const Dictionary both{{"items", Array{Dictionary{{"types", Array{7, "song", "photo"}}}}}};
  EXPECT_TRUE(accepts(limits, both)) << "one of an item's types is enough";
  EXPECT_TRUE(accepts(true, items({"anything"})));
  EXPECT_FALSE(accepts(true, items({})) || accepts(false, items({"anything"})));
  for (const Value& limit : {Value(true), Value(3.5), Value(3)})
    EXPECT_TRUE(accepts(Dictionary{{"image", limit}}, items({"photo", "photo", "photo"})));
  for (const Value& limit : {Value(1), Value(false), Value(0), Value(-1), Value("3")})
    EXPECT_FALSE(accepts(Dictionary{{"image", limit}}, items({"photo", "photo"}))) << limit.description();
}

TEST_F(ActivationRulesTest, AnythingOfAnotherShapeIsNotAccepted) {
  const Dictionary good = items({"photo"});
  for (const Value& rule : {Value(), Value("image"), Value(2), Value(Array{"image"}), Value(Dictionary())})
    EXPECT_FALSE(accepts(rule, good)) << rule.description();
  const Value rule = Dictionary{{"image", 5}};
  for (const Value& list : {Value("photo"), Value(Dictionary()), Value(Array{"photo"}),
                            Value(Array{Dictionary{{"types", "photo"}}}), Value(Array{Dictionary()})})
    EXPECT_FALSE(accepts(rule, Dictionary{{"items", list}})) << list.description();
  EXPECT_FALSE(accepts(rule, Dictionary()));
}

}  // namespace
