#pragma once

// The system log: syslog(3), with a copy on standard error when that is a terminal, when there is no log
// socket, or with ABD_LOG=stderr in the environment. One call is one entry and one line: control characters
// are escaped. Any thread.
//
// Nobody fills the log by making one line come again and again: of each text (the format, not what it
// becomes) kLogBurst entries may be written at once and kLogRate a second after that (a long entry counts as
// one for each KiB). Beyond it entries of the text are counted before anything is formatted, until a second's
// worth may be written again; then one line says how many were left out, which any entry and
// tellLeftOutEntries() bring about.

#include <cstddef>
#include <functional>
#include <span>
#include <string>
#include <string_view>

#include "platform/log/Format.h"

#pragma GCC visibility push(default)

namespace platform {

/// Leaves the copy on standard error out from now on, unless ABD_LOG asks for it: for programs that tell
/// their user what went wrong themselves. Before the first entry.
void keepLogFromStandardError();

/// Nothing is written from now on: for programs that run the system's code for what it answers.
void silenceLog();

inline constexpr size_t kLogBurst = 1000;
inline constexpr size_t kLogRate = 20;

/// Writes one finished entry, whatever was written before.
void writeLogEntry(std::string_view text);

/// Whether an entry of this text may be written now; one that may not is counted.
bool admitLogEntry(std::string_view text);

/// Says of each text that may be written again how many of its entries were left out; false when some have to
/// wait.
bool tellLeftOutEntries();

/// `handler` is called, on any thread, when entries begin to be left out: a second later somebody should call
/// tellLeftOutEntries(), again and again until it answers true. Before the first entry; once.
void whenLogEntriesAreLeftOut(std::function<void()> handler);

/// Writes an entry of a text that was admitted.
void writeAdmittedEntry(std::string_view text, const std::string& entry);

/// Formats and writes one entry.
inline void systemLogArguments(std::string_view text, std::span<const FormatArgument> arguments) {
  if (admitLogEntry(text)) writeAdmittedEntry(text, formatArguments(text, arguments));
}
template <typename... Args>
void systemLog(Format<Args...> text, const Args&... args) {
  if (admitLogEntry(text.text())) writeAdmittedEntry(text.text(), format<Args...>(text, args...));
}

}  // namespace platform

#pragma GCC visibility pop
