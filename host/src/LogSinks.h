// The host's log output: where the process-wide log lines (Ny::Logging) and, at debug level, the
// runtime's lines go, and in which form.
//
//   text     "2026-11-23T23:59:59.123Z 0x8000000000000001 [context] message", one line each;
//   journal  the text form with a syslog priority prefix ("<5>") instead of the time, which the journal
//            adds itself: chosen for text when stderr is the journal's stream (JOURNAL_STREAM names its
//            device and inode);
//   json     one object per line: {"time","level","context","message"} and "routine" when the line was
//            logged by a routine's code.
// Whatever bytes a context or message holds, a line stays one line, and a JSON line stays valid JSON
// (bytes that are not UTF-8 become U+FFFD).
//
// Threading: the sinks may be called from any thread at once; one mutex keeps lines whole. Installed
// once by main before the service starts; the functions below are stateless and thread-safe.
#pragma once

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <string>
#include <string_view>

#include "NyApi/Logging.h"

namespace NyHost {

enum class LogForm { Text, Journal, Json };

// Installs the sinks writing to stderr: `level` as --log-level ("debug", "info", "error", "none"),
// `format` as --log-format ("text" or "json"). Replaces any earlier sinks.
void InstallLogSinks(const std::string& level, const std::string& format);

// The form for `format` when the log goes to `fd`: json when asked; else journal when
// `journalStream` (the JOURNAL_STREAM variable, "<device>:<inode>", or null) names fd's file.
LogForm ChooseLogForm(const std::string& format, const char* journalStream, int fd);
// True when `journalStream` names the device and inode of `fd` (fstat), as the service manager sets it
// for the stream it connected; false for a stream redirected elsewhere, an unset or malformed value.
bool IsJournalStream(const char* journalStream, int fd);

// Whether a line of this level word passes at --log-level `level`.
bool LogPasses(const std::string& level, std::uint64_t levelWord);
// "debug", "info", "notice" or "error" for a level word, and its syslog priority (7, 6, 5, 3).
std::string_view LevelName(std::uint64_t levelWord);
int SyslogPriority(std::uint64_t levelWord);

// One whole line (with its line feed) of `record` in `form`, logged at `time`.
std::string FormatLogLine(LogForm form, const Ny::Logging::LogRecord& record,
                          std::chrono::system_clock::time_point time);

// A line the process writes itself, beside the log and whatever its level (a warning about the options,
// a failed start, where it listens): `text` as it is for a person at a terminal (Text), else a log line
// of `levelWord` in `form`, so that a stream the journal or a shipper reads holds nothing but log lines.
std::string ProcessLine(LogForm form, std::uint64_t levelWord, const std::string& text,
                        std::chrono::system_clock::time_point time);

}  // namespace NyHost
