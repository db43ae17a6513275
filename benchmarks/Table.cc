#include "benchmarks/Table.h"

#include <cstdio>
#include <string_view>
#include <utility>

namespace bench {

namespace {

std::vector<Figure>& table() {
  static std::vector<Figure> figures;
  return figures;
}

std::string withUnit(double value, const char* unit) {
  char text[64];
  snprintf(text, sizeof text, value < 100 ? "%.3g %s" : "%.0f %s", value, unit);
  return text;
}

std::string ratioText(const Figure& figure) {
  char text[96];
  snprintf(text, sizeof text, "%.2f (%.2f..%.2f)", figure.ratio, figure.least, figure.most);
  return text;
}

std::string aimText(const Figure& figure) {
  if (!figure.aim) return "-";
  char text[64];
  snprintf(text, sizeof text, "<= %.2f%s", *figure.aim, figure.isMissed() ? "  MISSED" : "");
  return text;
}

std::string quoted(std::string_view text) {
  std::string result = "\"";
  for (const char c : text) {
    if (c == '"' || c == '\\') result += '\\';
    result += c;
  }
  return result + '"';
}

Figure withRatios(const std::string& name, const Pairs& pairs, std::optional<double> aim) {
  Figure figure;
  figure.name = name;
  figure.ratio = median(pairs.ratios);
  figure.least = *std::min_element(pairs.ratios.begin(), pairs.ratios.end());
  figure.most = *std::max_element(pairs.ratios.begin(), pairs.ratios.end());
  figure.aim = aim;
  return figure;
}

}  // namespace

std::string seconds(double value) {
  if (value < 1e-6) return withUnit(value * 1e9, "ns");
  if (value < 1e-3) return withUnit(value * 1e6, "us");
  if (value < 1) return withUnit(value * 1e3, "ms");
  return withUnit(value, "s");
}

std::string bytes(double value) {
  if (value < 1e3) return withUnit(value, "B");
  if (value < 1e6) return withUnit(value / 1e3, "kB");
  return withUnit(value / 1e6, "MB");
}

std::string bytesPerSecond(double value) {
  return bytes(value) + "/s";
}

std::string requestsPerSecond(double value) {
  return withUnit(value, "/s");
}

void report(Figure figure) {
  fprintf(stderr, "  %s: %s, baseline %s, ratio %s\n", figure.name.c_str(), figure.value.c_str(),
          figure.baseline.c_str(), ratioText(figure).c_str());
  table().push_back(std::move(figure));
}

void report(const std::string& name, const Pairs& pairs, std::optional<double> aim,
            std::string (*print)(double)) {
  Figure figure = withRatios(name, pairs, aim);
  figure.value = print(median(pairs.subject));
  figure.baseline = print(median(pairs.baseline));
  report(std::move(figure));
}

void reportRate(const std::string& name, const Pairs& pairs, double amount, std::optional<double> aim,
                std::string (*print)(double)) {
  Figure figure = withRatios(name, pairs, aim);
  figure.value = print(amount / median(pairs.subject));
  figure.baseline = print(amount / median(pairs.baseline));
  report(std::move(figure));
}

const std::vector<Figure>& figures() {
  return table();
}

void printTable(const std::vector<Figure>& figures) {
  size_t width = 6;
  for (const Figure& figure : figures) width = std::max(width, figure.name.size());
  const int nameWidth = static_cast<int>(width);
  printf("%-*s  %12s  %12s  %-22s %s\n", nameWidth, "figure", "value", "baseline", "ratio (min..max)", "aim");
  size_t missed = 0, aims = 0;
  for (const Figure& figure : figures) {
    aims += figure.aim.has_value() ? 1u : 0u;
    missed += figure.isMissed() ? 1u : 0u;
    printf("%-*s  %12s  %12s  %-22s %s\n", nameWidth, figure.name.c_str(), figure.value.c_str(),
           figure.baseline.c_str(), ratioText(figure).c_str(), aimText(figure).c_str());
  }
  printf("\nRatios are costs in units of the baseline, less is better; median of the pairs, least..most.\n");
  if (missed == 0) {
    printf("All %zu aims are met.\n", aims);
    return;
  }
  printf("%zu of %zu aims are missed:\n", missed, aims);
  for (const Figure& figure : figures) {
    if (figure.isMissed()) printf("  %s: %.2f, aim %.2f\n", figure.name.c_str(), figure.ratio, *figure.aim);
  }
}

void printJSON(const std::vector<Figure>& figures) {
  printf("[\n");
  for (size_t i = 0; i < figures.size(); i++) {
    const Figure& figure = figures[i];
    printf(
        "  {\"figure\": %s, \"value\": %s, \"baseline\": %s, \"ratio\": %.4f, \"min\": %.4f, \"max\": %.4f",
        quoted(figure.name).c_str(), quoted(figure.value).c_str(), quoted(figure.baseline).c_str(),
        figure.ratio, figure.least, figure.most);
    if (figure.aim) printf(", \"aim\": %.4f, \"met\": %s", *figure.aim, figure.isMissed() ? "false" : "true");
    printf("}%s\n", i + 1 < figures.size() ? "," : "");
  }
  printf("]\n");
}

}  // namespace bench
