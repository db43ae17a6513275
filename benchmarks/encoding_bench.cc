// (e) Messages to and from bytes. What is encoded is a large "match" reply's worth of Info dictionaries; the
// baseline copies as many bytes as the encoding has.

#include <cstring>

#include "benchmarks/Benches.h"
#include "benchmarks/CPUTime.h"
#include "benchmarks/Pairs.h"
#include "benchmarks/Plugins.h"
#include "platform/propertylist/PropertyList.h"
#include "platform/qmx/Encoding.h"
#include "platform/qmx/Limits.h"

namespace bench {

namespace {

using namespace platform;

constexpr size_t kPairs = 41;

}  // namespace

void benchEncoding() {
  pin(0, true);
  Array infos;
  for (const std::string& path : population(100).plugInPaths) {
    if (std::optional<Dictionary> info = readDictionaryFile(path + "/Info.plist"))
      infos.append(std::move(*info));
  }
  const Value message = infos;
  const Data bytes = qmx::encoded(message);
  const auto size = static_cast<double>(bytes.size());
  std::string copy(bytes.size(), 'x');
  const auto copying = [&] {
    return cpuSecondsOf(200, [&] {
      std::memcpy(copy.data(), bytes.view().data(), bytes.size());
      asm volatile("" : : "r"(copy.data()) : "memory");  // so that no copy is left out
    });
  };

  std::string out;
  const auto encoding = [&] {
    return cpuSecondsOf(10, [&] {
      out.clear();
      qmx::encode(message, out);
    });
  };
  reportRate("(e) encoding, against memcpy", measurePairs(kPairs, copying, encoding), size, std::nullopt,
             bytesPerSecond);

  const auto decoding = [&] {
    return cpuSecondsOf(10, [&] { (void)qmx::decode(bytes.bytes(), qmx::kMaximumNesting); });
  };
  reportRate("(e) decoding, against memcpy", measurePairs(kPairs, copying, decoding), size, std::nullopt,
             bytesPerSecond);

  // What a reply does: entries that were kept are joined, only one entry of each form is fresh.
  std::vector<Data> kept;
  for (const Value& info : infos) kept.push_back(qmx::encodeEntries(*info.dictionary()));
  const auto joining = [&] {
    return cpuSecondsOf(50, [&] {
      qmx::EncodedListBuilder builder;
      builder.beginArray(kept.size());
      for (size_t i = 0; i < kept.size(); ++i) {
        builder.beginMap(infos[i].dictionary()->size() + 1);
        builder.kept(kept[i]);
        builder.entry("annotations", Dictionary());
      }
      (void)builder.finish();
    });
  };
  report("(e) joining kept parts, against encoding anew", measurePairs(kPairs, encoding, joining),
         std::nullopt);
}

}  // namespace bench
