// How the server writes its log: one line per entry on stderr, stamped with
// the UTC time and the level, as text or as JSON objects for log shippers.
//
//   2026-11-25T11:50:00.123Z info clients a and b are nearby
//   {"level":"info","message":"clients a and b are nearby","time":"2026-11-25T11:50:00.123Z"}
#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <string_view>

#include "runtime/log.h"

namespace tellora::server {

enum class LogFormat { text, json };

// "text" or "json"; nullopt for anything else.
std::optional<LogFormat> parseLogFormat(std::string_view name);

// One entry as written, without the newline.
std::string formatLogEntry(LogFormat format, std::chrono::system_clock::time_point time,
                           LogLevel level, std::string_view message);

// Sends every log line of the process to stderr in `format`.
void installServerLog(LogFormat format);

}  // namespace tellora::server
