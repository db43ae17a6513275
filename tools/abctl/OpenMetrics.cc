#include "tools/abctl/OpenMetrics.h"

#include <algorithm>
#include <charconv>
#include <initializer_list>
#include <map>
#include <string_view>
#include <utility>

#include "Ambrel/ABDiagnostics.h"

namespace abctl {
namespace {

using platform::Array;
using platform::Dictionary;
using platform::Value;
namespace key = ambrel::statuskey;

/// Name of a label and key of its value.
using Label = std::pair<const char*, const char*>;

const Label kProgram[] = {{"pid", key::pid}, {"bundle", key::bundle}};
const Label kHold[] = {{"token", key::token}, {"pid", key::pid}, {"bundle", key::bundle}};

/// Shortest text that reads as this number.
std::string numberText(double number) {
  char buffer[32];
  return std::string(buffer, std::to_chars(buffer, buffer + sizeof buffer, number).ptr);
}

std::string valueText(const Value& value) {
  if (const auto text = value.string()) return std::string(*text);
  if (const auto date = value.date()) return numberText(date->secondsSince1970);
  return value.real() ? numberText(value.realValue()) : std::to_string(value.integerValue());
}

class Exposition {
 public:
  /// Begins a metric; what is measured in no unit has the unit "".
  void begin(const std::string& name, const char* type, const std::string& unit, const char* help) {
    name_ = "abd_" + name + (unit.empty() ? "" : "_" + unit);
    text_ += "# TYPE " + name_ + " " + type + "\n";
    if (!unit.empty()) text_ += "# UNIT " + name_ + " " + unit + "\n";
    text_ += "# HELP " + name_ + " " + help + "\n";
  }
  /// Labels of the next samples: those of `row` that it has.
  template <typename Labels>
  void label(const Value& row, const Labels& labels) {
    labels_.clear();
    for (const auto& [label, of] : labels)
      if (const Value& value = row[of]; !value.isNone()) addLabel(label, valueText(value));
  }
  void unlabel() { labels_.clear(); }
  void sample(const char* suffix, const std::string& value, const char* quantile = nullptr) {
    const std::string labels = labels_;
    if (quantile != nullptr) addLabel("quantile", quantile);
    text_ += name_ + suffix + (labels_.empty() ? "" : "{" + labels_ + "}") + " " + value + "\n";
    labels_ = labels;
  }
  /// A metric without labels. None: it is not there now.
  void gauge(const std::string& name, const std::string& unit, const char* help, const Value& value) {
    single(name, "gauge", unit, help, value, "");
  }
  void counter(const std::string& name, const char* help, const Value& value) {
    single(name, "counter", "", help, value, "_total");
  }
  std::string take() { return std::move(text_) + "# EOF\n"; }

 private:
  void single(const std::string& name, const char* type, const std::string& unit, const char* help,
              const Value& value, const char* suffix) {
    begin(name, type, unit, help);
    unlabel();
    if (!value.isNone()) sample(suffix, valueText(value));
  }
  void addLabel(const char* name, std::string_view value) {
    if (!labels_.empty()) labels_ += ',';
    labels_ += std::string(name) + "=\"";
    for (const char c : value) {
      if (c == '\\' || c == '"') labels_ += '\\';
      labels_ += c == '\n' ? std::string("\\n") : std::string(1, c);
    }
    labels_ += '"';
  }

