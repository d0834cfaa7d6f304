// Keeps a test away from the process-wide runtime state (the standard
// user-defaults store points into a scratch folder, log lines are captured
// instead of printed), plus what every threaded test needs: waiting for a
// condition, and a list that other threads append to.
// Link tellora_test_audio (the scratch folder).
#pragma once

#include <algorithm>
#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "runtime/user_defaults.h"
#include "tellora/logging.h"
#include "tests/support/watched.h"
#include "tests/tools/scratch_dir.h"

namespace tellora::testing {

// Polls until `condition` holds; false after `timeout`, which only a broken
// build ever reaches.
inline bool waitUntil(const std::function<bool()>& condition,
                      std::chrono::milliseconds timeout = kDefaultWait) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  return true;
}

// Values reported on other threads, read by the test.
template <class T>
class Recorded {
 public:
  void add(T value) {
    std::lock_guard lock(mutex_);
    values_.push_back(std::move(value));
  }
  std::vector<T> values() const {
    std::lock_guard lock(mutex_);
    return values_;
  }
  size_t size() const {
    std::lock_guard lock(mutex_);
    return values_.size();
  }
  template <class Predicate>
  size_t countIf(Predicate matches) const {
    std::lock_guard lock(mutex_);
    return static_cast<size_t>(std::count_if(values_.begin(), values_.end(), matches));
  }
  size_t count(const T& value) const {
    return countIf([&](const T& v) { return v == value; });
  }

 private:
  mutable std::mutex mutex_;
  std::vector<T> values_;
};

// While it lives: the standard store is <folder>/defaults.json, and every
// log line lands in `log`.
class RuntimeSandbox {
 public:
  RuntimeSandbox() {
    UserDefaults::setStandardPath(folder.file("defaults.json"));
    TLRSetLogSink([log = log](std::string_view line) { log->add(std::string(line)); });
  }
  ~RuntimeSandbox() { TLRSetLogSink({}); }
  RuntimeSandbox(const RuntimeSandbox&) = delete;
  RuntimeSandbox& operator=(const RuntimeSandbox&) = delete;

  std::vector<std::string> logLines() const { return log->values(); }
  size_t countLog(const std::string& line) const { return log->count(line); }
  size_t countLogStartingWith(const std::string& prefix) const {
    return log->countIf([&](const std::string& line) { return line.starts_with(prefix); });
  }
  static void setDebug(bool enabled) { UserDefaults::standard().setBool("debug", enabled); }

  testtools::ScratchDir folder;
  // Shared with the sink, which the SDK may be calling as the sandbox goes.
  std::shared_ptr<Recorded<std::string>> log = std::make_shared<Recorded<std::string>>();
};

}  // namespace tellora::testing
