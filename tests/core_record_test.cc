// The record that daemon and clients share: set-up, its three views, its form; and the helpers beneath it.

#include "Ambrel/ABCollections.h"
#include "Ambrel/ABPlugInCore.h"
#include "platform/log/Failure.h"
#include "tests/support/ThisProcess.h"

namespace {

using namespace ambrel;
using testsupport::logOf;

using Log = std::vector<std::string>;

const URL kURL = URL::file("/apps/Notes.app/PlugIns/share.appex", true);

Dictionary plugInSection() {
  return {{"ZQExtensionProtocol", "Sharing"},
          {"ZQExtensionAttributes", Dictionary{{"ZQExtensionVersion", "2"}}}};
}

std::shared_ptr<ABPlugInCore> recordOf(Dictionary section, const char* name = "org.notes.share") {
  return ABPlugInCore::initWithName(name, kURL, Dictionary{{"ZQExtension", std::move(section)}}, {}, {});
}

class CoreRecord : public testing::Test {
 protected:
  CoreRecord() { testsupport::thisDevice(); }
};

TEST(VersionComparison, OrdersRunsOfDigitsByTheirNumber) {
  // Each orders before the next; what stands behind a blank is equal.
  const std::vector<std::string> ascending = {
      // what stands before digits
      "", "-1", "/",
      // digits count by their number, of any length
      "0 000", "0a", "00b", "1 01", "1.0", "1.0.0", "1.2 1.002", "1.2a", "1.2b", "1.9", "1.10", "1.10a",
      "2.0", "10.0", "18446744073709551616", "18446744073709551617", "99999999999999999999999999999999999999",
      // what stands behind them
      ":", "A1", "A02", "A3", "a1", "a7b00 a007b0", "\xC3\xA9", "\xEF\xBF\xBD", "\xF0\x9F\x98\x80"};
  for (size_t i = 0; i < ascending.size(); ++i) {
    const std::string first = ascending[i].substr(0, ascending[i].find(' '));
    for (size_t j = 0; j < ascending.size(); ++j) {
      const std::string second = ascending[j].substr(ascending[j].find(' ') + 1);
      EXPECT_TRUE(compareVersionString(first, second) == (i <=> j)) << first << " and " << second;
    }
  }
}

TEST_F(CoreRecord, SetUpFailsForEachMissingPartWithItsMessage) {
  const Value info = Dictionary{{"ZQExtension", plugInSection()}};
  const auto setUp = [](const std::optional<String>& name, const Value& bundleInfo) {
    return logOf([&] { EXPECT_EQ(ABPlugInCore::initWithName(name, kURL, bundleInfo, {}, {}), nullptr); });
  };
  const std::string path = kURL.path();
  EXPECT_EQ(setUp({}, info), Log{"missing identifier in plug-in at " + path});
  EXPECT_EQ(setUp("a", {}), Log{"missing Info dictionary in plug-in a at " + path});
  const std::string malformed = "malformed plug-in dictionary in plug-in a at " + kURL.description() + ": ";
  EXPECT_EQ(setUp("a", Dictionary{{"ZQExtension", "x"}}), Log{malformed + "{ZQExtension = \"x\"}"});
  EXPECT_EQ(setUp("a", "text"), Log{malformed + "text"});
  for (const Value& multiple :
       {Value(Dictionary{{"b", Dictionary()}}), Value("x"), Value(Dictionary{{"a", 5}})})
    EXPECT_EQ(setUp("a", Dictionary{{"ZQExtension", Dictionary{{"Multiple", multiple}}}}).size(), 1u);
}

TEST_F(CoreRecord, IdentityIsTheUUIDAlone) {
  const auto uuid = UUID::random();
  const Dictionary info = {{"ZQExtension", plugInSection()}};
  const auto a = ABPlugInCore::initWithName("a", kURL, info, {}, uuid);
  const auto b = ABPlugInCore::initWithName("b", URL::file("/b"), info, Dictionary{{"Other", true}}, uuid);
  EXPECT_EQ(b->plugInDictionary(), Value(plugInSection())) << "the bundle's, whatever else it is given";
  EXPECT_TRUE(a->isEqual(b.get()) && a->hash() == b->hash());
  EXPECT_FALSE(recordOf(plugInSection())->isEqual(recordOf(plugInSection()).get()));
}

TEST_F(CoreRecord, AChangedViewAppearsInTheViewsAboveIt) {
  auto record = recordOf(plugInSection());
  const Dictionary changed = dictionaryChanging(plugInSection(), "Dedicated", true);
  record->setPlugInDictionary(changed);
  EXPECT_EQ(record->topDictionary(), Value(changed));
  EXPECT_EQ(record->bundleInfoDictionary(), Value(Dictionary{{"ZQExtension", changed}}));

  const Dictionary sibling = {{"Sibling", 1}};
  auto multiplexed = recordOf(
      {{"Multiple", Dictionary{{"org.notes.share", plugInSection()}, {"sibling", sibling}}}, {"Top", 7}});
  EXPECT_TRUE(multiplexed->isMultiplexed());
  multiplexed->setPlugInDictionary(changed);
  const Dictionary expected = {{"Multiple", Dictionary{{"org.notes.share", changed}, {"sibling", sibling}}},
                               {"Top", 7}};
  EXPECT_EQ(multiplexed->topDictionary(), Value(expected));
  EXPECT_EQ(multiplexed->bundleInfoDictionary()["ZQExtension"], Value(expected));

  ABPlugInCore empty;  // nothing was there, so nothing propagates
  empty.setTopDictionary(changed);
  EXPECT_TRUE(empty.bundleInfoDictionary().isNone());
}

TEST_F(CoreRecord, DerivesItsStyleFromItsDictionaries) {
  auto record = recordOf({{"ZQExtensionProtocol", "#Data"}, {"Dedicated", 1}, {"EmbeddedCode", false}});
  EXPECT_TRUE(record->isData() && record->isDedicated() && record->isHybrid() && record->isAppExtension());
  EXPECT_FALSE(record->isMultiplexed() || record->oldStyle());
  EXPECT_EQ(record->embeddedProtocolSpec(), Value("#Data"));
  auto other = recordOf({{"ZQExtensionProtocol", Array{"#Data"}}, {"EmbeddedProtocol", "E"}});
  EXPECT_FALSE(other->isData());
  EXPECT_EQ(other->embeddedProtocolSpec(), Value("E"));
  ABPlugInCore old;
  EXPECT_FALSE(old.setDictionaries(Dictionary{{"Ambrel", "anything"}}));
  EXPECT_TRUE(old.oldStyle());
  EXPECT_THROW((void)ABPlugInCore().oldStyle(), InternalInconsistency);
}

TEST_F(CoreRecord, AFormRestoresTheRecord) {
  auto record = recordOf(plugInSection());
  record->setOriginalIdentifier("org.notes.first");
  record->setContainingUrl(URL::file("/apps/Notes.app", true));
  record->setOnSystemVolume(true);
  record->setHubProtocolVersion(2);
  record->setLastModified(-5);
  record->setLocalizedName("Teilen");
  record->updateFromForm({{"annotations", Dictionary{{"election", 2}}}});
  const Dictionary form = record->exportForm();

  const auto restored = ABPlugInCore::initWithForm(form);
  ASSERT_NE(restored, nullptr);
  EXPECT_TRUE(restored->isEqual(record.get()));
  EXPECT_EQ(restored->exportForm(), form);
  EXPECT_EQ(restored->version(), Value("2"));
  EXPECT_EQ(restored->containingPath(), "/apps/Notes.app");
  EXPECT_EQ(restored->localizedShortName(), std::nullopt);
  EXPECT_FALSE(form.contains("localizedShortName"));
  EXPECT_FALSE(form.contains("hash"));
}

TEST_F(CoreRecord, ReadsWhatAFormLacksAsItsDefault) {
  const Dictionary form = {{"path", "/a.appex"},
                           {"identifier", "a"},
                           {"uuid", "no UUID"},
                           {"info", Dictionary{{"Dedicated", true}}},
                           {"bundleInfo", Dictionary{{"ZQExtension", plugInSection()}}}};
  const auto record = ABPlugInCore::initWithForm(form);
  EXPECT_EQ(record->hubProtocolVersion(), 1u);
  EXPECT_EQ(record->lastModified(), 0);
  EXPECT_FALSE(record->onSystemVolume() || record->isDedicated());
  EXPECT_TRUE(record->annotations().isNone());
  EXPECT_FALSE(record->isEqual(ABPlugInCore::initWithForm(form).get()));

  for (const char* required : {"path", "identifier", "bundleInfo"}) {
    Dictionary broken = form;
    broken.remove(required);
    const size_t messages = logOf([&] { EXPECT_EQ(ABPlugInCore::initWithForm(broken), nullptr); }).size();
    EXPECT_EQ(messages, std::string_view(required) == "path" ? 0u : 1u) << required;
  }
  EXPECT_EQ(ABPlugInCore::initWithForm(dictionaryChanging(form, "path", "relative")), nullptr);
}

}  // namespace
