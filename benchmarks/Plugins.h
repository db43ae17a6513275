#pragma once

// Applications with plug-ins, as many as wanted, with Info files like real ones: 2 to 4 kB, names, build-tool
// entries, attributes, activation rules; half of them with an SDK. Written once per size, removed with the
// private root. One thread.

#include <cstddef>
#include <string>
#include <vector>

namespace bench {

struct Population {
  size_t count = 0;
  std::string dataHome;                  // $XDG_DATA_HOME of a daemon that is to see them
  std::string place;                     // a directory for the daemons' own files
  std::vector<std::string> plugInPaths;  // bundle k belongs to identifier plugInIdentifier(k)
  double meanInfoSize = 0;               // of the Info files, in bytes
};

/// `count` plug-ins, ten in each application. The same object for the same count.
const Population& population(size_t count);

std::string plugInIdentifier(size_t index);
/// An extension point that exactly ten plug-ins of every population serve.
inline constexpr const char* kNarrowPoint = "org.example.bench.narrow";
/// Names of the extension points that have an SDK.
std::vector<std::string> sdkNames();

}  // namespace bench
