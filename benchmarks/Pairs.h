#pragma once

// How figures are measured: short slices of a baseline and of the subject take turns, a ratio is formed
// inside each pair, and the median of at least five pairs is reported with its spread, so that a machine that
// speeds up or slows down meanwhile moves both sides. Figures go to one table (main.cc). One thread.

#include <sys/types.h>

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <optional>
#include <string>
#include <vector>

namespace bench {

inline double secondsNow() {
  return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

/// Seconds that one call of `work` takes.
template <typename Work>
double secondsOf(Work&& work) {
  const double begin = secondsNow();
  work();
  return secondsNow() - begin;
}

/// The value that the fraction `part` of all samples do not exceed; reorders `samples`. 0 when there are
/// none.
inline double percentile(std::vector<double>& samples, double part) {
  if (samples.empty()) return 0;
  const size_t index =
      std::min(samples.size() - 1, static_cast<size_t>(part * static_cast<double>(samples.size())));
  std::nth_element(samples.begin(), samples.begin() + static_cast<ptrdiff_t>(index), samples.end());
  return samples[index];
}

inline double median(std::vector<double> samples) {
  return percentile(samples, 0.5);
}

/// What pairs of slices cost; index i of each list belongs to pair i.
struct Pairs {
  std::vector<double> baseline, subject, ratios;

  void add(double baselineCost, double subjectCost) {
    baseline.push_back(baselineCost);
    subject.push_back(subjectCost);
    ratios.push_back(subjectCost / baselineCost);
  }
};

/// Runs one slice of each side unmeasured, then `count` measured pairs; every second pair begins with the
/// subject. Both sides are called without arguments and answer the cost of one slice in any unit (mostly
/// seconds; less is better). REQUIRES: count >= 5.
template <typename Baseline, typename Subject>
Pairs measurePairs(size_t count, Baseline&& baseline, Subject&& subject) {
  Pairs pairs;
  baseline();
  subject();
  for (size_t i = 0; i < count; i++) {
    if (i % 2 == 0) {
      const double b = baseline();
      pairs.add(b, subject());
    } else {
      const double s = subject();
      pairs.add(baseline(), s);
    }
  }
  return pairs;
}

/// One line of the table. Ratios are costs of the subject in units of the baseline: less is better.
struct Figure {
  std::string name;      // "(a) round trip, 1 client, pinned: p50"
  std::string value;     // the subject's median, for people: "11.2 us"
  std::string baseline;  // the baseline's
  double ratio = 0, least = 0, most = 0;
  std::optional<double> aim;  // the largest median ratio that is aimed at; none for information only

  bool isMissed() const { return aim.has_value() && ratio > *aim; }
};

// Ways to print a cost, for report().
std::string seconds(double value);            // "11.2 us", "3.4 ms"
std::string bytes(double value);              // "3.1 kB"
std::string bytesPerSecond(double value);     // "812 MB/s"
std::string requestsPerSecond(double value);  // "91200 /s"

/// Puts a line into the table from pairs of costs. `print` shows one cost (for example `seconds`).
void report(const std::string& name, const Pairs& pairs, std::optional<double> aim,
            std::string (*print)(double) = seconds);
/// The same where what is shown is not the cost itself: costs are turned into amounts per second,
/// `amount / cost`, and printed with `print`; the ratio stays the ratio of the costs.
void reportRate(const std::string& name, const Pairs& pairs, double amount, std::optional<double> aim,
                std::string (*print)(double));
void report(Figure figure);

/// Binds every thread of `process` (0: this one) to the first processor that this process may use, or (none)
/// to all that it could use at start. Threads and children made later inherit it.
void pin(pid_t process, bool toOneCore);

}  // namespace bench
