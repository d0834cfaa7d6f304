#include "runtime/log.h"

#include <cstdarg>
#include <cstdio>
#include <deque>
#include <memory>
#include <mutex>
#include <utility>

#include "runtime/user_defaults.h"
#include "tellora/logging.h"

namespace tellora {

namespace {

// Lines are delivered one at a time, in order, but never under a lock: a host
// sink may take its own locks or call into the SDK from any thread. A thread
// that finds another thread delivering leaves its line in `pending` and goes
// on; the delivering thread writes it before it leaves.
struct LogState {
  std::mutex mutex;
  std::shared_ptr<const LeveledLogSink> sink;  // null: stderr
  std::deque<std::pair<LogLevel, std::string>> pending;
  bool delivering = false;
  size_t dropped = 0;
};

// A sink that never returns must not make the queue grow without bound.
constexpr size_t kPendingLimit = 10000;

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

const char* logLevelName(LogLevel level) {
  switch (level) {
    case LogLevel::debug:
      return "debug";
    case LogLevel::warning:
      return "warning";
    case LogLevel::error:
      return "error";
    default:
      return "info";
  }
}

void setLeveledLogSink(LeveledLogSink sink) {
  auto& state = logState();
  std::lock_guard lock(state.mutex);
  state.sink = sink ? std::make_shared<const LeveledLogSink>(std::move(sink)) : nullptr;
}

void TLRSetLogSink(TLRLogSink sink) {
  if (!sink) return setLeveledLogSink(nullptr);
  setLeveledLogSink([sink = std::move(sink)](LogLevel, std::string_view line) { sink(line); });
}

void logLine(std::string_view line, LogLevel level) {
  auto& state = logState();
  std::unique_lock lock(state.mutex);
  if (state.pending.size() >= kPendingLimit) {
    ++state.dropped;
    return;
  }
  state.pending.emplace_back(level, line);
  if (state.delivering) return;  // a sink that logs lands here too
  state.delivering = true;
  while (!state.pending.empty()) {
    auto [nextLevel, next] = std::move(state.pending.front());
    state.pending.pop_front();
    if (state.dropped > 0 && state.pending.empty()) {
      state.pending.emplace_back(LogLevel::warning,
                                 "Tellora: " + std::to_string(state.dropped) +
                                     " log lines dropped (the log sink is too slow)");
      state.dropped = 0;
    }
    // A local reference keeps the sink alive if it replaces itself while running.
    const auto sink = state.sink;
    lock.unlock();
    if (sink) {
      (*sink)(nextLevel, next);
    } else {
      writeToStderr(next);
    }
    lock.lock();
  }
  state.delivering = false;
}

namespace {
void logAt(LogLevel level, const char* format, va_list args) {
  logLine(vstrprintf(format, args), level);
}
}  // namespace

void logf(const char* format, ...) {
  va_list args;
  va_start(args, format);
  logAt(LogLevel::info, format, args);
  va_end(args);
}
void warnf(const char* format, ...) {
  va_list args;
  va_start(args, format);
  logAt(LogLevel::warning, format, args);
  va_end(args);
}
void errorf(const char* format, ...) {
  va_list args;
  va_start(args, format);
  logAt(LogLevel::error, format, args);
  va_end(args);
}
void debugf(const char* format, ...) {
  if (!debugEnabled()) return;
  va_list args;
  va_start(args, format);
  logAt(LogLevel::debug, format, args);
  va_end(args);
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
