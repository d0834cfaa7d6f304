#include "tests/faults/host_log.h"

#include <algorithm>

namespace tellora::faults {

void HostLog::started() {
  std::lock_guard lock(mutex_);
  ++started_;
}

void HostLog::stopped(const std::optional<TLRError>& error) {
  std::lock_guard lock(mutex_);
  stops_.push_back({error, Clock::now()});
}

void HostLog::speedStatus(const std::string& status) {
  std::lock_guard lock(mutex_);
  speedStatuses_.push_back(status);
}

void HostLog::logLine(std::string line) {
  std::lock_guard lock(mutex_);
  logLines_.push_back(std::move(line));
}

int HostLog::startedCount() const {
  std::lock_guard lock(mutex_);
  return started_;
}

std::vector<HostLog::Stop> HostLog::stops() const {
  std::lock_guard lock(mutex_);
  return stops_;
}

std::vector<HostLog::Stop> HostLog::stopsWithCode(int64_t code) const {
  std::vector<Stop> matching;
  for (const auto& stop : stops())
    if (stop.error && stop.error->code == code) matching.push_back(stop);
  return matching;
}

std::vector<std::string> HostLog::speedStatuses() const {
  std::lock_guard lock(mutex_);
  return speedStatuses_;
}

std::size_t HostLog::countLog(const std::string& line) const {
  std::lock_guard lock(mutex_);
  return static_cast<std::size_t>(std::count(logLines_.begin(), logLines_.end(), line));
}

std::size_t HostLog::countLogStartingWith(const std::string& prefix) const {
  std::lock_guard lock(mutex_);
  return static_cast<std::size_t>(
      std::count_if(logLines_.begin(), logLines_.end(),
                    [&](const std::string& line) { return line.rfind(prefix, 0) == 0; }));
}

}  // namespace tellora::faults
