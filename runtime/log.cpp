#include "runtime/log.h"

#include <cstdarg>
#include <cstdio>
#include <deque>
#include <memory>
#include <mutex>

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
  std::shared_ptr<const TLRLogSink> sink;  // null: stderr
  std::deque<std::string> pending;
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

void TLRSetLogSink(TLRLogSink sink) {
  auto& state = logState();
  std::lock_guard lock(state.mutex);
  state.sink = sink ? std::make_shared<const TLRLogSink>(std::move(sink)) : nullptr;
}

void logLine(std::string_view line) {
  auto& state = logState();
  std::unique_lock lock(state.mutex);
  if (state.pending.size() >= kPendingLimit) {
    ++state.dropped;
    return;
  }
  state.pending.emplace_back(line);
  if (state.delivering) return;  // a sink that logs lands here too
  state.delivering = true;
  while (!state.pending.empty()) {
    std::string next = std::move(state.pending.front());
    state.pending.pop_front();
    if (state.dropped > 0 && state.pending.empty()) {
      state.pending.push_back("Tellora: " + std::to_string(state.dropped) +
                              " log lines dropped (the log sink is too slow)");
      state.dropped = 0;
    }
    // A local reference keeps the sink alive if it replaces itself while running.
    const auto sink = state.sink;
    lock.unlock();
    if (sink) {
      (*sink)(next);
    } else {
      writeToStderr(next);
    }
    lock.lock();
  }
  state.delivering = false;
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
