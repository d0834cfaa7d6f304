// The SDK's diagnostics. `logf` always writes; `debugf` writes only while the
// boolean "debug" of the user-defaults store is true.
#pragma once

#include <string>
#include <string_view>

namespace tellora {

void logLine(std::string_view line);
void logf(const char* format, ...) __attribute__((format(printf, 1, 2)));
void debugf(const char* format, ...) __attribute__((format(printf, 1, 2)));
// The "debug" switch, read at every debug-only log site.
bool debugEnabled();
// printf into a std::string.
std::string strprintf(const char* format, ...) __attribute__((format(printf, 1, 2)));

}  // namespace tellora
