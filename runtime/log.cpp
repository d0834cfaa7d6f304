#include "runtime/log.h"

#include <cstdarg>
#include <cstdio>
#include <memory>
#include <mutex>

#include "runtime/user_defaults.h"
#include "tellora/logging.h"

namespace tellora {

namespace {

struct LogState {
  // Recursive so that a host sink which itself logs does not deadlock.
  std::recursive_mutex mutex;
  std::shared_ptr<const TLRLogSink> sink;  // null: stderr
};

// Immortal: SDK threads may still log while static destructors run at exit.
LogState& logState() {
  static LogState* const state = new LogState;
  return *state;
}

void writeToStderr(std::string_view line) {
  std::string text(line);
  text.push_back('\n');
  std::fwrite(text.data(), 1, text.size(), stderr);
}

std::string vstrprintf(const char* format, va_list args) {
  va_list sizing;
  va_copy(sizing, args);
  const int length = std::vsnprintf(nullptr, 0, format, sizing);
  va_end(sizing);
  if (length <= 0) return {};
  std::string text(static_cast<size_t>(length), '\0');
  std::vsnprintf(text.data(), text.size() + 1, format, args);
  return text;
}

}  // namespace

void TLRSetLogSink(TLRLogSink sink) {
  auto& state = logState();
  std::lock_guard lock(state.mutex);
  state.sink = sink ? std::make_shared<const TLRLogSink>(std::move(sink)) : nullptr;
}

void logLine(std::string_view line) {
  auto& state = logState();
  std::lock_guard lock(state.mutex);
  // A local reference keeps the sink alive if it replaces itself while running.
  const auto sink = state.sink;
  if (sink) {
    (*sink)(line);
  } else {
    writeToStderr(line);
  }
}

void logf(const char* format, ...) {
  va_list args;
  va_start(args, format);
  const std::string line = vstrprintf(format, args);
  va_end(args);
  logLine(line);
}

void debugf(const char* format, ...) {
  if (!debugEnabled()) return;
  va_list args;
  va_start(args, format);
  const std::string line = vstrprintf(format, args);
  va_end(args);
  logLine(line);
}

bool debugEnabled() {
  return UserDefaults::standard().boolForKey("debug");
}

std::string strprintf(const char* format, ...) {
  va_list args;
  va_start(args, format);
  std::string text = vstrprintf(format, args);
  va_end(args);
  return text;
}

}  // namespace tellora
