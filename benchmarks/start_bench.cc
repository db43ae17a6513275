// (c) Start over 10,000 bundles, from the start of the program until it answers connections: the first time,
// with nothing stored, against reading and parsing the files alone; the second time against the first.

#include <filesystem>
#include <string>

#include "benchmarks/Benches.h"
#include "benchmarks/Pairs.h"
#include "benchmarks/Plugins.h"
#include "benchmarks/Processes.h"
#include "platform/propertylist/PropertyList.h"

namespace bench {

namespace {

constexpr size_t kBundles = 10000;
constexpr size_t kPairs = 5;

class Starts {
 public:
  explicit Starts(const Population& plugIns) : plugIns_(plugIns), place_(plugIns.place + "/start") {}

  /// What a first start cannot do without.
  double reading() const {
    return secondsOf([this] {
      for (const std::string& path : plugIns_.plugInPaths)
        (void)platform::readPropertyListFile(path + "/Info.plist");
    });
  }

  /// Nothing is left of what a daemon stored or made before.
  double first() const {
    std::filesystem::remove_all(place_);
    std::filesystem::remove_all(plugIns_.dataHome + "/veltra/Containers");
    return start();
  }

  double start() const { return Daemon(plugIns_.dataHome, place_, -1).secondsToStart(); }

 private:
  const Population& plugIns_;
  const std::string place_;
};

void measure(const Starts& starts, const std::string& where) {
  Pairs first, second;
  for (size_t pair = 0; pair < kPairs; pair++) {
    const double reading = starts.reading();
    const double firstStart = starts.first();
    first.add(reading, firstStart);
    second.add(firstStart, starts.start());
  }
  report("(c) first start over 10,000 bundles, " + where + ", against reading and parsing", first, 2.0);
  report("(c) second start, " + where + ", against the first", second, 0.35);
}

}  // namespace

void benchStart() {
  const Starts starts(population(kBundles));
  pin(0, true);
  starts.reading();
  measure(starts, "one core");
  pin(0, false);
  measure(starts, "unpinned");
}

}  // namespace bench
