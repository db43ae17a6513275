// (f) Property lists: reading against the XML library's bare parsing of the same text, writing against
// reading.

#include <pugixml.hpp>

#include "benchmarks/Benches.h"
#include "benchmarks/CPUTime.h"
#include "benchmarks/Pairs.h"
#include "benchmarks/Plugins.h"
#include "platform/propertylist/PropertyList.h"

namespace bench {

namespace {

using namespace platform;

constexpr size_t kPairs = 41;

}  // namespace

void benchPropertyLists() {
  pin(0, true);
  std::vector<std::string> texts;
  std::vector<Value> values;
  double size = 0;
  for (const std::string& path : population(100).plugInPaths) {
    texts.push_back(std::get<std::string>(readFile(path + "/Info.plist")));
    values.push_back(std::get<Value>(parsePropertyList(texts.back())));
    size += static_cast<double>(texts.back().size());
  }
  const auto overAll = [&](auto&& work) {
    return cpuSecondsOf(5, [&] {
      for (size_t i = 0; i < texts.size(); ++i) work(i);
    });
  };

  const auto bare = [&] {
    return overAll([&](size_t i) {
      pugi::xml_document document;
      (void)document.load_buffer(texts[i].data(), texts[i].size());
    });
  };
  const auto reading = [&] { return overAll([&](size_t i) { (void)parsePropertyList(texts[i]); }); };
  reportRate("(f) reading XML lists, against the XML library alone", measurePairs(kPairs, bare, reading),
             size, 2.5, bytesPerSecond);

  const auto writing = [&] { return overAll([&](size_t i) { (void)serializePropertyList(values[i]); }); };
  reportRate("(f) writing XML lists, against reading them", measurePairs(kPairs, reading, writing), size, 1.0,
             bytesPerSecond);
}

}  // namespace bench
