// What a host sees of an in-process SDK instance, recorded from SDK threads
// and read by the test thread.
#pragma once

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "tellora/error.h"
#include "tests/support/watched.h"

namespace tellora::faults {

struct HostLog {
  struct Stop {
    std::optional<TLRError> error;
    std::chrono::steady_clock::time_point at;
  };

  void started() {
    starts.update([](int& n) { ++n; });
  }
  void stopped(const std::optional<TLRError>& error) {
    stops_.add({error, std::chrono::steady_clock::now()});
  }
  void speedStatus(const std::string& status) { speedStatuses.add(status); }
  void logLine(std::string line) { log.add(std::move(line)); }

  int startedCount() const { return starts.get(); }
  std::vector<Stop> stops() const { return stops_.get(); }
  std::vector<Stop> stopsWithCode(int64_t code) const {
    auto matching = stops();
    std::erase_if(matching, [&](const Stop& s) { return !s.error || s.error->code != code; });
    return matching;
  }
  std::size_t countLog(const std::string& line) const { return log.count(line); }
  std::size_t countLogStartingWith(const std::string& prefix) const {
    const auto lines = log.get();
    return static_cast<std::size_t>(std::count_if(
        lines.begin(), lines.end(), [&](const std::string& l) { return l.rfind(prefix, 0) == 0; }));
  }

  testing::Watched<int> starts;
  testing::WatchedList<std::string> speedStatuses, log;

 private:
  testing::WatchedList<Stop> stops_;
};

}  // namespace tellora::faults
