#include "platform/log/Log.h"

#include <syslog.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <mutex>

namespace platform {

namespace {

constexpr const char* kLogSocket = "/dev/log";

bool copiesToStandardError() {
  const char* choice = std::getenv("ABD_LOG");
  if (choice != nullptr && std::strcmp(choice, "stderr") == 0) return true;
  return isatty(STDERR_FILENO) == 1 || access(kLogSocket, W_OK) != 0;
}

/// One entry is one line, whatever the text holds.
std::string escapeControlCharacters(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte >= 0x20 && byte != 0x7F) {
      out += c;
    } else if (c == '\n') {
      out += "\\n";
    } else if (c == '\t') {
      out += "\\t";
    } else {
      constexpr char kDigits[] = "0123456789abcdef";
      out += "\\x";
      out += kDigits[byte >> 4];
      out += kDigits[byte & 15];
    }
  }
  return out;
}

}  // namespace

void writeLogEntry(std::string_view text) {
  static const bool toStandardError = [] {
    openlog(nullptr, LOG_PID, LOG_DAEMON);
    return copiesToStandardError();
  }();
  const std::string line = escapeControlCharacters(text);
  syslog(LOG_NOTICE, "%s", line.c_str());
  if (!toStandardError) return;
  const std::string copy = format("%s[%d]: %s\n", program_invocation_short_name, getpid(), line);
  // One write, so that entries of several threads and processes do not mix; a failure has nowhere to go.
  [[maybe_unused]] const ssize_t written = write(STDERR_FILENO, copy.data(), copy.size());
}

}  // namespace platform