  std::string text_, name_, labels_;
};

const Array& rows(const Dictionary& status, const char* of) {
  static const Array none;
  const Array* const all = status[of].array();
  return all != nullptr ? *all : none;
}

/// One sample for each row.
template <typename Labels>
void addRows(Exposition& out, const Array& all, const Labels& labels, const char* of,
             const char* suffix = "") {
  for (const Value& row : all) {
    out.label(row, labels);
    out.sample(suffix, valueText(row[of]));
  }
}

void addDaemon(Exposition& out, const Dictionary& status) {
  out.begin("build", "info", "", "Version of the daemon and name of its service.");
  out.label(status, std::initializer_list<Label>{{"version", key::version}, {"service", key::service}});
  out.sample("_info", "1");
  out.gauge("uptime", "seconds", "Time since the daemon was started.", status[key::uptime]);
  out.gauge("queue_depth", "", "Messages that have arrived and wait for their turn.", status[key::queued]);
}

/// The connections of one process together: their labels are the same.
Array processesOf(const Array& clients) {
  std::map<int64_t, Dictionary> processes;
  for (const Value& client : clients) {
    const auto [entry, isFirst] = processes.try_emplace(client[key::pid].integerValue());
    Dictionary& process = entry->second;
    if (isFirst)
      process = *client.dictionary();
    else
      for (const char* const sum : {key::requests, key::waiting, key::unsent})
        process.set(sum, process[sum].integerValue() + client[sum].integerValue());
  }
  Array all;
  for (auto& [pid, process] : processes) all.append(std::move(process));
  return all;
}

void addClients(Exposition& out, const Array& connections) {
  const Array clients = processesOf(connections);
  out.gauge("clients", "", "Processes that are connected.", clients.size());
  out.begin("client_requests", "counter", "", "Requests that had their turn.");
  addRows(out, clients, kProgram, key::requests, "_total");
  out.begin("client_waiting_messages", "gauge", "", "Messages that wait for their turn.");
  addRows(out, clients, kProgram, key::waiting);
  out.begin("client_unsent", "gauge", "bytes", "Replies that the client has not taken.");
  addRows(out, clients, kProgram, key::unsent);
}

void addHolds(Exposition& out, const Array& holds, double now) {
  out.gauge("holds", "", "Holds.", holds.size());
  out.begin("hold_age", "gauge", "seconds", "Time since the hold began.");
  for (const Value& hold : holds) {
    const auto since = hold[key::since].date();
    out.label(hold, kHold);
    out.sample("", numberText(since ? std::max(now - since->secondsSince1970, 0.0) : 0));
  }
  out.begin("hold_plugins", "gauge", "", "Plug-ins that are held.");
  addRows(out, holds, kHold, key::plugIns);
}

void addRequests(Exposition& out, const Array& requests) {
  const Label labels[] = {{"request", key::name}};
  out.begin("request_duration", "summary", "seconds", "From the first turn of a request to its reply.");
  for (const Value& row : requests) {
    out.label(row, labels);
    if (!row[key::p50].isNone()) out.sample("", valueText(row[key::p50]), "0.5");
    if (!row[key::p99].isNone()) out.sample("", valueText(row[key::p99]), "0.99");
    out.sample("_sum", valueText(row[key::seconds]));
    out.sample("_count", valueText(row[key::count]));
  }
  out.begin("request_failures", "counter", "", "Requests that were answered with an error.");
  addRows(out, requests, labels, key::failed, "_total");
}

}  // namespace

std::string openMetricsText(const Dictionary& status, double now) {
  const Value &records = status[key::records], &registry = status[key::registry],
              &annotations = status[key::annotations];
  Exposition out;
  addDaemon(out, status);
  addClients(out, rows(status, key::clients));
  addHolds(out, rows(status, key::holds), now);
  addRequests(out, rows(status, key::requests));
  out.gauge("records", "", "Plug-in records kept in memory.", records[key::kept]);
  out.gauge("records_limit", "", "Records above which all are dropped.", records[key::limit]);
  out.counter("record_purges", "How often all records were dropped.", records[key::purges]);
  out.gauge("registry_bundles", "", "Registered plug-in bundles.", registry[key::bundles]);
  out.gauge("registry_plugins", "", "Registered plug-ins.", registry[key::plugIns]);
  out.counter("registry_announcements", "Batches of installs and removals.", registry[key::announcements]);
  out.gauge("registry_scan_timestamp", "seconds", "When the disk was last looked at.",
            registry[key::scanned]);
  out.gauge("registry_watches", "", "inotify watches in use.", registry[key::watches]);
  out.gauge("registry_polling", "", "1 when watches ran out.", registry[key::polling]);
  out.gauge("annotation_records", "", "Plug-ins that something was recorded of.", annotations[key::records]);
  out.gauge("annotation_file", "bytes", "Size of the annotation file.", annotations[key::bytes]);
  out.gauge("annotation_save_timestamp", "seconds", "When it was last saved.", annotations[key::saved]);
  out.gauge("annotation_failed", "", "1 when it could not be loaded, or saved the last time.",
            !annotations[key::error].isNone());
  return out.take();
}

}  // namespace abctl
