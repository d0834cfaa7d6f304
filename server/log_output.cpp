#include "server/log_output.h"

#include <cstdio>
#include <ctime>

#include <nlohmann/json.hpp>

namespace tellora::server {

namespace {

std::string utcTimestamp(std::chrono::system_clock::time_point time) {
  using namespace std::chrono;
  const auto ms = duration_cast<milliseconds>(time.time_since_epoch()).count();
  const std::time_t seconds = static_cast<std::time_t>(ms / 1000);
  std::tm parts{};
  gmtime_r(&seconds, &parts);
  char text[40];
  const size_t length = std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", &parts);
  std::snprintf(text + length, sizeof text - length, ".%03dZ", static_cast<int>(ms % 1000));
  return text;
}

}  // namespace

std::optional<LogFormat> parseLogFormat(std::string_view name) {
  if (name == "text") return LogFormat::text;
  if (name == "json") return LogFormat::json;
  return std::nullopt;
}

std::string formatLogEntry(LogFormat format, std::chrono::system_clock::time_point time,
                           LogLevel level, std::string_view message) {
  const std::string stamp = utcTimestamp(time);
  if (format == LogFormat::json) {
    // Client-supplied text (an app_version, say) may hold any bytes: never
    // let it break the line or the JSON.
    return nlohmann::json{{"time", stamp}, {"level", logLevelName(level)}, {"message", message}}
        .dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
  }
  std::string line = stamp + " " + logLevelName(level) + " ";
  for (const char c : message)
    line.push_back(c == '\n' || c == '\r' ? ' ' : c);
  return line;
}

void installServerLog(LogFormat format) {
  setLeveledLogSink([format](LogLevel level, std::string_view message) {
    std::string line = formatLogEntry(format, std::chrono::system_clock::now(), level, message);
    line.push_back('\n');
    std::fwrite(line.data(), 1, line.size(), stderr);
  });
}

}  // namespace tellora::server
