#include "platform/log/Log.h"

#include <syslog.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <mutex>

#include "platform/log/LogRates.h"

namespace platform {

namespace {

constexpr const char* kLogSocket = "/dev/log";
/// A longer entry does not fit the log socket's datagrams; the copy on standard error is always whole.
constexpr size_t kLongestLogDatagram = 96 * 1024;

/// A longer entry counts for several.
constexpr size_t kLargeEntry = 1024;
/// How often it is looked whether texts that were left out may be written again.
constexpr LogRates::Clock::duration kLookInterval = std::chrono::milliseconds(100);

std::atomic<bool> isKeptFromStandardError = false;
std::atomic<bool> isSilent = false;

struct Rates : LogRates {
  std::function<void()> whenLeavingOut;  // set before the first entry
  std::atomic<Clock::rep> lookAgainAt{0};
};

Rates& rates() {
  // Never destroyed: other threads may log until the process ends.
  static Rates& rates = *new Rates;
  return rates;
}

bool copiesToStandardError() {
  const char* choice = std::getenv("ABD_LOG");
  if (choice != nullptr && std::strcmp(choice, "stderr") == 0) return true;
  if (isKeptFromStandardError) return false;
  return isatty(STDERR_FILENO) == 1 || access(kLogSocket, W_OK) != 0;
}

/// One entry is one line, whatever the text holds, and nothing in it commands a terminal: the control
/// characters above ASCII (U+0080 to U+009F, in UTF-8 the byte C2 and one of 80 to 9F) are escaped too.
std::string escapeControlCharacters(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  for (size_t i = 0; i < text.size(); ++i) {
    const char c = text[i];
    const auto byte = static_cast<unsigned char>(c);
    const bool isHighControl = byte >= 0x80 && byte < 0xA0 && i > 0 && text[i - 1] == '\xC2';
    if (byte >= 0x20 && byte != 0x7F && !isHighControl) {
      out += c;
    } else if (c == '\n') {
      out += "\\n";
    } else if (c == '\t') {
      out += "\\t";
    } else {
      if (isHighControl) out.pop_back();
      constexpr char kDigits[] = "0123456789abcdef";
      out += "\\x";
      out += kDigits[byte >> 4];
      out += kDigits[byte & 15];
    }
  }
  return out;
}

}  // namespace

void keepLogFromStandardError() {
  isKeptFromStandardError = true;
}

void silenceLog() {
  isSilent = true;
}

void whenLogEntriesAreLeftOut(std::function<void()> handler) {
  rates().whenLeavingOut = std::move(handler);
}

bool admitLogEntry(std::string_view text) {
  Rates& all = rates();
  const auto now = LogRates::Clock::now();
  if (all.isLeavingOut() &&
      now.time_since_epoch().count() >= all.lookAgainAt.load(std::memory_order_relaxed)) {
    all.lookAgainAt.store((now + kLookInterval).time_since_epoch().count(), std::memory_order_relaxed);
    tellLeftOutEntries();
  }
  const LogRates::Verdict verdict = all.admit(text, now);
  if (verdict == LogRates::Verdict::firstLeftOut && all.whenLeavingOut) all.whenLeavingOut();
  return verdict == LogRates::Verdict::written;
}

void writeAdmittedEntry(std::string_view text, const std::string& entry) {
  if (entry.size() > kLargeEntry) rates().charge(text, entry.size() / kLargeEntry);
  writeLogEntry(entry);
}

bool tellLeftOutEntries() {
  for (const LogRates::LeftOut& each : rates().takeLeftOut(LogRates::Clock::now()))
    writeLogEntry(format("left out %u entries of \"%s\"", each.count, each.text));
  return !rates().isLeavingOut();
}

void writeLogEntry(std::string_view text) {
  if (isSilent) return;
  static const bool toStandardError = [] {
    openlog(nullptr, LOG_PID, LOG_DAEMON);
    return copiesToStandardError();
  }();
  const std::string line = escapeControlCharacters(text);
  if (line.size() <= kLongestLogDatagram) {
    syslog(LOG_NOTICE, "%s", line.c_str());
  } else {
    syslog(LOG_NOTICE, "%.*s... (%zu bytes)", static_cast<int>(kLongestLogDatagram), line.c_str(),
           line.size());
  }
  if (!toStandardError) return;
  const std::string copy = format("%s[%d]: %s\n", program_invocation_short_name, getpid(), line);
  // One write, so that entries of several threads and processes do not mix; a failure has nowhere to go.
  [[maybe_unused]] const ssize_t written = write(STDERR_FILENO, copy.data(), copy.size());
}

}  // namespace platform
