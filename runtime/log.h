// The SDK's diagnostics. `logf` always writes; `debugf` writes only while the
// boolean "debug" of the user-defaults store is true. The host's sink sees
// lines only; the server's own sink also sees each line's level.
#pragma once

#include <functional>
#include <string>
#include <string_view>

namespace tellora {

enum class LogLevel { debug, info, warning, error };
const char* logLevelName(LogLevel level);  // "debug", "info", "warning", "error"

// Replaces the sink with one that is told each line's level; an empty
// function restores the stderr sink. Same delivery rules as TLRSetLogSink.
using LeveledLogSink = std::function<void(LogLevel level, std::string_view line)>;
void setLeveledLogSink(LeveledLogSink sink);

void logLine(std::string_view line, LogLevel level = LogLevel::info);
void logf(const char* format, ...) __attribute__((format(printf, 1, 2)));
void warnf(const char* format, ...) __attribute__((format(printf, 1, 2)));
void errorf(const char* format, ...) __attribute__((format(printf, 1, 2)));
void debugf(const char* format, ...) __attribute__((format(printf, 1, 2)));
// The "debug" switch, read at every debug-only log site.
bool debugEnabled();
// printf into a std::string.
std::string strprintf(const char* format, ...) __attribute__((format(printf, 1, 2)));

}  // namespace tellora
