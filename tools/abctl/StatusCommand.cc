// abctl status: what the daemon does and has done.

#include <CLI/CLI.hpp>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "Ambrel/ABDiagnostics.h"
#include "platform/value/Date.h"
#include "tools/abctl/Commands.h"
#include "tools/abctl/Daemon.h"
#include "tools/abctl/Json.h"
#include "tools/abctl/OpenMetrics.h"
#include "tools/abctl/PlugIns.h"

namespace abctl {
namespace {

using platform::Array;
using platform::Dictionary;
using platform::Value;
namespace key = ambrel::statuskey;

std::string number(const Value& value) {
  return std::to_string(value.unsignedValue());
}

std::string counted(const Value& value, const char* one, const char* many) {
  return number(value) + " " + (value.unsignedValue() == 1 ? one : many);
}

std::string textOr(const Value& value, const char* otherwise) {
  return std::string(value.string().value_or(otherwise));
}

std::string dateOr(const Value& value, const char* otherwise) {
  const auto date = value.date();
  return date ? timeText(static_cast<int64_t>(date->secondsSince1970)) : otherwise;
}

/// The two largest units of a time.
std::string ageText(double seconds) {
  struct Unit {
    int64_t seconds;
    const char* name;
  };
  constexpr Unit kUnits[] = {{86400, "d"}, {3600, "h"}, {60, "min"}, {1, "s"}};
  int64_t rest = seconds > 0 ? static_cast<int64_t>(seconds) : 0;
  std::string text;
  for (const auto& [length, name] : kUnits) {
    const bool isSecond = !text.empty();
    if (rest >= length || isSecond || length == 1)
      text += (isSecond ? " " : "") + std::to_string(rest / length) + " " + name;
    if (isSecond) break;
    rest %= length;
  }
  return text;
}

/// "7.2 us", "-" for none.
std::string latencyText(const Value& value) {
  if (value.isNone()) return "-";
  const double seconds = value.realValue();
  const auto [scale, unit] = seconds < 1e-3 ? std::pair(1e6, "us")
                             : seconds < 1  ? std::pair(1e3, "ms")
                                            : std::pair(1.0, "s");
  char buffer[64];
  std::snprintf(buffer, sizeof buffer, "%.3g %s", seconds * scale, unit);
  return buffer;
}

void printDaemon(const Screen& screen, const Dictionary& status) {
  const Value &records = status[key::records], &registry = status[key::registry],
              &annotations = status[key::annotations], &error = annotations[key::error];
  Table table({"abd " + textOr(status[key::version], "?"), textOr(status[key::service], "?")});
  table.add({"process", number(status[key::pid]) + ", up " + ageText(status[key::uptime].realValue())});
  table.add({"queue", counted(status[key::queued], "message", "messages") + " waiting"});
  table.add({"records", number(records[key::kept]) + " kept, limit " + number(records[key::limit]) + ", " +
                            counted(records[key::purges], "purge", "purges")});
  table.add({"registry", counted(registry[key::bundles], "bundle", "bundles") + ", " +
                             counted(registry[key::plugIns], "plug-in", "plug-ins") + ", " +
                             counted(registry[key::announcements], "announcement", "announcements")});
  table.add({"last scan", dateOr(registry[key::scanned], "not over yet")});
  if (registry[key::polling].booleanValue())
    table.add(
        {"watches", {number(registry[key::watches]) + ", not enough: everything is looked at", Style::bad}});
  else
    table.add({"watches", number(registry[key::watches])});
  table.add({"annotations", counted(annotations[key::records], "record", "records") + ", " +
                                counted(annotations[key::bytes], "byte", "bytes")});
  table.add({"last save", dateOr(annotations[key::saved], "none since the start")});
  if (!error.isNone()) table.add({"last error", {textOr(error, ""), Style::bad}});
  std::printf("%s", table.lines(screen).c_str());
}

/// A table of the rows, if there are any.
template <typename Cells>
void printRows(const Screen& screen, const Value& rows, std::vector<std::string> heading, Cells&& cells) {
  if (rows.array() == nullptr || rows.array()->size() == 0) return;
  Table table(std::move(heading));
  for (const Value& row : *rows.array()) table.add(cells(row));
  std::printf("\n%s", table.lines(screen).c_str());
}

void printStatus(const Screen& screen, const Dictionary& status) {
  using Row = std::vector<Table::Cell>;
  printDaemon(screen, status);
  printRows(screen, status[key::clients], {"CLIENT", "REQUESTS", "WAITING", "UNSENT", "BUNDLE"},
            [](const Value& row) -> Row {
              return {number(row[key::pid]), number(row[key::requests]), number(row[key::waiting]),
                      number(row[key::unsent]), textOr(row[key::bundle], "-")};
            });
  const double now = platform::Date::now().secondsSince1970;
  printRows(screen, status[key::holds], {"HOLD", "PLUG-INS", "AGE", "CLIENT", "BUNDLE"},
            [now](const Value& row) -> Row {
              const auto since = row[key::since].date();
              return {textOr(row[key::token], "-"), number(row[key::plugIns]),
                      since ? ageText(now - since->secondsSince1970) : "-",
                      row[key::pid].isNone() ? "-" : number(row[key::pid]), textOr(row[key::bundle], "-")};
            });
  Array served;
  if (const Array* const requests = status[key::requests].array())
    for (const Value& row : *requests)
      if (row[key::count].unsignedValue() > 0) served.append(row);
  printRows(screen, served, {"REQUEST", "COUNT", "FAILED", "P50", "P99"}, [](const Value& row) -> Row {
    return {textOr(row[key::name], "-"), number(row[key::count]), number(row[key::failed]),
            latencyText(row[key::p50]), latencyText(row[key::p99])};
  });
}

ExitCode status(const Context& context, bool asMetrics) {
  if (asMetrics && context.json) throw Failure(kUsage, "take --openmetrics or --json, not both");
  Daemon daemon(context, ambrel::kDiagnosticsSuffix);
  const Dictionary status = daemon.status();
  if (asMetrics)
    std::printf("%s", openMetricsText(status, platform::Date::now().secondsSince1970).c_str());
  else if (context.json)
    std::printf("%s\n", jsonText(status).c_str());
  else
    printStatus(context.screen, status);
  return kSuccess;
}

}  // namespace

void addStatusCommand(CLI::App& app, Context& context) {
  const auto asMetrics = std::make_shared<bool>(false);
  CLI::App* const command = app.add_subcommand("status", "Tell what the daemon does and has done");
  command->add_flag("--openmetrics", *asMetrics, "Print OpenMetrics text for a collector");
  command->footer(
      "Clients of the main service, holds and whose they are, requests by name with the time that half and\n"
      "99 % of them took at most, records in memory, the registry, the annotation file.\n\n"
      "Examples:\n"
      "  abctl status\n"
      "  abctl status --openmetrics > /var/lib/collector/abd.prom");
  command->callback([&context, asMetrics] {
    context.command = [&context, asMetrics] { return status(context, *asMetrics); };
  });
}

}  // namespace abctl
