// The figures of the daemon, each against a baseline that is measured in the same run. Without names all
// groups run; with names only those.

#include <cstdio>
#include <cstring>
#include <string_view>
#include <vector>

#include "benchmarks/Benches.h"
#include "benchmarks/Processes.h"
#include "benchmarks/Table.h"

namespace {

struct Group {
  std::string_view name;
  void (*run)();
};

constexpr Group kGroups[] = {
    {"requests", bench::benchRequests}, {"match", bench::benchMatch},
    {"start", bench::benchStart},       {"memory", bench::benchMemory},
    {"encoding", bench::benchEncoding}, {"propertylists", bench::benchPropertyLists},
    {"hosts", bench::benchHosts},       {"neighbours", bench::benchNeighbours},
};

int usage() {
  fprintf(stderr, "Usage: abd_bench [--json] [NAME]...\nNames:");
  for (const Group& group : kGroups) fprintf(stderr, " %s", std::string(group.name).c_str());
  fprintf(stderr, "\n");
  return 2;
}

}  // namespace

int main(int argc, char** argv) {
  bool asJSON = false;
  std::vector<const Group*> chosen;
  for (int i = 1; i < argc; i++) {
    if (std::string_view(argv[i]) == "--json") {
      asJSON = true;
      continue;
    }
    const Group* found = nullptr;
    for (const Group& group : kGroups) {
      if (group.name == argv[i]) found = &group;
    }
    if (found == nullptr) return usage();
    chosen.push_back(found);
  }
  if (chosen.empty()) {
    for (const Group& group : kGroups) chosen.push_back(&group);
  }
  bench::pin(0, false);  // remembers which processors there are
  bench::privateRoot();
  const double begin = bench::secondsNow();
  for (const Group* group : chosen) {
    fprintf(stderr, "%s\n", std::string(group->name).c_str());
    group->run();
    bench::pin(0, false);
  }
  if (asJSON) {
    bench::printJSON(bench::figures());
  } else {
    bench::printTable(bench::figures());
    printf("%.0f seconds.\n", bench::secondsNow() - begin);
  }
  return 0;
}
