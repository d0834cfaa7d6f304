// A value shared between threads that a test can wait on: one thread changes
// it, the test waits until it satisfies a condition or a time limit passes.
#pragma once

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdlib>
#include <functional>
#include <mutex>
#include <vector>

namespace tellora::testing {

// How many times slower than usual the tests run (under valgrind, 20-50 times):
// TELLORA_TEST_WAIT_SCALE=10 makes every wait and every timing tolerance ten
// times as long.
inline long waitScale() {
  const char* scale = std::getenv("TELLORA_TEST_WAIT_SCALE");
  const long factor = scale ? std::strtol(scale, nullptr, 10) : 1;
  return factor > 1 ? factor : 1;
}

// How long a test waits for something that should happen at once.
inline const std::chrono::milliseconds kDefaultWait = std::chrono::seconds(5) * waitScale();

template <class T>
class Watched {
 public:
  // Runs `change` on the value under the lock, then wakes the waiters.
  template <class F>
  void update(F change) {
    {
      std::lock_guard lock(mutex_);
      change(value_);
    }
    changed_.notify_all();
  }
  T get() const {
    std::lock_guard lock(mutex_);
    return value_;
  }
  // Whether `predicate` (called under the lock: keep it short) held in time.
  bool waitUntil(const std::function<bool(const T&)>& predicate,
                 std::chrono::milliseconds timeout = kDefaultWait) const {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, timeout, [&] { return predicate(value_); });
  }

 private:
  mutable std::mutex mutex_;
  mutable std::condition_variable changed_;
  T value_{};
};

// A list that grows on one thread while a test waits for entries.
template <class T>
class WatchedList : public Watched<std::vector<T>> {
 public:
  void add(T item) {
    this->update([&](std::vector<T>& items) { items.push_back(std::move(item)); });
  }
  std::size_t count(const T& item) const {
    const auto items = this->get();
    return static_cast<std::size_t>(std::count(items.begin(), items.end(), item));
  }
  bool waitForSize(std::size_t size, std::chrono::milliseconds timeout = kDefaultWait) const {
    return this->waitUntil([size](const auto& items) { return items.size() >= size; }, timeout);
  }
  // Waits until `item` is in the list `times` times.
  bool waitFor(const T& item, std::size_t times = 1,
               std::chrono::milliseconds timeout = kDefaultWait) const {
    return this->waitUntil(
        [&](const auto& items) {
          return static_cast<std::size_t>(std::count(items.begin(), items.end(), item)) >= times;
        },
        timeout);
  }
};

}  // namespace tellora::testing
