// What a host sees of an in-process SDK instance, recorded from SDK threads
// and read by the test thread.
#pragma once

#include <chrono>
#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "tellora/error.h"

namespace tellora::faults {

class HostLog {
 public:
  using Clock = std::chrono::steady_clock;
  struct Stop {
    std::optional<TLRError> error;
    Clock::time_point at;
  };

  void started();
  void stopped(const std::optional<TLRError>& error);
  void speedStatus(const std::string& status);
  void logLine(std::string line);

  int startedCount() const;
  std::vector<Stop> stops() const;
  std::vector<Stop> stopsWithCode(int64_t code) const;
  std::vector<std::string> speedStatuses() const;
  std::size_t countLog(const std::string& line) const;
  std::size_t countLogStartingWith(const std::string& prefix) const;

 private:
  mutable std::mutex mutex_;
  int started_ = 0;
  std::vector<Stop> stops_;
  std::vector<std::string> speedStatuses_;
  std::vector<std::string> logLines_;
};

}  // namespace tellora::faults
